#include "support/RawScanner.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/SecondHost.h"

namespace {

sockaddr_in inet_address(std::string const& host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

int open_scanner() {
    int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int const on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sockaddr_in const address = inet_address(SecondHost::kThere, 0);
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &address.sin_addr, sizeof address.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

}  // namespace

Bytes scan_request(uint8_t command) {
    return join({Bytes{command}, u32_be(0), u32_be(0x01020304)});
}

RawScanner::RawScanner(SecondHost const& host) : m_fd(-1) {
    host.run([this] { m_fd = open_scanner(); });
}

RawScanner::~RawScanner() {
    if (m_fd >= 0) close(m_fd);
}

bool RawScanner::ready() const {
    return m_fd >= 0;
}

bool RawScanner::multicast(Bytes const& data) {
    return send_to("239.255.0.3", 38897, data);
}

bool RawScanner::broadcast(Bytes const& data) {
    return send_to("255.255.255.255", 38896, data);
}

bool RawScanner::send_to(std::string const& host, uint16_t port, Bytes const& data) {
    sockaddr_in const to = inet_address(host, port);
    ssize_t const n = sendto(m_fd, data.data(), data.size(), MSG_NOSIGNAL,
                             reinterpret_cast<sockaddr const*>(&to), sizeof to);
    return n == static_cast<ssize_t>(data.size());
}

RawDatagram RawScanner::receive(std::chrono::milliseconds deadline) {
    RawDatagram datagram;
    pollfd wait{m_fd, POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(deadline.count())) <= 0) return datagram;
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
