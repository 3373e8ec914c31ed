// The port table of one client connection: frames that answer no request end here.
//
// Owns:     the table. A context belongs to whoever registered it.
// Threads:  adding and removing from any thread, also from a callback; call() on the connection's
//           receive thread. A callback runs without the lock, on a copy of its entry, so a route
//           that is being removed may get one last call: its context outlives that.
// Lifetime: a member of its connection.
#ifndef KYP_KYPCLIENT_MSGROUTER_MSGROUTER_H
#define KYP_KYPCLIENT_MSGROUTER_MSGROUTER_H

#include <cstdint>
#include <map>
#include <mutex>

#include "kypcomm/KypWire.h"
#include "utils/Export.h"

// One route.
struct KYP_API CMsgPort {
    // All zero.
    CMsgPort();
    ~CMsgPort();

    // Field by field, in their order.
    CMsgPort(uint8_t flag, uint16_t port, void* ctx,
             void (*callback)(unsigned short, char const*, unsigned int, void*))
        : m_flag(flag), m_port(port), m_ctx(ctx), m_callback(callback) {}

    uint8_t m_flag;   // 0; no operation reads it
    uint16_t m_port;  // the logical port
    void* m_ctx;      // handed to the callback; not owned
    void (*m_callback)(unsigned short port, char const* data, unsigned int len, void* ctx);
};
static_assert(sizeof(CMsgPort) == 24, "the layout is the binary interface");

class KYP_API CMsgRouter {
public:
    CMsgRouter();
    ~CMsgRouter();

    // Enters a route. Returns 0, or 0x1007 (also in tlsErrno) when the port has one already. Ports
    // below 501 are not refused here.
    int addUserMessaggeRouter(unsigned short port,
                              void (*cb)(unsigned short, char const*, unsigned int, void*),
                              void* ctx);

    // Removes a route. Returns 0, or 0x1007 (also in tlsErrno) when the port has none.
    int delMessageRouter(unsigned short port);

    // Hands a frame to its port's route. `data` is what follows the _KypHeader, `len` its size;
    // `owner`, the connection, is not used. Returns 0x1005 (also in tlsErrno) for a port without a
    // route, 0x100c for a version 1 frame shorter than its _AoEHeader, else 0: a version other than
    // 0 and 1 is dropped with 0.
    int call(_KypHeader const& header, char const* data, unsigned int len, void* owner);

    // The older form: the route sees all that follows the _KypHeader. Returns 0.
    int callProtocolV0(CMsgPort const& port, char const* data, unsigned int len);

    // The route sees what follows the _AoEHeader; the AoERequestHeader, if there is one, is the
    // first 8 bytes of that. Returns 0, or 0x100c when `len` is below 13; tlsErrno is left alone.
    int callProtocolV1(CMsgPort const& port, char const* data, unsigned int len);

    // Calls the route's callback, if it has one. Returns 0.
    int dataCallback(CMsgPort const& port, char const* data, unsigned int len);

    std::mutex m_mutex;                    // guards m_ports; never held during a callback
    std::map<uint16_t, CMsgPort> m_ports;  // by logical port
};

#endif
