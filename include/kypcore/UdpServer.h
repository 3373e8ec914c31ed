// A UDP endpoint. One connection record stands for all peers: a reply goes to the sender of the
// latest datagram.
//
// Owns:     the socket and two buffers of server_bufpool.
// Threads:  all handlers on the first loop's thread.
// Lifetime: as ISocketServer; failures as in TcpServer.
//
// Registering the server leaves the record without write handler and loop. A program that replies
// sets both on the record, with a write handler of its own that calls this class's and then the
// record's triggerSendNextMsg(): alone, this class's leaves m_bSending true after a send.
#ifndef KYP_KYPCORE_UDPSERVER_H
#define KYP_KYPCORE_UDPSERVER_H

#include "kypcore/ISocketServer.h"

class pbuf;

class KYP_API UdpServer : public ISocketServer {
public:
    // Receives on `ip` (dotted; anything else means every address) and `port` (host order).
    UdpServer(char const* ip, unsigned short port);
    ~UdpServer() override;

    // One datagram. A well-formed one goes to the thread pool; any other is logged and dropped.
    // Returns 0, or -1 when there was none or it was dropped.
    int sock_read_request_handler(CSocketConnection* conn) override;

    // One send of the message being sent, which is destroyed whatever comes of it. Returns 0.
    int sock_write_request_handler(CSocketConnection* conn) override;

    // One datagram to the record's m_peerAddr, from this server's socket. Returns the bytes sent,
    // or -1 with the reason logged.
    int sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size) override;

    pbuf* m_pRecvBuf;   // owned; every datagram is first received here
    pbuf* m_pSpareBuf;  // owned; kept for programs
};

#endif
