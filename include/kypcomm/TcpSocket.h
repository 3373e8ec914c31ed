// A TCP connection to an IPv4 peer, set up for control traffic: abortive close, fast detection of a
// dead peer, no Nagle delay.
//
// Owns:     its descriptor; the destructor closes it.
// Threads:  as Socket.
// Lifetime: reusable: Connect() after Shutdown() makes a new descriptor.
#ifndef KYP_KYPCOMM_TCPSOCKET_H
#define KYP_KYPCOMM_TCPSOCKET_H

#include "kypcomm/Socket.h"

class KYP_API TcpSocket : public Socket {
public:
    // `type` is SOCKET_TYPE_STREAM, `isDomain` false.
    TcpSocket(const char* host, unsigned short port, int type, bool isDomain);
    ~TcpSocket() override;

    // Makes a descriptor if there is none, switches it to non-blocking for good and connects,
    // waiting up to `timeoutMs`. True when connected, with the options set.
    //
    // False otherwise. After a timeout, a failed wait, or a connect that succeeded at once the
    // descriptor is closed. After a refusal it stays open and the next attempt uses it again; on
    // Linux that attempt then reports success without a connection, and the first read finds out.
    // So does a first attempt that fails without any waiting: no route, or a host that is no IPv4
    // text.
    bool Connect(int timeoutMs) override;

    int Shutdown() override;
    void setSocketopt() override;

    // m_connected; the kernel is not asked.
    bool isConnected() override;

    // What close() does with unsent data; (true, 0) resets the connection at once. False with the
    // reason logged.
    bool setLinger(bool on, int seconds);

    // A silent peer is given up after 120 + 3 * 15 seconds. Stops at the first failure: false with
    // the reason logged.
    bool setKeepAlive();

    // Sends small frames at once. False with the reason logged.
    bool setNoDealy();
};

#endif
