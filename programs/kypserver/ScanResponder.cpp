#include "kypserver/ScanResponder.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>

#include "kypcomm/Adapter.h"
#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypDeviceIdGenerator.h"
#include "kypcomm/KypWire.h"
#include "kypserver/ServerLog.h"

namespace kypserver {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char const* kEverybody = "255.255.255.255";
constexpr size_t kHeadSize = sizeof(_KypScanCommand);

struct Datagram {
    ssize_t size = -1;  // of the whole datagram; -1 when there was none
    _KypScanCommand head = {};
    sockaddr_in sender = {};
    unsigned int interface = 0;  // through which it came; 0 when the kernel does not say
};

// Room for the kernel's word about the interface, aligned as it wants it.
union PacketInfoRoom {
    cmsghdr head;
    char bytes[CMSG_SPACE(sizeof(in_pktinfo))];
};

bool set_option(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

bool bind_to(int fd, char const* host, uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host, &address.sin_addr);
    return bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

// Shared with whoever else listens there: each gets the datagrams of these addresses.
int open_socket(char const* host, uint16_t port) {
    int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) return -1;
    // Not those of groups that another program has joined.
    if (set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1) && set_option(fd, IPPROTO_IP, IP_PKTINFO, 1) &&
        set_option(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0) && bind_to(fd, host, port)) {
        return fd;
    }
    int const reason = errno;
    close(fd);
    errno = reason;
    return -1;
}

void close_socket(int& fd) {
    if (fd != -1) close(fd);
    fd = -1;
}

int change_membership(int fd, int option, unsigned int index) {
    ip_mreqn membership = {};
    inet_pton(AF_INET, kScanGroup, &membership.imr_multiaddr);
    membership.imr_ifindex = static_cast<int>(index);
    return setsockopt(fd, IPPROTO_IP, option, &membership, sizeof membership);
}

Datagram receive(int fd) {
    Datagram datagram;
    iovec part = {&datagram.head, sizeof datagram.head};
    PacketInfoRoom room = {};
    msghdr message = {};
    message.msg_name = &datagram.sender;
    message.msg_namelen = sizeof datagram.sender;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = &room;
    message.msg_controllen = sizeof room;
    datagram.size = recvmsg(fd, &message, MSG_DONTWAIT | MSG_TRUNC);
    if (datagram.size == -1) return datagram;
    for (cmsghdr* word = CMSG_FIRSTHDR(&message); word != nullptr;
         word = CMSG_NXTHDR(&message, word)) {
        if (word->cmsg_level != IPPROTO_IP || word->cmsg_type != IP_PKTINFO) continue;
        in_pktinfo info;
        memcpy(&info, CMSG_DATA(word), sizeof info);
        datagram.interface = static_cast<unsigned int>(info.ipi_ifindex);
    }
    return datagram;
}

// From the interface's own address and through that interface, also where the sender has an address
// that this device's routes do not know: it is on that cable.
bool send_through(int fd, sockaddr_in const& to, unsigned int index, in_addr from,
                  std::string const& data) {
    in_pktinfo info = {};
    info.ipi_ifindex = static_cast<int>(index);
    info.ipi_spec_dst = from;
    PacketInfoRoom room = {};
    iovec part = {const_cast<char*>(data.data()), data.size()};  // only read
    msghdr message = {};
    message.msg_name = const_cast<sockaddr_in*>(&to);  // only read
    message.msg_namelen = sizeof to;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = &room;
    message.msg_controllen = sizeof room;
    cmsghdr* const word = CMSG_FIRSTHDR(&message);
    word->cmsg_level = IPPROTO_IP;
    word->cmsg_type = IP_PKTINFO;
    word->cmsg_len = CMSG_LEN(sizeof info);
    memcpy(CMSG_DATA(word), &info, sizeof info);
    return sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) != -1;
}

std::string text_of(in_addr address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

// Empty while this device has none.
std::string device_id_text() {
    _KypDeviceId const id = utility::instance<CKypDeviceIdGenerator>().GetLocalDeviceId();
    _KypDeviceId const none = {};
    if (memcmp(&id, &none, sizeof id) == 0) return "";
    std::ostringstream text;
    text << id;
    return text.str();
}

}  // namespace

CReplyLimit::CReplyLimit(unsigned int perSecond, unsigned int perSender)
    : m_perSecond(perSecond),
      m_perSender(perSender),
      m_second(0),
      m_replies(0),
      m_hasRefused(false) {}

CReplyLimit::Verdict CReplyLimit::ask(uint32_t address, time_t now) {
    if (now != m_second) {
        m_second = now;
        m_replies = 0;
        m_hasRefused = false;
        m_senders.clear();
    }
    if (m_replies < m_perSecond && m_senders[address] < m_perSender) {
        ++m_replies;
        ++m_senders[address];
        return REPLY;
    }
    bool const isFirst = !m_hasRefused;
    m_hasRefused = true;
    return isFirst ? FIRST_REFUSAL : REFUSAL;
}

CScanResponder::CScanResponder()
    : m_multicast{-1, KYP_SCAN_MULTICAST_REQUEST, KYP_SCAN_MULTICAST_REPLY},
      m_broadcast{-1, KYP_SCAN_BROADCAST_REQUEST, KYP_SCAN_BROADCAST_REPLY},
      m_wake(-1),
      m_limit(kRepliesPerSecond, kRepliesPerSender) {}

