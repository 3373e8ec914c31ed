// The stream connections that are open at this moment.
//
// Owns:     nothing; the records are the library's.
// Threads:  any. The library's hooks run on its loop threads: begin() before the first read of a
//           connection, end() while its socket is still open.
// Lifetime: outlives the event loops. One in a process, since the library has one pair of hooks.
#ifndef KYP_PROGRAMS_KYPSERVER_CONNECTIONS_H
#define KYP_PROGRAMS_KYPSERVER_CONNECTIONS_H

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class IConnection;

namespace kypserver {

class CConnections {
public:
    explicit CConnections(size_t limit);
    ~CConnections();
    CConnections(CConnections const&) = delete;
    CConnections& operator=(CConnections const&) = delete;

    // Calls `listener` for each connection that begins, before its first read. To be set before the
    // loops start.
    void on_begin(std::function<void(IConnection*)> listener);

    // Calls `listener` for each connection that ends, on a loop thread, behind the moment from
    // which is_open() says no. To be set before the loops start.
    void on_end(std::function<void(IConnection*)> listener);

    // May another peer come in?
    bool has_room() const;

    // False as soon as the connection has begun to close, and for whatever is not a stream.
    bool is_open(IConnection* conn) const;

    // Open, and over the Unix-domain socket.
    bool is_local(IConnection* conn) const;

    // Ends an open connection, from any thread: its loop finds the end of the stream and closes.
    void hang_up(IConnection* conn) const;

    // Has the connection ended, or its peer closed it, which the loop may not have found out yet?
    bool has_hung_up(IConnection* conn) const;

    // What to call the peer in a message.
    std::string name(IConnection* conn) const;

    size_t count() const;

    void begin(IConnection* conn);
    void end(IConnection* conn);

private:
    struct Peer {
        std::string name;
        bool isLocal;
    };

    size_t const m_limit;
    std::vector<std::function<void(IConnection*)>> m_beginListeners;
    std::vector<std::function<void(IConnection*)>> m_endListeners;
    // Guards m_open; innermost. Whoever holds it and finds a connection there may use its
    // descriptor: it is closed behind end().
    mutable std::mutex m_mutex;
    std::unordered_map<IConnection*, Peer> m_open;
};

}  // namespace kypserver

#endif
