// One BSD socket descriptor with its peer's address, a cached connection flag and the timed read
// and write loops that every connection of this library uses.
//
// Owns:     the descriptor, in the sense that Shutdown() closes it. The base destructor does not;
//           the stream classes close in theirs.
// Threads:  no lock. One thread may read while another writes: the two roads share only m_fd and
//           m_connected. Connect() and Shutdown() belong to the owner's thread.
// Lifetime: a Socket can exist without a descriptor (m_fd -1); every call then fails cleanly.
#ifndef KYP_KYPCOMM_SOCKET_H
#define KYP_KYPCOMM_SOCKET_H

#include <atomic>
#include <cstdint>
#include <string>

#include "utils/Export.h"

class Frame;

// m_type.
enum SocketType : int {
    SOCKET_TYPE_STREAM = 1,
    SOCKET_TYPE_DATAGRAM = 2,
};

// The largest frame that write(Frame) lets out; one byte more is refused.
constexpr unsigned int kMaxSocketFrame = 6291456;

// A place holder in the binary interface: both operations do nothing and return 0.
class KYP_API Buffer {
public:
    Buffer();
    ~Buffer();
    int readFd(int fd, int* error);
    int writeFd(int fd, int* error);
};

class KYP_API Socket {
public:
    // Creates the descriptor at once: `type` 1 is a stream, 2 a datagram socket, any other value
    // makes none; `isDomain` selects AF_UNIX instead of AF_INET. A failure is logged and leaves
    // m_fd at -1. `host` is copied; a null one throws std::logic_error.
    Socket(const char* host, unsigned short port, int type, bool isDomain);
    Socket(Socket const&) = delete;
    Socket& operator=(Socket const&) = delete;

    // Leaves m_fd open.
    virtual ~Socket();

    // Connects to the peer; true when connected. What `timeoutMs` bounds is told by each class.
    virtual bool Connect(int timeoutMs) = 0;

    // Closes the descriptor and clears m_connected. Returns 0, or -1 with errno set.
    virtual int Shutdown() = 0;

    // Sets the options of a fresh connection. Here: reads the two buffer sizes and drops them, so
    // that a broken descriptor shows in the log.
    virtual void setSocketopt();

    virtual void setConnectStatus(bool connected);

    // Asks the kernel for the TCP state, stores the answer in m_connected and returns it. The
    // concrete classes return m_connected instead.
    virtual bool isConnected();

    // Reads exactly `len` bytes, waiting as long as it takes; on a non-blocking descriptor the wait
    // spins. Returns `len`; 0 when the peer is gone, with m_connected cleared and what was read
    // lost; the count so far, or -1 for none, on any other error. `len` counts as an int: below 1
    // it comes back as it is, without a system call.
    virtual int readn(unsigned char* buf, unsigned long len);

    // Reads until `len` bytes are there or `timeoutMs` has passed; at least one recv is made.
    // Returns the count, short on a timeout; 0 also when the peer is gone, with m_connected cleared
    // and what was read lost.
    virtual int readn(unsigned char* buf, int len, int timeoutMs);

    // Fills the frame's whole block from its start by the timed readn; the frame's size does not
    // follow, the caller sets it from the count returned.
    virtual int read(Frame& frame, int timeoutMs);

    // Writes the frame by the timed write. Returns 0 with nothing sent when it is longer than
    // kMaxSocketFrame.
    virtual int write(const Frame& frame, int timeoutMs);

    // Writes until `len` bytes are out or `timeoutMs` has passed; at least one send is made. Never
    // raises SIGPIPE. Returns the count, short on a timeout; -1 on a failure, with tlsErrno at 5
    // and m_connected cleared for a lost peer and at the errno for everything else.
    virtual int write(const char* buf, unsigned int len, int timeoutMs);

    // Both always return 0.
    int setNONBLOCK();
    int setBLOCK();

    // Bounds each single send and recv by whole seconds, not milliseconds. False with the reason
    // logged.
    bool setTimeOut(int seconds);

    // The kernel's figure, twice what was set, or -1 with the reason logged.
    int get_send_buffer();
    int get_recv_buffer();

    // Return `bytes`, or 0 with the reason logged.
    int set_send_buffer(int bytes);
    int set_recv_buffer(int bytes);

    // Waits until m_fd is readable: true. False after `timeoutMs`, silently, and on any error,
    // logged; a descriptor that is closed, absent or beyond what select can watch (1023) clears
    // m_connected.
    bool Select(int timeoutMs);

    bool m_isDomain;                // AF_UNIX; fixed at construction
    std::atomic<bool> m_connected;  // written by whoever notices; released and acquired: who sees
                                    // the change comes behind the calls that led to it
    uint16_t m_port;                // the peer's, host order
    int m_type;                     // a SocketType
    std::atomic<int> m_fd;          // -1 for none; relaxed
    std::string m_host;             // dotted IPv4 text, or the server's path on a domain socket
};

// "linux ErrCode N,errormsg:words" for an errno, cut at 255 bytes.
KYP_API std::string GetErrorStr(int code);

#endif
