// What every service of this server is, and what it is given.
#ifndef KYP_PROGRAMS_KYPSERVER_SERVICE_H
#define KYP_PROGRAMS_KYPSERVER_SERVICE_H

#include <cstddef>
#include <cstdint>

#include "kypcomm/KypWire.h"
#include "kypcore/router/RouteManage.h"

namespace kypserver {

class CHeldBytes;

// One request on a service's port. `data` is valid while the service is called.
struct Request {
    unsigned short port;
    char const* data;
    unsigned int size;  // bytes of `data`
    _msg_request head;
    CHeldBytes* held = nullptr;               // counts its answer, too; null where nobody counts
    unsigned char state = KYP_STATE_REQUEST;  // for a service in order; the others are not told
};

// Serves one logical port.
//
// Threads:  serve() runs on every worker at once; of one connection once if in_order().
// Lifetime: outlives the workers.
class IService {
public:
    virtual ~IService() = default;

    virtual unsigned short port() const = 0;

    // Are the requests of one connection served one after the other, as they came? If not, they are
    // served as soon as a worker is free.
    virtual bool in_order() const { return false; }

    // Answers `request`, or not. Must not wait for another peer.
    virtual void serve(Request const& request) = 0;
};

// The request in `msg`, which stands behind its first two heads. Of a frame that is too short for
// the third one its words are 0, and there is no data.
Request read_request(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe,
                     CHeldBytes& held);

// True for the commands that nobody awaits an answer to.
bool is_one_way(unsigned int cmd);

// The status of a request that should stand at this address with this much data: KYP_OK, or what is
// wrong with it.
unsigned int address_fault(Request const& request, uint32_t group, uint32_t offset, size_t size);

// Answers with `status` and `size` bytes of `data`.
void answer(Request const& request, unsigned int status, void const* data = nullptr, int size = 0);

}  // namespace kypserver

#endif
