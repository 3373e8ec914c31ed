// What has passed through this server since it began, in numbers.
//
// Threads:  any; each number is a relaxed atomic of its own, so that a snapshot taken under load
//           may show a request without its reply.
// Lifetime: outlives the loops and the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_COUNTERS_H
#define KYP_PROGRAMS_KYPSERVER_COUNTERS_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>

namespace kypserver {

class CCounters {
public:
    // What the server lets go of. DROP_KINDS is their number.
    enum Drop {
        DROP_TOPIC_MESSAGE,  // its subscriber reads too slowly
        DROP_DATAGRAM,       // not a request, or one too many
        DROP_FORWARD,        // a request: its component reads too slowly
        DROP_REPLY,          // nobody waits for it any more
        DROP_CLIENT,         // a connection that had too much under way
        DROP_KINDS
    };

    CCounters();

    // A client has been let in.
    void accepted();

    // A whole frame of `size` bytes, heads included, has come from a peer.
    void received(size_t size);

    // A whole frame of `size` bytes at `frame` has left towards a peer.
    void sent(unsigned char const* frame, size_t size);

    void published();
    void dropped(Drop kind);

    struct Snapshot {
        uint64_t accepted = 0;
        uint64_t received = 0;       // frames
        uint64_t receivedBytes = 0;  // heads included, like all bytes here
        uint64_t replies = 0;
        uint64_t replyBytes = 0;
        uint64_t others = 0;  // frames that are no replies: topic messages, forwarded requests
        uint64_t otherBytes = 0;
        uint64_t published = 0;
        std::array<uint64_t, DROP_KINDS> dropped = {};
        std::map<uint32_t, uint64_t> errors;  // replies by the code that they carry, without 0
        uint64_t otherErrors = 0;             // with codes beyond the first kCodes that came up
    };

    Snapshot snapshot() const;

private:
    static constexpr size_t kCodes =
        64;  // a peer may invent codes: components answer what they like

    struct Code {
        std::atomic<uint32_t> code;  // 0: free
        std::atomic<uint64_t> count;
    };

    void error(uint32_t code);

    std::atomic<uint64_t> m_accepted;
    std::atomic<uint64_t> m_received;
    std::atomic<uint64_t> m_receivedBytes;
    std::atomic<uint64_t> m_replies;
    std::atomic<uint64_t> m_replyBytes;
    std::atomic<uint64_t> m_others;
    std::atomic<uint64_t> m_otherBytes;
    std::atomic<uint64_t> m_published;
    std::array<std::atomic<uint64_t>, DROP_KINDS> m_dropped;
    std::array<Code, kCodes> m_codes;  // filled from the front, never emptied
    std::atomic<uint64_t> m_otherErrors;
};

}  // namespace kypserver

#endif
