// A listening Unix-domain stream endpoint.
//
// Owns:     the listening socket and the file at its path, from construction to destruction. What
//           stood at the path before is removed.
// Threads:  as ISocketServer.
// Lifetime: as ISocketServer; failures as in TcpServer.
#ifndef KYP_KYPCORE_TCPDOMAINSERVER_H
#define KYP_KYPCORE_TCPDOMAINSERVER_H

#include <atomic>
#include <string>

#include "kypcore/ISocketServer.h"

class KYP_API TcpDomainserver : public ISocketServer {
public:
    // Listens at `path`, of which the kernel takes 108 bytes.
    explicit TcpDomainserver(char const* path);
    ~TcpDomainserver() override;

    int sock_event_accept(CSocketConnection* listenConn) override;

    static std::atomic<bool> m_bAccept4;  // false once the kernel has said that it has no accept4

    std::string m_strPath;  // empty when no socket could be had
};

#endif
