// One socket of the server core: an accepted peer, a listening socket or a UDP socket.
//
// Owns:     m_pRecvMsg, m_pSendMsg and the messages in m_sendQueue. Not the socket: the pool closes
//           it. Not the server and not the loop.
// Threads:  send_message(), addSendQueue() and get_fd() from any thread. The receive fields belong
//           to the loop's thread. The send fields belong to it while m_bSending is true and to
//           m_sendMutex otherwise. A descriptor is closed and m_fd cleared under m_sendMutex, so a
//           late reply never reaches a descriptor number that somebody else has been given.
// Lifetime: made by CSockConnPool and reused, never freed while the server runs: a message's
//           m_pConn can always be followed. iCurrsequence tells one use of a record from the next.
#ifndef KYP_KYPCORE_SOCKETCONNECTION_H
#define KYP_KYPCORE_SOCKETCONNECTION_H

#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>

#include "kypcomm/KypWire.h"
#include "kypcore/IConnection.h"
#include "utils/Export.h"

class CEventLoop;
class CMsgHeader;
class CSocketConnection;
class ISocketServer;

// What a loop calls when a socket is ready, on the server that the connection belongs to. The
// loop ignores the result.
typedef int (ISocketServer::*SockEventHandler)(CSocketConnection*);

class KYP_API CSocketConnection : public IConnection {
public:
    CSocketConnection();

    // PutOneToFree().
    ~CSocketConnection() override;

    // The three queue one message and return 0, also when the connection is gone and the message
    // with it. Nothing is written on the caller's thread. A size below zero, data that is missing
    // and a frame of 16 MiB or more return -1 with the reason logged and in tlsErrno.
    int send_message(char const* data, int size) override;
    int send_message(_AoEHeader const& aoe, unsigned short port, char const* data, int size,
                     int timeout) override;
    int send_message(pbuf* buf, _AoEHeader const& aoe) override;

    // The descriptor, -1 when closed.
    int get_fd() override;

    // Takes `msg` over. On an idle connection it becomes the message being sent and the loop is
    // asked for writability; otherwise it waits at the tail of the queue, which has no limit.
    // Returns 0, or -1 when the loop cannot be asked (the connection is closed or was never
    // registered): then `msg` is destroyed and the reason logged.
    virtual int addSendQueue(CMsgHeader* msg);

    void SetSockServer(ISocketServer* server);
    void SetEventLoop(CEventLoop* loop);

    // Makes the record ready for a new peer. Leaves the handlers and the loop as they are.
    void GetOneToUse();

    // Destroys every message that the record holds and forgets peer and loop.
    void PutOneToFree();

    // Destroys the waiting messages. Takes no lock: for a caller that holds m_sendMutex or is
    // alone with the record.
    void clearMsgQueue();

    // Called by the write handler when a message has left: installs the next one, or takes the
    // connection out of the writable set when none waits. Returns 0.
    int triggerSendNextMsg();

    // The server's sendproc() for this connection; 0 when there is no server.
    int sendproc(unsigned char* data, unsigned int size);

    SockEventHandler m_readHandler;   // on EPOLLIN; null until the accept path sets it
    SockEventHandler m_writeHandler;  // on EPOLLOUT
    std::atomic<bool> m_bSending;     // a message is being sent; changed under m_sendMutex
    unsigned char m_nRecvState;       // 0 head begins, 1 in the head, 2 body begins, 3 in the body
    time_t m_tRecycle;                // when the record entered the recycle queue
    std::atomic<unsigned int> m_events;  // the mask last given to epoll, also in vain
    std::atomic<int> m_fd;               // -1 when closed; cleared under m_sendMutex
    _KypHeader m_recvHeader;             // filled piece by piece in states 0 and 1
    std::list<CMsgHeader*> m_sendQueue;  // owned; guarded by m_sendMutex
    unsigned int m_nRecvRest;            // bytes that the current piece still lacks
    unsigned char* m_pRecvPos;           // where they go: m_recvHeader or the block of m_pRecvMsg
    CMsgHeader* m_pRecvMsg;              // owned; the frame under construction
    std::atomic<unsigned int> m_nSendRest;   // bytes of m_pSendMsg that have not left
    std::atomic<unsigned char*> m_pSendPos;  // the first of them; stored last, with release
    CMsgHeader* m_pSendMsg;                  // owned
    std::atomic<uint64_t> iCurrsequence;     // only grows: on queueing, on freeing, on reuse
    sockaddr_storage m_peerAddr;             // sender of the last datagram
    ISocketServer* m_pServer;                // not owned
    std::atomic<CEventLoop*> m_pEventLoop;   // not owned; null on a record that is not in use
    std::mutex m_sendMutex;                  // the innermost of the locks of connection and pool
    char m_szPeerName[32];                   // for logs: "ip:port", or the path of a local peer
};

#endif
