// What one client has asked of one component and has no answer to.
//
// Threads:  no lock: its owner has one.
#ifndef KYP_PROGRAMS_KYPSERVER_PENDINGREQUESTS_H
#define KYP_PROGRAMS_KYPSERVER_PENDINGREQUESTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kypserver {

// Host order.
struct PendingRequest {
    uint32_t invokeId;
    unsigned short port;
    unsigned short cmd;
};

class CPendingRequests {
public:
    // Beyond it the oldest is forgotten. A client of the library waits for 500 answers at most.
    static constexpr size_t kMost = 512;

    void add(PendingRequest const& request);

    // The oldest with this id has been answered. Returns false when there is none: its client has
    // asked for nothing of the kind.
    bool remove(uint32_t invokeId);

    bool empty() const { return m_requests.empty(); }
    std::vector<PendingRequest> const& all() const { return m_requests; }  // oldest first

private:
    // Answers mostly come in order, so the search ends at the front; the room stays for the next.
    std::vector<PendingRequest> m_requests;
};

}  // namespace kypserver

#endif
