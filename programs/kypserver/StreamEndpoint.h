// A listening stream endpoint of the library with what this server needs beyond it: a bound on the
// number of peers, and word to the ledger when a frame has left.
//
// Threads and lifetime: as ISocketServer; outlived by connections and ledger.
#ifndef KYP_PROGRAMS_KYPSERVER_STREAMENDPOINT_H
#define KYP_PROGRAMS_KYPSERVER_STREAMENDPOINT_H

#include <utility>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/TcpDomainServer.h"
#include "kypcore/TcpServer.h"
#include "kypserver/Connections.h"
#include "kypserver/SendLedger.h"

namespace kypserver {

// Takes the next peer in and shuts the door on it; one report for each.
void turn_away(int listenSock);

template <typename Server>
class CStreamEndpoint : public Server {
public:
    // `address` is what Server takes.
    template <typename... Address>
    CStreamEndpoint(CConnections const& connections, CSendLedger& ledger, Address... address)
        : Server(address...), m_connections(connections), m_ledger(ledger) {}

    int sock_event_accept(CSocketConnection* listenConn) override {
        if (m_connections.has_room()) return Server::sock_event_accept(listenConn);
        turn_away(this->get_listen_sock());
        return -1;
    }

    int sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size) override {
        int const sent = Server::sendproc(conn, data, size);
        // The message is this thread's until the write handler has destroyed it.
        if (sent > 0 && static_cast<unsigned int>(sent) == size) {
            m_ledger.left(conn, conn->m_pSendMsg->getpBuf());
        }
        return sent;
    }

private:
    CConnections const& m_connections;
    CSendLedger& m_ledger;
};

using CTcpEndpoint = CStreamEndpoint<TcpServer>;
using CDomainEndpoint = CStreamEndpoint<TcpDomainserver>;

}  // namespace kypserver

#endif
