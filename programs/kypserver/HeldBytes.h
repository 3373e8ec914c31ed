// Counts what the server holds for each client: requests that wait or are being served, and
// answers that the client has not taken. A client that sends and never reads, or that sends faster
// than it can be served, fills the library's queues without end; by this it meets a bound.
//
// A request counts from its head on until its service returns, an answer from before it is queued
// until it has left. Topic messages are the ledger's business.
//
// Owns:     one account for each connection record that has been seen. Neither is ever freed while
//           the server runs, so an account is found without a lock.
// Threads:  begin(), take() and left() on the connection's own loop thread (begin() before the
//           first read), the rest on any worker.
// Lifetime: outlives the loops and the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_HELDBYTES_H
#define KYP_PROGRAMS_KYPSERVER_HELDBYTES_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>

#include "kypcomm/KypWire.h"
#include "kypserver/ByConnection.h"

namespace kypserver {

class CHeldBytes {
public:
    // Counted for each message beside its bytes, for what it costs to keep one.
    static constexpr size_t kPerMessage = 512;

    // At most `limit` bytes are held for one client, or one request if that is larger.
    explicit CHeldBytes(size_t limit);

    // `conn` is a new client's: nothing is held for it.
    void begin(IConnection* conn);

    // A request with this head comes in. Returns false, with nothing counted, when more is held for
    // the client than may be.
    bool take(IConnection* conn, _KypHeader const& head);

    // A request with `payload` bytes behind its three heads has been served.
    void served(IConnection* conn, size_t payload);

    // An answer with `payload` bytes is about to be queued.
    void answering(IConnection* conn, size_t payload);

    // May an answer with `payload` bytes be added to what is held?
    bool has_room(IConnection* conn, size_t payload) const;

    // An answer of `size` bytes, heads included, has left whole or is given up. The library answers
    // on ports that cannot have a service by itself: there the answer tells that its request has
    // been served.
    void left(IConnection* conn, unsigned short port, size_t size);

    size_t held(IConnection* conn) const;
    size_t held() const;  // for all clients

private:
    struct Account {
        std::atomic<int64_t> held{0};
        std::deque<size_t> portless;  // requests that the library answers; the loop thread's alone
    };

    void add(IConnection* conn, int64_t bytes);

    size_t const m_limit;
    CByConnection<Account> m_accounts;
};

}  // namespace kypserver

#endif
