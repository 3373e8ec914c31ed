// A datagram socket that sends to one address and reads from anyone.
//
// Owns:     its descriptor until Shutdown(). The destructor leaves it open.
// Threads:  as Socket.
// Lifetime: as Socket.
#ifndef KYP_KYPCOMM_UDPSOCKET_H
#define KYP_KYPCOMM_UDPSOCKET_H

#include "kypcomm/Socket.h"

class KYP_API UdpSocket : public Socket {
public:
    using Socket::read;
    using Socket::write;

    UdpSocket(const char* host, unsigned short port, int type, bool isDomain);

    // Leaves m_fd open: whoever wants it closed calls Shutdown() first.
    ~UdpSocket() override;

    // True, and nothing else: there is no connection to make, so isConnected() stays false.
    bool Connect(int timeoutMs) override;
    int Shutdown() override;

    // m_connected, as setConnectStatus() left it.
    bool isConnected() override;

    // Waits up to `timeoutMs` for one datagram and takes it; its sender is not told. Returns its
    // length, cut to `len`, or -1: without a message on a timeout, logged otherwise.
    virtual int read(void* buf, unsigned int len, int timeoutMs);

    // Sends one datagram to m_host and m_port, looked up anew each time. Returns the bytes sent, or
    // -1 with the reason logged. There is no limit of its own on a frame's length.
    virtual int write(const void* buf, unsigned int len);
    virtual int write(const Frame& frame);
};

#endif
