// A component process's one connection to the local server: whole frames in, whole writes out.
//
// Owns:     its socket; not the buffers that it hands out.
// Threads:  write() from any, one at a time. read() and waiting() from one thread at a time: the
//           component's receive thread once that runs. connect() belongs to the reader; a
//           disconnect() beside it is seen by both.
// Lifetime: reusable: connect() again after a failure, a disconnect() or a fatal read(). Nothing
//           here tries again by itself; BusinessDataLayer does.
#ifndef KYP_COMPMODULE_NET_CHANNEL_H
#define KYP_COMPMODULE_NET_CHANNEL_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "utils/Export.h"

class Socket;
class pbuf;

class KYP_API CNetChannel {
public:
    // Not connected. `componentName` is copied, for log lines only; a null one throws
    // std::logic_error.
    explicit CNetChannel(char const* componentName);

    // Disconnects.
    ~CNetChannel();
    CNetChannel(CNetChannel const&) = delete;
    CNetChannel& operator=(CNetChannel const&) = delete;

    // One attempt; true when connected. Waits for as long as the server's queue of connections is
    // full. `timeoutMs` is not looked at.
    bool connect(int timeoutMs);

    // Closes the link. A write under way fails.
    void disconnect();

    // What the latest connect(), disconnect() or read() left; a failed write does not show here.
    bool isconnected();

    // Write all of it as one piece, also among other writers, for up to `timeoutMs`. Return the
    // count, or -1 with tlsErrno 5 when the link is down or lost, 10 when the time was up, or the
    // errno. The link is not closed for any of them. After a 10 with a part under way the server
    // takes the next frame's bytes for the rest of this one.
    int write(char const* data, unsigned int len, int timeoutMs);

    // The valid bytes of `buf`, which stays the caller's.
    int write(pbuf* buf, int timeoutMs);

    // Reads one frame into a buffer of client_bufpool: its bytes stand from rawData() on and its
    // own size is still 0. Waits for the head as long as it takes, for the body up to `timeoutMs`.
    // Returns the bytes of the whole frame, with the buffer handed over to the caller through
    // `out`.
    //
    // -1 otherwise, with `out` untouched. tlsErrno 9: there is no link; nothing is closed. All
    // others close the link, for the next frame could not be found: 5 the server has closed, 0x1010
    // a head or body came short, 0x1012 a port outside 1 to 4096, 0x100d a body above 0x5fffff
    // bytes, 0x2008 no buffer.
    int read(pbuf** out, int timeoutMs);

    // Whether there is something to read, an end included, within `ms`. False also on an error.
    bool waiting(int ms);

    std::atomic<bool> connected;     // written by the reader and by disconnect(); relaxed
    std::mutex writeMutex;           // held during a write, and while the link is closed
    std::thread thread;              // never started
    std::string name;                // the component's
    std::shared_ptr<Socket> socket;  // set by the constructor, never replaced
};

#endif
