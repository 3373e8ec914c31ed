// The peer that a route answers on, whatever road the request came by, and who watches its end.
//
// Owns:     nothing; an observer belongs to whoever attached it and outlives its attachment.
// Threads:  attach(), detach(), detachAll() and notify() take no lock: a program attaches from the
//           start hook or at another moment when the connection cannot close. send_message() is
//           for any thread.
// Lifetime: a route may keep the pointer and answer later; what a late answer does is told by the
//           implementation.
#ifndef KYP_KYPCORE_ICONNECTION_H
#define KYP_KYPCORE_ICONNECTION_H

#include <vector>

#include "kypcomm/KypWire.h"
#include "utils/Export.h"

class IConnection;
class pbuf;

// Is told once when a connection that it is attached to closes.
class KYP_API IObserverConn {
public:
    IObserverConn();
    virtual ~IObserverConn();

    // `conn` is still open: its descriptor is closed after every observer was told. Runs on the
    // thread that closes and must not wait.
    virtual void conn_close(IConnection* conn) = 0;
};

class KYP_API IConnection {
public:
    IConnection();
    virtual ~IConnection();

    // Sends `size` bytes as they are: a whole frame with all its heads. Copied before the return.
    virtual int send_message(char const* data, int size) = 0;

    // Sends a frame made of a _KypHeader for `port`, `aoe` as given (network order) and `size`
    // bytes of `data`, copied before the return. `timeout` is in milliseconds and counts only
    // where the caller's thread does the writing.
    virtual int send_message(_AoEHeader const& aoe, unsigned short port, char const* data, int size,
                             int timeout) = 0;

    // Sends `buf`, which already carries all heads. Ownership passes with the call.
    virtual int send_message(pbuf* buf, _AoEHeader const& aoe) = 0;

    // The number by which this peer is known: the descriptor of a socket.
    virtual int get_fd() = 0;

    // Appends; an observer attached twice is told twice. Returns 0.
    int attach(IObserverConn* observer);

    // Removes the first occurrence. Returns 0, also when there is none.
    int detach(IObserverConn* observer);

    // Forgets every observer. Returns 0.
    int detachAll();

    // Tells the observers in the order of attachment; one that is attached meanwhile is told too.
    // Returns 0.
    int notify();

    std::vector<IObserverConn*> m_vecObserver;  // not owned
};

#endif
