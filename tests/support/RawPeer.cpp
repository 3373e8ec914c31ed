#include "support/RawPeer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// False when `until` has passed before `fd` is ready.
bool wait_ready(int fd, short events, Clock::time_point until) {
    if (fd < 0) return false;
    for (;;) {
        auto const left = std::chrono::duration_cast<milliseconds>(until - Clock::now()).count();
        pollfd watched{fd, events, 0};
        int const n = poll(&watched, 1, static_cast<int>(std::max<long>(left, 0)));
        if (n > 0) return true;
        if (n == 0 || errno != EINTR) return false;
    }
}

sockaddr_in inet_address(std::string const& host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

sockaddr_un unix_address(std::string const& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

template <typename Address>
sockaddr const* plain(Address const& address) {
    return reinterpret_cast<sockaddr const*>(&address);
}

template <typename Address>
RawPeer connect_until(Address const& address, milliseconds deadline) {
    auto const until = Clock::now() + deadline;
    for (;;) {
        int const fd = socket(plain(address)->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, plain(address), sizeof address) == 0) return RawPeer(fd);
        close(fd);
        if (Clock::now() >= until) return RawPeer();
        std::this_thread::sleep_for(milliseconds(1));
    }
}

template <typename Address>
int bound_socket(int type, Address const& address) {
    int const fd = socket(plain(address)->sa_family, type | SOCK_CLOEXEC, 0);
    int const on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    bool const done = bind(fd, plain(address), sizeof address) == 0 &&
                      (type != SOCK_STREAM || listen(fd, 128) == 0);
    if (done) return fd;
    close(fd);
    return -1;
}

uint16_t bound_port(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

}  // namespace

RawPeer::RawPeer(int fd) : m_fd(fd) {}

RawPeer::~RawPeer() {
    close();
}

RawPeer::RawPeer(RawPeer&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

RawPeer& RawPeer::operator=(RawPeer&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
}

RawPeer RawPeer::connect_tcp(uint16_t port, std::string const& host, milliseconds deadline) {
    return connect_until(inet_address(host, port), deadline);
}

RawPeer RawPeer::connect_unix(std::string const& path, milliseconds deadline) {
    return connect_until(unix_address(path), deadline);
}

bool RawPeer::connected() const {
    return m_fd >= 0;
}

int RawPeer::fd() const {
    return m_fd;
}

bool RawPeer::send(Bytes const& data, milliseconds deadline) {
    auto const until = Clock::now() + deadline;
    for (size_t sent = 0; sent < data.size();) {
        ssize_t const n =
            ::send(m_fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (errno != EAGAIN && errno != EINTR) {
            return false;
        } else if (!wait_ready(m_fd, POLLOUT, until)) {
            return false;
        }
    }
    return true;
}

size_t RawPeer::send_without_waiting(Bytes const& data) {
    ssize_t const n = ::send(m_fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return n > 0 ? static_cast<size_t>(n) : 0;
}

Bytes RawPeer::receive(size_t n, milliseconds deadline) {
    auto const until = Clock::now() + deadline;
    Bytes result(n);
    size_t got = 0;
    while (got < n && wait_ready(m_fd, POLLIN, until)) {
        ssize_t const part = recv(m_fd, result.data() + got, n - got, MSG_DONTWAIT);
        if (part == 0 || (part < 0 && errno != EAGAIN && errno != EINTR)) break;
        if (part > 0) got += static_cast<size_t>(part);
    }
    result.resize(got);
    return result;
}

Bytes RawPeer::receive_frame(milliseconds deadline) {
    Bytes frame = receive(8, deadline);
    if (frame.size() < 8) return frame;
    uint32_t length;
    memcpy(&length, frame.data() + 4, sizeof length);
    Bytes const body = receive(length, deadline);
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

bool RawPeer::expect_closed(milliseconds deadline) {
    auto const until = Clock::now() + deadline;
    while (wait_ready(m_fd, POLLIN, until)) {
        char byte;
        ssize_t const n = recv(m_fd, &byte, 1, MSG_DONTWAIT);
        if (n > 0) return false;
        if (n == 0 || (errno != EAGAIN && errno != EINTR)) return true;
    }
    return false;
}

bool RawPeer::drain_until_closed(milliseconds deadline) {
    auto const until = Clock::now() + deadline;
    while (wait_ready(m_fd, POLLIN, until)) {
        char piece[65536];
        ssize_t const n = recv(m_fd, piece, sizeof piece, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return true;
    }
    return false;
}

size_t RawPeer::waiting() const {
    int n = 0;
    return ioctl(m_fd, FIONREAD, &n) == 0 ? static_cast<size_t>(n) : 0;
}

void RawPeer::close() {
    if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
}

void RawPeer::reset() {
    linger const none{1, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    close();
}

void RawPeer::shut_writing() {
    shutdown(m_fd, SHUT_WR);
}

void RawPeer::shrink_buffers(int size) {
    setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(m_fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

RawListener::RawListener(int fd) : m_fd(fd) {}

RawListener::~RawListener() {
    close();
}

RawListener::RawListener(RawListener&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

RawListener& RawListener::operator=(RawListener&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
}

RawListener RawListener::tcp(uint16_t port, std::string const& host) {
    return RawListener(bound_socket(SOCK_STREAM, inet_address(host, port)));
}

RawListener RawListener::unix_path(std::string const& path) {
    unlink(path.c_str());
    return RawListener(bound_socket(SOCK_STREAM, unix_address(path)));
}

bool RawListener::listening() const {
    return m_fd >= 0;
}

uint16_t RawListener::port() const {
    return bound_port(m_fd);
}

RawPeer RawListener::accept(milliseconds deadline) {
    if (!wait_ready(m_fd, POLLIN, Clock::now() + deadline)) return RawPeer();
    return RawPeer(accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC));
}

void RawListener::close() {
    if (m_fd >= 0) ::close(std::exchange(m_fd, -1));
}

RawUdp::RawUdp(uint16_t port, std::string const& host)
    : m_fd(bound_socket(SOCK_DGRAM, inet_address(host, port))) {}

RawUdp::~RawUdp() {
    if (m_fd >= 0) ::close(m_fd);
}

bool RawUdp::bound() const {
    return m_fd >= 0;
}

uint16_t RawUdp::port() const {
    return bound_port(m_fd);
}

bool RawUdp::send_to(uint16_t port, Bytes const& data, std::string const& host) {
    sockaddr_in const address = inet_address(host, port);
    ssize_t const n =
        sendto(m_fd, data.data(), data.size(), MSG_NOSIGNAL, plain(address), sizeof address);
    return n == static_cast<ssize_t>(data.size());
}

RawDatagram RawUdp::receive(milliseconds deadline) {
    RawDatagram datagram;
    if (!wait_ready(m_fd, POLLIN, Clock::now() + deadline)) return datagram;
    datagram.data.resize(65536);
    sockaddr_in from{};
    socklen_t size = sizeof from;
    ssize_t const n = recvfrom(m_fd, datagram.data.data(), datagram.data.size(), MSG_DONTWAIT,
                               reinterpret_cast<sockaddr*>(&from), &size);
    datagram.data.resize(n > 0 ? static_cast<size_t>(n) : 0);
    if (n < 0) return datagram;
    char host[INET_ADDRSTRLEN];
    datagram.host = inet_ntop(AF_INET, &from.sin_addr, host, sizeof host);
    datagram.port = ntohs(from.sin_port);
    return datagram;
}
