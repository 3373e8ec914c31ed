// A stream connection to a server on this machine, over a Unix-domain path, with a name of its own
// in the file system.
//
// Owns:     its descriptor and the file of its name; Shutdown() and the destructor close the one
//           and unlink the other. Not the text of the name, which is the C library's.
// Threads:  as Socket; connects are made from one thread at a time, process-wide: all domain
//           sockets share the one buffer that names are made in.
// Lifetime: reusable: Connect() after Shutdown() makes a new descriptor and a new name.
#ifndef KYP_KYPCOMM_DOMAINTCPSOCKET_H
#define KYP_KYPCOMM_DOMAINTCPSOCKET_H

#include "kypcomm/Socket.h"

class KYP_API DomainTcpSocket : public Socket {
public:
    // `host` is the server's path, of which 107 bytes count; a percent sign in it begins a printf
    // conversion. `port` is 0, `type` SOCKET_TYPE_STREAM and `isDomain` true: an AF_INET descriptor
    // would not be replaced.
    DomainTcpSocket(const char* host, unsigned short port, int type, bool isDomain);
    ~DomainTcpSocket() override;

    // Binds to a fresh temporary name and connects, blocking; `timeoutMs` is not used. True when
    // connected, with the options set; false with the reason logged and everything closed. A name
    // that cannot be bound is no failure: the server then sees an unnamed client.
    bool Connect(int timeoutMs) override;

    // Closes the descriptor and removes the name. Returns unlink's result when there was a name,
    // close's otherwise.
    int Shutdown() override;

    // Bounds each single recv and send at one second; the descriptor stays blocking.
    void setSocketopt() override;

    // m_connected; the kernel is not asked.
    bool isConnected() override;

    // m_socketName. Null before Connect() and after Shutdown(). The text changes when any domain
    // socket of the process connects.
    char* GetSocketName();

    char* m_socketName;  // in the C library's static buffer, not owned
};

#endif
