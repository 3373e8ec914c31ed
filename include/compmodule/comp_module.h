// One component of this process: its channel to the server, its clients, its route ports and its
// topics. The address of the object is the handle that an application holds.
//
// Owns:     connConfig, netChannel, dataLayer and the 500 connections. The shared-memory group is
//           given back at the end and lives on. Callbacks' arguments belong to whoever gave them.
// Threads:  built, set up and destroyed by one thread. What arrives, connMap, connTable and every
//           callback belong to the receive thread from start() on; a callback must not block it.
//           publish() and answers are for any thread. subscribeMap is written by subscribe() and
//           unsubscribe() and read by the receive thread without a lock: both are for the time
//           before start(), for a callback, or for a moment when the server sends no topics and
//           the link stands. register_route_port() reads the channel itself and runs before
//           start() or in a callback only.
// Lifetime: init_comp_module(), init_ivshm_channel(), ports and topics, start(). A module that was
//           started cannot be stopped or destroyed: both wait for a thread that never ends.
#ifndef KYP_COMPMODULE_COMP_MODULE_H
#define KYP_COMPMODULE_COMP_MODULE_H

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "compmodule/CmpSysParamConf.h"
#include "compmodule/comp_virtual_conn.h"
#include "kypclient/KypPeerConn.h"
#include "kypcomm/KypCmpTypes.h"
#include "kypcomm/KypMsgRequest.h"
#include "kypcomm/KypWire.h"
#include "utils/Export.h"

class BusinessDataLayer;
class CNetChannel;
class IvshmSvrGroup;
class RecvBuf;

namespace libkyp {
namespace compmodule {

using ::_CmpSysParamConf;
using ::_libkypSubscribelCallBack;
using ::CmpConnConfig;
using ::tagCmpDrvInfo;

// CompModule::state. A lost link clears 4, 8 and 16; a new one sets 4 alone.
enum CompModuleState : uint32_t {
    COMP_STATE_CONSTRUCTED = 2,
    COMP_STATE_CONNECTED = 4,    // the channel has a link
    COMP_STATE_REGISTERED = 8,   // the first registration succeeded
    COMP_STATE_ROUTE_PORT = 16,  // the latest register_route_port() succeeded
    COMP_STATE_STARTED = 32,     // the receive thread runs
};

constexpr int kVirtualConns = 500;

class KYP_API CompModule {
public:
    // Copies `info`, which is not null; a name that fills all its 32 bytes loses the last one.
    // `callback` and `arg` are kept and never used. Nothing is connected yet.
    CompModule(tagCmpDrvInfo* info, int (*callback)(unsigned int, char const*, unsigned int, void*),
               void* arg);

    // stop(), then uninit_comp_module().
    ~CompModule();
    CompModule(CompModule const&) = delete;
    CompModule& operator=(CompModule const&) = delete;

    // Reads the settings, connects once and registers. Returns 0; or why the component is not known
    // to the server, in tlsErrno too: 0x4003 for a name that is taken, 0x4007 when no server could
    // be reached and the attempt left no status, else what register_component() says. All but a
    // taken name are made good by the receive thread once it runs.
    int init_comp_module();

    // Fills `conf` from the configuration. Returns 0, also when there is none.
    int init_comp_config();

    // Opens and starts the shared-memory group of the settings. Returns 0, or -1 when the settings
    // have none or it cannot be opened.
    int init_ivshm_channel();

    // Closes the channel and frees what belongs to the module, which can then only be destroyed.
    // Returns 0.
    int uninit_comp_module();

    // Starts the receive thread. Returns 0.
    int start();

    // Never returns once start() was called, like the receive thread that it waits for. Otherwise
    // returns 0.
    int stop();

    // Where the application enters its client callbacks, before start(). The module's.
    CmpConnConfig* getconfig();

    // Serves `port`, cut to 16 bits, with `callback` and tells the server, with up to 5 seconds for
    // each half of the exchange. Returns 0; 0x1007 for a port that has a route in this process,
    // with nothing sent, or that the server has given away already; 0x1012 for one outside 1..4096;
    // or why the exchange failed. The port is then asked for again behind the next reconnect, which
    // it is not after 0x1007 from the server. The route stays in the process's table in each case.
    int register_route_port(unsigned int port, KypSvrRoute callback, void* user);

    // Has `port` registered behind each reconnect. Returns 0.
    int cache_route_port(unsigned short port);

    // Publishes `length` bytes of `data`. Returns 0, 0x100d for a message too long, or why the
    // channel did not take it. Nothing is queued.
    int publish(char const* topic, unsigned int indexGroup, unsigned int indexOffset,
                char const* data, unsigned int length);

    // Enters or replaces the subscription and tells the server. The entry stays when that fails and
    // is sent behind the next reconnect. Returns as publish() does. A null topic throws
    // std::logic_error, here and in unsubscribe().
    int subscribe(char const* topic,
                  void (*callback)(unsigned int, unsigned int, char const*, char const*,
                                   unsigned int, void*),
                  void* user);

    // Removes the subscription and tells the server. 0x100a, also in tlsErrno, for an unknown one.
    int unsubscribe(char const* topic);

    // Delivers one whole frame, _KypHeader included: port 103 to its topic, any other to its port's
    // route. Of a frame that is shorter than its heads the missing heads read as zero, and there is
    // no payload. Returns 0.
    int process_received_message(RecvBuf* buf);

    // Delivers a forwarded request, `buf` standing behind the _AoEHeader, to the route of its port
    // with the client's connection as `conn`. A client that is not known yet gets the first free
    // slot; the 501st is answered with 0x101b and a log line. Returns 0.
    int process_route_message(_KypHeader& header, _AoEHeader& aoe, RecvBuf* buf);

    // Delivers a topic's message, whose body `buf` stands at. Returns 0.
    int process_subscribe_message(_KypHeader& header, _AoEHeader& aoe, RecvBuf* buf);

    // The lowest free slot, open from now on, or null when all are in use.
    VirtualConn* GetFreeConn();

    // Frees a slot. Returns -1, as VirtualConn::Close() does.
    int PutFreeConn(VirtualConn* conn);

    // What follows from a lost and from a new link. The first returns 0; the second 0 or why the
    // server did not register the component again.
    int disconnect_event();
    int reconnect_event();

    std::atomic<uint32_t> state;      // CompModuleState bits; relaxed: nothing is published by them
    tagCmpDrvInfo drvInfo;            // the description as given; dataLayer points at it
    CmpConnConfig* connConfig;        // owned; the application writes it before start()
    _CmpSysParamConf conf;            // the settings, or the defaults
    CNetChannel* netChannel;          // owned
    IvshmSvrGroup* ivshmGroup;        // null unless init_ivshm_channel() made it
    BusinessDataLayer* dataLayer;     // owned
    void* registerArg;                // as given; never used
    KypCmpCallback registerCallback;  // as given; never called
    std::vector<unsigned short> routePorts;  // registered behind each reconnect, in this order
    std::map<int, VirtualConn*> connMap;     // client number to its slot of connTable
    VirtualConn connTable[kVirtualConns];
    std::map<std::string, _libkypSubscribelCallBack> subscribeMap;  // by topic
};

// The receive thread's two callbacks, `module` being a CompModule. The first hears of the link by a
// status: 1 connected, 5 disconnected, 6 a failed attempt; the second delivers a frame. Both
// return 0.
KYP_API int CompConnectCallback(int code, void* module);
KYP_API int CompMessageCallback(RecvBuf* buf, void* module);

}  // namespace compmodule
}  // namespace libkyp

#endif
