// The table of logical ports: the last stop of a frame that came in.
//
// Workers enter with whole messages through call(); the component module and the shared-memory
// groups, which have taken the heads off already, through the two comp_datacallback(). A route
// answers on `_msg_request::conn`, at once or later.
//
// Owns:     nothing but the table; callbacks and contexts are the caller's.
// Threads:  dispatch runs on all workers at once, without a lock, so routes are thread-safe.
//           Registration takes none either: fill the table before traffic starts, or change single
//           entries at a quiet moment. A svr route that is entered for the first time while
//           requests for its port come over shared memory is called whole or not at all.
// Lifetime: one per process, to its end.
#ifndef KYP_KYPCORE_ROUTER_ROUTEMANAGE_H
#define KYP_KYPCORE_ROUTER_ROUTEMANAGE_H

#include <cstdint>
#include <mutex>

#include "kypcomm/KypMsgRequest.h"
#include "kypcomm/KypWire.h"
#include "utils/Export.h"
#include "utils/Singleton.h"

class CMsgHeader;
class RecvBuf;

// A cmp route. `msg` stands behind the _AoEHeader; what follows is the callback's to read. The
// heads are as they came, `aoe` in network order.
using KypCmpRoute = void (*)(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe, void* ctx);

// One port's entry.
class KYP_API PortRegister {
public:
    PortRegister();
    ~PortRegister();

    uint8_t m_type;        // 0 svr route, 1 cmp route
    uint8_t m_bUsed;       // guards registration only; dispatch does not look at it
    uint16_t m_port;       // 0 until registered
    void (*m_callback)();  // a KypSvrRoute or a KypCmpRoute by m_type, null until registered
    void* m_ctx;           // given back to the callback
};

class KYP_API RouteManage {
public:
    RouteManage();
    ~RouteManage();

    // Serves `port` with `callback` from now on. Returns 0, or sets tlsErrno to and returns 0x1012
    // for a port outside 1..4096, 0x1007 for a port that is registered, which keeps its route.
    int addSvrPortRoute(unsigned short port, KypSvrRoute callback, void* ctx);
    int addCmpPortRoute(unsigned short port, KypCmpRoute callback, void* ctx);

    // Frees `port` for another registration; until that comes the old route is still served.
    // Returns 0, or sets tlsErrno to and returns 0x1012 for a port outside 1..4096.
    int delPortRoute(unsigned short port);

    // Takes the heads off `msg` and gives it to its port's route. A port outside 1..4096 is
    // answered with 0x1014, which is also the result and tlsErrno. A frame that is too short for a
    // head reads that head as zero. `msg` stays the caller's.
    int call(CMsgHeader* msg);

    // Gives `msg`, which stands behind its _AoEHeader, to the entry of `header.port`. Returns 0, or
    // sets tlsErrno to and returns 0x1014 for a port outside 1..4096, which is not answered here.
    int dataCallback(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe);

    // Calls `entry` as a svr route with the rest of `msg`. An entry without a callback swallows the
    // request. Returns 0.
    int cbNotifyRequest(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe,
                        AoERequestHeader& request, PortRegister& entry);

    // Answers a request on `conn`, an IConnection, with `code` and no payload. Returns 0.
    int ErrorResponse(_KypHeader const& header, _AoEHeader const& aoe, unsigned int code,
                      void* conn);

    // Gives a request whose heads are parsed to the svr route of `header.port`, on the calling
    // thread. `conn` is an IConnection. A port outside 1..4096 is logged and answered with 0x1014,
    // which is also the result and tlsErrno; otherwise returns 0.
    int comp_datacallback(RecvBuf* buf, _KypHeader& header, _AoEHeader& aoe,
                          AoERequestHeader& request, void* conn);
    int comp_datacallback(unsigned char* data, int size, _KypHeader& header, _AoEHeader& aoe,
                          AoERequestHeader& request, void* conn);

    std::mutex m_mutex;                      // taken by no operation
    PortRegister m_ports[kHighestPort + 1];  // by port number; entry 0 is never used
};

extern template class KYP_API utility::Singleton<RouteManage>;

#endif
