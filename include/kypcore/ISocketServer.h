// The policy of a listening endpoint: how peers are accepted, how bytes become frames, how queued
// bytes leave, how a connection ends. The base serves streams; accepting is the derived class's.
//
// Owns:     the listening socket, closed by the derived class.
// Threads:  sock_event_accept() on the first loop's thread, the other handlers on the thread of the
//           connection's loop. Complete frames go to the thread pool: no route runs on a loop. The
//           hooks are set before the first server is registered; they run on loop threads and must
//           not wait.
// Lifetime: outlives the loops it is registered on; it is never taken off them.
#ifndef KYP_KYPCORE_ISOCKETSERVER_H
#define KYP_KYPCORE_ISOCKETSERVER_H

#include "utils/Export.h"

class CSocketConnection;
class IConnection;

class KYP_API ISocketServer {
public:
    ISocketServer();
    virtual ~ISocketServer();

    // A peer waits at the socket of `listenConn`. Returns 0, or -1 with the reason logged.
    virtual int sock_event_accept(CSocketConnection* listenConn);

    // One read towards the frame under construction. Returns 0, or -1 when nothing was read.
    virtual int sock_read_request_handler(CSocketConnection* conn);

    // One write of the message being sent. Returns 0.
    virtual int sock_write_request_handler(CSocketConnection* conn);

    // The close hook, then the pool's close_connections(). Returns 0.
    virtual int sock_close_connection(CSocketConnection* conn);

    // Socket options of an accepted connection: no delay, 256 KiB buffers. Returns 0.
    virtual int set_sock_opt(int fd);

    // One send. Returns the bytes taken, -1 when the socket is full, -2 for any other error.
    virtual int sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size);

    // The listening socket, -1 when there is none.
    int get_listen_sock();

    // Makes `fd` non-blocking and clears its other status flags. Returns 0.
    int setnonblocking(int fd);

    // One read. Returns the bytes read, 0 when the peer has closed, -1 for an error. Ends the
    // connection unless there are bytes or the error is of the moment (EINTR, EAGAIN).
    int recvproc(CSocketConnection* conn, unsigned char* buffer, unsigned int size);

    // The head of a frame is complete: prepares for the body, or ends the connection when the
    // length is over 0x600000. Returns 0.
    int sock_wait_request_handler_proc_p1(CSocketConnection* conn);

    // A frame is complete: hands it to the thread pool and waits for the next head. Returns 0.
    int sock_wait_request_handler_proc_plast(CSocketConnection* conn);

    // The hooks of all servers: a connection begins (before its first read), and ends (while its
    // socket is still open). `ctx` is given back. Null for no hook.
    static void set_conn_start(void (*hook)(IConnection*, void*), void* ctx);
    static void set_conn_close(void (*hook)(IConnection*, void*), void* ctx);

    static void (*m_pfnConnStart)(IConnection*, void*);
    static void* m_lpConnStartCtx;
    static void (*m_pfnConnClose)(IConnection*, void*);
    static void* m_lpConnCloseCtx;

    int m_listenSock;  // -1 until the derived class has opened it
};

#endif
