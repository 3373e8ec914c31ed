// A listening stream endpoint of the library with what this server needs beyond it: a bound on the
// number of peers and on what is held for each, word of the frames that have left, and the order of
// those that come in.
//
// Threads and lifetime: as ISocketServer; outlived by whoever watches the traffic.
#ifndef KYP_PROGRAMS_KYPSERVER_STREAMENDPOINT_H
#define KYP_PROGRAMS_KYPSERVER_STREAMENDPOINT_H

#include <string>

#include "kypcore/SocketConnection.h"
#include "kypcore/TcpDomainServer.h"
#include "kypcore/TcpServer.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/SendLedger.h"
#include "kypserver/Strands.h"

namespace kypserver {

// Who watches the frames that come and go.
struct Traffic {
    CConnections const& connections;
    CSendLedger& ledger;
    CHeldBytes& held;
    CStrands& strands;
    CCounters& counters;
};

// Takes the next peer in and shuts the door on it; one report for each.
void turn_away(int listenSock);

void report_overload(std::string const& client);

// A complete head has come, and its frame is being received.
bool has_head(CSocketConnection* conn);

// Destroys what a connection that closes still holds, which the library does a minute later. On the
// connection's loop thread.
void drop_messages(CSocketConnection* conn);

// Tells whoever counts that the message being sent has left whole.
void count_as_left(CSocketConnection* conn, Traffic const& traffic);

template <typename Server>
class CStreamEndpoint : public Server {
public:
    // `address` is what Server takes.
    template <typename... Address>
    explicit CStreamEndpoint(Traffic const& traffic, Address... address)
        : Server(address...), m_traffic(traffic) {}

    int sock_event_accept(CSocketConnection* listenConn) override {
        if (m_traffic.connections.has_room()) return Server::sock_event_accept(listenConn);
        turn_away(this->get_listen_sock());
        return -1;
    }

    // Ends the connection of a client for whom too much is held, with one report.
    int sock_read_request_handler(CSocketConnection* conn) override {
        bool const hadHead = has_head(conn);
        int const result = Server::sock_read_request_handler(conn);
        if (hadHead || !has_head(conn)) return result;

        if (!m_traffic.held.take(conn, conn->m_recvHeader)) {
            m_traffic.counters.dropped(CCounters::DROP_CLIENT);
            report_overload(m_traffic.connections.name(conn));
            return this->sock_close_connection(conn);
        }
        // Now, since a worker may have the message as soon as the body is there.
        m_traffic.strands.expect(conn->m_pRecvMsg, conn->m_recvHeader);
        m_traffic.counters.received(sizeof(_KypHeader) + conn->m_recvHeader.nMsgLen);
        return result;
    }

    int sock_close_connection(CSocketConnection* conn) override {
        drop_messages(conn);
        return Server::sock_close_connection(conn);
    }

    int sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size) override {
        int const sent = Server::sendproc(conn, data, size);
        if (sent > 0 && static_cast<unsigned int>(sent) == size) {
            count_as_left(conn, m_traffic);
        }
        return sent;
    }

private:
    Traffic const m_traffic;
};

using CTcpEndpoint = CStreamEndpoint<TcpServer>;
using CDomainEndpoint = CStreamEndpoint<TcpDomainserver>;

}  // namespace kypserver

#endif
