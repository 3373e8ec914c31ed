// The far end of a connection as a test plays it: bytes go out and come in as they are, and the
// library has no part in it.
//
// Owns:     each object its descriptor; a peer is moved, never copied.
// Threads:  one at a time per object.
// Waits:    every waiting operation has a deadline. Past it, it gives what there is, so that the
//           test fails with a comparison and not by hanging.
#ifndef KYP_TESTS_SUPPORT_RAWPEER_H
#define KYP_TESTS_SUPPORT_RAWPEER_H

#include <chrono>
#include <cstdint>
#include <string>

#include "support/FrameBytes.h"

constexpr std::chrono::milliseconds kRawDeadline = std::chrono::seconds(20);

// One end of a stream.
class RawPeer {
public:
    RawPeer() = default;  // connected to nothing
    explicit RawPeer(int fd);
    ~RawPeer();
    RawPeer(RawPeer&& other) noexcept;
    RawPeer& operator=(RawPeer&& other) noexcept;

    // Connects and asks again until somebody listens; connected() tells whether that came in time.
    static RawPeer connect_tcp(uint16_t port, std::string const& host = "127.0.0.1",
                               std::chrono::milliseconds deadline = kRawDeadline);
    static RawPeer connect_unix(std::string const& path,
                                std::chrono::milliseconds deadline = kRawDeadline);

    bool connected() const;
    int fd() const;

    // Sends all of `data`; false when the far end has closed or does not read.
    bool send(Bytes const& data, std::chrono::milliseconds deadline = kRawDeadline);

    // Sends what the kernel takes at once and gives the count; 0 also when the far end has closed.
    size_t send_without_waiting(Bytes const& data);

    // Exactly `n` bytes; fewer when the far end closes or the deadline passes.
    Bytes receive(size_t n, std::chrono::milliseconds deadline = kRawDeadline);

    // One frame by the length in its head; what there is when it does not come whole.
    Bytes receive_frame(std::chrono::milliseconds deadline = kRawDeadline);

    // True when the far end closes, in order or by a reset, and sends nothing before.
    bool expect_closed(std::chrono::milliseconds deadline = kRawDeadline);

    // True when the far end closes, whatever it still sends before.
    bool drain_until_closed(std::chrono::milliseconds deadline = kRawDeadline);

    // Bytes that wait to be read at this moment.
    size_t waiting() const;

    void close();         // in order
    void reset();         // TCP: the far end sees ECONNRESET
    void shut_writing();  // the far end reads an end, this end can still receive

    // Small kernel buffers, so that a test fills them soon.
    void shrink_buffers(int size = 4096);

private:
    int m_fd = -1;
};

// Waits for connections.
class RawListener {
public:
    RawListener() = default;  // listens nowhere
    ~RawListener();
    RawListener(RawListener&& other) noexcept;
    RawListener& operator=(RawListener&& other) noexcept;

    // Port 0 lets the kernel choose; port() tells which. The port may be bound again at once.
    static RawListener tcp(uint16_t port = 0, std::string const& host = "127.0.0.1");
    // A socket file that is there already is replaced.
    static RawListener unix_path(std::string const& path);

    bool listening() const;
    uint16_t port() const;

    // The next connection; not connected() when none came in time.
    RawPeer accept(std::chrono::milliseconds deadline = kRawDeadline);

    // Stops listening; connections that wait are reset, those accepted stay.
    void close();

private:
    explicit RawListener(int fd);

    int m_fd = -1;
};

// A datagram and where it came from.
struct RawDatagram {
    Bytes data;
    std::string host;
    uint16_t port = 0;  // 0: none came in time
};

// A datagram socket.
class RawUdp {
public:
    explicit RawUdp(uint16_t port = 0, std::string const& host = "127.0.0.1");
    ~RawUdp();
    RawUdp(RawUdp const&) = delete;
    RawUdp& operator=(RawUdp const&) = delete;

    bool bound() const;
    uint16_t port() const;
    bool send_to(uint16_t port, Bytes const& data, std::string const& host = "127.0.0.1");
    RawDatagram receive(std::chrono::milliseconds deadline = kRawDeadline);

private:
    int m_fd = -1;
};

#endif
