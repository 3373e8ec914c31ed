// The steps that every accepting server takes in the same way. Not part of the library's interface.
#ifndef KYP_KYPCORE_ACCEPTROAD_H
#define KYP_KYPCORE_ACCEPTROAD_H

#include <sys/socket.h>

#include <atomic>

class CSocketConnection;
class ISocketServer;

// Accepts one peer into `addr` (`size` bytes). Clears `accept4Works` when the kernel has no such
// call. Returns the descriptor, or -1 with the reason logged.
int accept_peer(int listenFd, sockaddr* addr, socklen_t size, std::atomic<bool>& accept4Works);

// A record for the descriptor with its socket options set, or null with the descriptor closed.
CSocketConnection* make_connection(ISocketServer* server, int fd, bool nonBlocking);

// Runs the start hook and registers the connection on a loop. From then on it may be closed and
// reused at any moment. Returns 0; or -1, with the connection closed.
int start_connection(ISocketServer* server, CSocketConnection* conn, int fd);

#endif
