// The datagram endpoint. One record of the library stands for all senders, so this class remembers
// which answer belongs to whom.
//
// Each request gets an invoke id of this endpoint's own before it goes to the workers, and its
// answer gets the sender's id back before it leaves. So an answer goes to the sender of its own
// request, or nowhere: the last kPeers requests are remembered, and an answer that comes when as
// many others have been received since is dropped, as datagrams may be.
//
// Threads:  all handlers, and with them the table, belong to the first loop's thread.
// Lifetime: as UdpServer.
#ifndef KYP_PROGRAMS_KYPSERVER_UDPENDPOINT_H
#define KYP_PROGRAMS_KYPSERVER_UDPENDPOINT_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kypcore/UdpServer.h"

namespace kypserver {

class CCounters;
class CHeldBytes;

class CUdpEndpoint : public UdpServer {
public:
    static constexpr size_t kPeers = 4096;

    CUdpEndpoint(CHeldBytes& held, CCounters& counters, char const* ip, unsigned short port);

    // Takes whole requests only, while there is room for them; anything else is reported and
    // dropped.
    int sock_read_request_handler(CSocketConnection* conn) override;
    int sock_write_request_handler(CSocketConnection* conn) override;
    int sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size) override;

private:
    struct Peer {
        uint32_t id = 0;        // given by this endpoint
        uint32_t senderId = 0;  // as it stood in the request, network order
        sockaddr_in address = {};
        bool used = false;
    };

    void make_answerable(CSocketConnection* conn);
    uint32_t remember(sockaddr_in const& sender, uint32_t senderId);
    void put_to_workers(CSocketConnection* conn, sockaddr_in const& sender, size_t size);

    CHeldBytes& m_held;
    CCounters& m_counters;
    std::vector<Peer> m_peers;  // by id modulo kPeers
    uint32_t m_nextId;
};

}  // namespace kypserver

#endif
