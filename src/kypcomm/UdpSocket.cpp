#include "kypcomm/UdpSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "kypcomm/Frame.h"
#include "utils/Log.h"

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

}  // namespace

UdpSocket::UdpSocket(const char* host, unsigned short port, int type, bool isDomain)
    : Socket(host, port, type, isDomain) {}

// Kept: the descriptor stays open; a caller that drops the object without Shutdown() loses it.
UdpSocket::~UdpSocket() = default;

bool UdpSocket::Connect(int /*timeoutMs*/) {
    // Kept: true also without a descriptor; isConnected() stays false all the same.
    return true;
}

int UdpSocket::Shutdown() {
    const int result = close(m_fd.load(kRelaxed));
    m_fd.store(-1, kRelaxed);
    m_connected.store(false, std::memory_order_release);
    return result;
}

bool UdpSocket::isConnected() {
    return m_connected.load(std::memory_order_acquire);
}

int UdpSocket::read(void* buf, unsigned int len, int timeoutMs) {
    if (!Select(timeoutMs)) return -1;

    sockaddr_in from = {};
    socklen_t fromLen = sizeof from;
    const ssize_t n =
        recvfrom(m_fd.load(kRelaxed), buf, len, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (n == -1) KYP_LOG(LOG_LEVEL_ERROR, "recvfrom error:%d", errno);
    return static_cast<int>(n);
}

int UdpSocket::write(const void* buf, unsigned int len) {
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = inet_addr(m_host.c_str());
    to.sin_port = htons(m_port);
    const ssize_t n =
        sendto(m_fd.load(kRelaxed), buf, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (n == -1) KYP_LOG(LOG_LEVEL_ERROR, "write frame failed with error:%d", errno);
    return static_cast<int>(n);
}

int UdpSocket::write(const Frame& frame) {
    return write(frame.data(), frame.size());
}
