// What stands between a component and its channel to the server: the receive thread, which also
// keeps the channel connected; the exchanges of registration; the numbering of outgoing frames; the
// frames about topics. It knows no routes and no topics.
//
// Owns:     its thread. Channel and description are its creator's and outlive it.
// Threads:  svc() is the channel's reader and runs both callbacks. Registering reads the channel on
//           the calling thread, so once started it belongs to the receive thread, where a connect
//           callback does it. Topic frames and get_invokeId() from any thread.
// Lifetime: a layer that was started never ends: see stop().
#ifndef KYP_COMPMODULE_BUSINESS_DATA_LAYER_H
#define KYP_COMPMODULE_BUSINESS_DATA_LAYER_H

#include <atomic>
#include <cstdint>
#include <thread>

#include "kypcomm/KypCmpTypes.h"
#include "kypcomm/KypWire.h"
#include "utils/CTimestamp.h"
#include "utils/Export.h"

class CNetChannel;
class CompRegisterPackage;
class RecvBuf;
class pbuf;

class KYP_API BusinessDataLayer {
public:
    // No thread, no connection. Both are borrowed.
    BusinessDataLayer(tagCmpDrvInfo* info, CNetChannel* netChannel);

    // Calls stop(), so it does not return for a layer that was started.
    ~BusinessDataLayer();
    BusinessDataLayer(BusinessDataLayer const&) = delete;
    BusinessDataLayer& operator=(BusinessDataLayer const&) = delete;

    // Starts the receive thread if there is none. Returns 0.
    int start();

    // Waits for the receive thread, which nothing ends: once started, this does not return, on that
    // thread neither. Returns 0 at once before any start().
    int stop();

    // The receive loop. Returns 0 when stopFlag is set.
    int svc();

    // Store their arguments; both before init_connect_channel() and start(). Return 0.
    //
    // `callback(code, arg)` hears 1 connected, 5 disconnected, 6 no connection made; 1 and 6 on the
    // thread that tries to connect, 5 on the receive thread. There has to be one.
    int register_connect_callback(int (*callback)(int, void*), void* arg);

    // `callback(frame, arg)` is given every frame on the receive thread, whole from its first head
    // on. The frame goes back to its pool behind the call. Without one, frames are dropped.
    int register_message_callback(int (*callback)(RecvBuf*, void*), void* arg);

    // One attempt to connect, with its callback. True when connected.
    bool init_connect_channel();

    // The same, unless the latest attempt was less than 3 seconds ago: then 0, without a callback.
    // 1 when connected, else 0.
    int reconect_channel();

    // One exchange with the server each, of at most 5 seconds to send and 5 to wait for the head of
    // the reply. Whatever comes next on the channel counts as the reply. 0, or a status that also
    // stands in tlsErrno: what the server answered (0x4003 name taken, 0x1007 port taken); what a
    // write or read of the channel left; 0x1008 no reply in time, with the link as it was; 0x100c
    // a reply without its heads. The component alone: 0x4007 not connected, nothing sent.
    int register_component();
    int register_route_port(unsigned short port);

    // The two halves of an exchange. `pkg` goes out; fields of `pkg` that the reply does not carry
    // stay as they are.
    int register_package_send(CompRegisterPackage* pkg);
    int register_package_recv(CompRegisterPackage* pkg);

    // The next number for a frame: 1 first, never 0.
    unsigned int get_invokeId();

    // Puts the three heads of a request with the next number in front of what `buf` holds. Returns
    // 0.
    int add_commkypheader_buf(pbuf* buf, unsigned short port, unsigned short cmd,
                              unsigned int indexGroup, unsigned int indexOffset);

    // One frame about a topic, with command, words and data of `payload`. 0, or a status that also
    // stands in tlsErrno: 0x100d for topic and data of more than 0x5fffff - 77 bytes, with nothing
    // sent; else what the channel's write left. A null topic throws std::logic_error.
    int write_pubsub_msg(char const* type, char const* topic, _KypPayload payload);

    // The same for "pub", "sub" and "unsub".
    int publish(char const* topic, unsigned int indexGroup, unsigned int indexOffset,
                char const* data, unsigned int length);
    int subscribe(char const* topic);
    int unsubscribe(char const* topic);

    std::atomic<bool> stopFlag;               // ends svc(); nothing here ever sets it. relaxed
    std::atomic<bool> registered;             // set by the first registration, never cleared
    std::atomic<uint32_t> lastInvokeId;       // number of the latest frame; relaxed
    std::atomic<uint32_t> invokeId;           // the next number; 0 is passed over
    std::thread netThread;                    // runs svc()
    CNetChannel* channel;                     // borrowed
    tagCmpDrvInfo* drvInfo;                   // borrowed
    void* connectArg;                         // handed to connectCallback
    void* messageArg;                         // handed to messageCallback
    int (*connectCallback)(int, void*);       // null until set
    int (*messageCallback)(RecvBuf*, void*);  // null until set
    CTimestamp reconnectTimer;                // of the latest reconect_channel() that tried
};

#endif
