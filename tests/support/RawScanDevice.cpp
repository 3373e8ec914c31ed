#include "support/RawScanDevice.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "support/SecondHost.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

sockaddr_in inet_address(char const* host, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host, &address.sin_addr);
    return address;
}

// A socket on `port` that tells when each datagram came.
int stamped_socket(uint16_t port) {
    int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int const on = 1;
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    sockaddr_in const address = inet_address("0.0.0.0", port);
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

bool join(int fd) {
    ip_mreq membership{};
    inet_pton(AF_INET, "239.255.0.3", &membership.imr_multiaddr);
    inet_pton(AF_INET, SecondHost::kThere, &membership.imr_interface);
    return setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
}

std::chrono::nanoseconds stamp_of(msghdr& message) {
    for (cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr;
         head = CMSG_NXTHDR(&message, head)) {
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_TIMESTAMPNS) continue;
        timespec stamp{};
        memcpy(&stamp, CMSG_DATA(head), sizeof stamp);
        return std::chrono::seconds(stamp.tv_sec) + std::chrono::nanoseconds(stamp.tv_nsec);
    }
    return std::chrono::nanoseconds(0);
}

ScanRequest read_request(int fd, ScanRequest::Road road) {
    ScanRequest request;
    uint8_t data[2048];
    alignas(cmsghdr) char control[256];
    sockaddr_in from{};
    iovec part{data, sizeof data};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t const n = recvmsg(fd, &message, MSG_DONTWAIT);
    if (n < 0) return request;
    char host[INET_ADDRSTRLEN];
    request.road = road;
    request.data.assign(data, data + n);
    request.host = inet_ntop(AF_INET, &from.sin_addr, host, sizeof host);
    request.port = ntohs(from.sin_port);
    request.arrival = stamp_of(message);
    return request;
}

}  // namespace

Bytes scan_reply(uint8_t command, std::string const& json, uint32_t status) {
    return join({Bytes{command}, u32_be(status), u32_be(0x01020304), text(json)});
}

RawScanDevice::RawScanDevice(SecondHost const& host) : m_group(-1), m_broadcast(-1) {
    host.run([this] {
        m_group = stamped_socket(38897);
        m_broadcast = stamped_socket(38896);
        if (m_group >= 0 && !join(m_group)) {
            close(m_group);
            m_group = -1;
        }
    });
}

RawScanDevice::~RawScanDevice() {
    if (m_group >= 0) close(m_group);
    if (m_broadcast >= 0) close(m_broadcast);
}

bool RawScanDevice::ready() const {
    return m_group >= 0 && m_broadcast >= 0;
}

ScanRequest RawScanDevice::receive(milliseconds deadline) {
    auto const end = Clock::now() + deadline;
    for (;;) {
        auto const left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left.count() < 0) return {};
        pollfd fds[] = {{m_group, POLLIN, 0}, {m_broadcast, POLLIN, 0}};
        if (poll(fds, 2, static_cast<int>(left.count())) <= 0) continue;
        if (fds[0].revents != 0) return read_request(m_group, ScanRequest::MULTICAST);
        return read_request(m_broadcast, ScanRequest::BROADCAST);
    }
}

ScanRequest RawScanDevice::receive_by(ScanRequest::Road road, milliseconds deadline) {
    auto const end = Clock::now() + deadline;
    for (;;) {
        ScanRequest request = receive(std::chrono::ceil<milliseconds>(end - Clock::now()));
        if (request.road == road || request.road == ScanRequest::NONE) return request;
    }
}

bool RawScanDevice::answer(ScanRequest const& request, Bytes const& data) {
    sockaddr_in const to = inet_address(request.host.c_str(), request.port);
    ssize_t const n = sendto(m_broadcast, data.data(), data.size(), MSG_NOSIGNAL,
                             reinterpret_cast<sockaddr const*>(&to), sizeof to);
    return n == static_cast<ssize_t>(data.size());
}