CScanResponder::~CScanResponder() {
    stop();
}

bool CScanResponder::start() {
    open_road(m_multicast, kScanGroup, kScanPort);
    open_road(m_broadcast, kEverybody, kScanBroadcastPort);
    if (m_multicast.fd == -1 && m_broadcast.fd == -1) return false;

    m_wake = eventfd(0, EFD_CLOEXEC);
    if (m_wake == -1) {
        report("scan requests are not answered, eventfd: %s", strerror(errno));
        stop();
        return false;
    }
    m_profile = read_profile();
    m_thread = std::thread(&CScanResponder::run, this);
    (void)pthread_setname_np(m_thread.native_handle(), "scan");
    return true;
}

void CScanResponder::stop() {
    if (m_thread.joinable()) {
        (void)eventfd_write(m_wake, 1);
        m_thread.join();
    }
    close_socket(m_multicast.fd);
    close_socket(m_broadcast.fd);
    close_socket(m_wake);
}

void CScanResponder::open_road(Road& road, char const* host, uint16_t port) {
    road.fd = open_socket(host, port);
    if (road.fd != -1) return;
    report(
        "scan requests to %s port %u are not answered: %s; end the program that holds the port, "
        "or start with --no-scan",
        host, port, strerror(errno));
}

void CScanResponder::run() {
    auto refresh = Clock::now();
    for (;;) {
        auto const now = Clock::now();
        if (now >= refresh) {
            look_at_interfaces();
            refresh = now + std::chrono::milliseconds(kRefreshMs);
        }
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(refresh - now);
        pollfd fds[] = {
            {m_wake, POLLIN, 0}, {m_multicast.fd, POLLIN, 0}, {m_broadcast.fd, POLLIN, 0}};
        if (poll(fds, std::size(fds), static_cast<int>(left.count())) <= 0) continue;
        if (fds[0].revents != 0) return;
        if (fds[1].revents != 0) read_request(m_multicast);
        if (fds[2].revents != 0) read_request(m_broadcast);
    }
}

void CScanResponder::look_at_interfaces() {
    m_interfaces.clear();
    for (auto const& [name, adapter] : GetLocalNetAdaptersInfo()) {
        m_profile.serial = GetRuntimeSerial(adapter.macAddr, name);
        unsigned int const index = if_nametoindex(name.c_str());
        if (index == 0 || adapter.ipAddr.empty()) continue;
        Interface& interface = m_interfaces[index];
        interface.frame = {adapter.ipAddr, adapter.macAddr};
        inet_pton(AF_INET, adapter.ipAddr.c_str(), &interface.address);
        join(index, name);
    }
    for (unsigned int const index : std::set<unsigned int>(m_joined)) {
        if (m_interfaces.count(index) == 0) leave(index);
    }
}

void CScanResponder::join(unsigned int index, std::string const& name) {
    if (m_multicast.fd == -1 || m_joined.count(index) > 0) return;
    if (change_membership(m_multicast.fd, IP_ADD_MEMBERSHIP, index) == 0) {
        m_joined.insert(index);
        m_unjoined.erase(index);
        return;
    }
    // Tried again with every look, told once.
    if (!m_unjoined.insert(index).second) return;
    report("scan requests by multicast are not answered on %s: %s", name.c_str(), strerror(errno));
}

void CScanResponder::leave(unsigned int index) {
    // The interface itself may be gone: the place in the socket's list is what is given back.
    (void)change_membership(m_multicast.fd, IP_DROP_MEMBERSHIP, index);
    m_joined.erase(index);
}

void CScanResponder::read_request(Road const& road) {
    Datagram const datagram = receive(road.fd);
    if (datagram.size != static_cast<ssize_t>(kHeadSize)) return;
    if (datagram.head.command != road.request || datagram.head.status != 0) return;
    if (m_interfaces.count(datagram.interface) == 0 || datagram.sender.sin_port == 0) return;

    switch (m_limit.ask(datagram.sender.sin_addr.s_addr, time(nullptr))) {
        case CReplyLimit::REPLY:
            return answer(road, datagram.sender, datagram.interface);
        case CReplyLimit::FIRST_REFUSAL:
            return report("too many scan requests, the last from %s: not all are answered",
                          text_of(datagram.sender.sin_addr).c_str());
        case CReplyLimit::REFUSAL:
            return;
    }
}

void CScanResponder::answer(Road const& road, sockaddr_in const& sender, unsigned int index) {
    _KypScanCommand const head = {road.reply, 0, htonl(static_cast<uint32_t>(time(nullptr)))};
    std::string const reply =
        std::string(reinterpret_cast<char const*>(&head), kHeadSize) + reply_for(index);
    if (send_through(road.fd, sender, index, m_interfaces[index].address, reply)) return;
    report("scan reply to %s failed: %s", text_of(sender.sin_addr).c_str(), strerror(errno));
}

std::string CScanResponder::reply_for(unsigned int index) {
    // The reader looks for the frame of the address that the reply comes from, so that one is never
    // left out.
    std::vector<Frame> frames = {m_interfaces[index].frame};
    for (auto const& [other, interface] : m_interfaces) {
        if (other != index) frames.push_back(interface.frame);
    }
    m_profile.deviceId = device_id_text();
    m_profile.hostName = host_name();
    return reply_json(m_profile, frames, kMaxScanDatagram - kHeadSize);
}

}  // namespace kypserver
