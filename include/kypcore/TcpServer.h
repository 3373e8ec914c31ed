// A listening TCP endpoint.
//
// Owns:     the listening socket, from construction to destruction.
// Threads:  as ISocketServer.
// Lifetime: as ISocketServer. A constructor that fails says so in the log and leaves the object
//           with the socket as far as it came; registering it then fails or serves nothing.
#ifndef KYP_KYPCORE_TCPSERVER_H
#define KYP_KYPCORE_TCPSERVER_H

#include <atomic>
#include <string>

#include "kypcore/ISocketServer.h"

class KYP_API TcpServer : public ISocketServer {
public:
    // Listens on `ip` (dotted; anything else means every address) and `port` (host order).
    TcpServer(char const* ip, unsigned short port);
    ~TcpServer() override;

    int sock_event_accept(CSocketConnection* listenConn) override;
    int set_sock_opt(int fd) override;

    // Has the kernel ask a silent peer after 120 s, three times 15 s apart. Returns 1, or 0 with
    // the first failure logged.
    int set_sock_keepalive(int fd);

    static std::atomic<bool> m_bAccept4;  // false once the kernel has said that it has no accept4

    std::string m_strIp;    // empty until listening
    unsigned short m_port;  // 0 until listening
};

#endif
