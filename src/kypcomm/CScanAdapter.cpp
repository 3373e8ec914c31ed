#include "kypcomm/CScanAdapter.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "kypcomm/KypWire.h"
#include "utils/Log.h"

namespace {

int bind_to(int fd, std::string const& ip, unsigned short port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(ip.c_str());
    address.sin_port = htons(port);
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

int join_group(int fd, std::string const& ip) {
    ip_mreq membership = {};
    membership.imr_multiaddr.s_addr = inet_addr(kScanGroup);
    membership.imr_interface.s_addr = inet_addr(ip.c_str());
    return setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
}

void close_socket(int& fd) {
    if (fd == -1) return;
    close(fd);
    fd = -1;
}

}  // namespace

CScanAdapter::CScanAdapter(std::string mac, std::string name, bool useBroadcast)
    : m_useBroadcast(useBroadcast),
      m_multiSocket(-1),
      m_broadSocket(-1),
      m_macAddr(std::move(mac)),
      m_adapterName(std::move(name)) {}

CScanAdapter::~CScanAdapter() {
    ReleaseSocket();
}

bool CScanAdapter::IsEqualAdapter(std::string mac) {
    return m_macAddr == mac;
}

std::string CScanAdapter::GetAdapterName() {
    return m_adapterName;
}

int CScanAdapter::GetMutilScanSocket() {
    return m_multiSocket;
}

int CScanAdapter::GetBroadScanSocket() {
    return m_broadSocket;
}

int CScanAdapter::UpdateAdapterIpAddr(std::string ip) {
    if (ip == m_ipAddr) return 0;

    m_ipAddr = std::move(ip);
    ReleaseSocket();
    (void)AddSockt2MutilCast();
    if (m_useBroadcast) (void)AddSocket2BroadcastSock();
    return 0;
}

int CScanAdapter::AddSockt2MutilCast() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "iframe:%s create socket fail,error,%s", m_adapterName.c_str(),
                strerror(errno));
        return -1;
    }
    const int reuse = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "setsockopt SO_REUSEADDR error,%s", strerror(errno));
        close(fd);
        return -1;
    }
    // Kept: after a failure of the next two the steps go on with the closed number, so callers see
    // their failures as well and -1 in the end.
    const int ttl = 10;
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "setsockopt  IP_MULTICAST_TTL error,%s", strerror(errno));
        close(fd);
    }
    const unsigned char loop = 0;
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "setsockopt IP_MULTICAST_LOOP error,%s", strerror(errno));
        close(fd);
    }
    if (bind_to(fd, m_ipAddr, kScanPort) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "ip:%s bind port:%d error,%s", m_ipAddr.c_str(), kScanPort,
                strerror(errno));
        close(fd);
        return -1;
    }
    if (join_group(fd, m_ipAddr) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "setsockopt IP_ADD_MEMBERSHIP error,%s", strerror(errno));
        close(fd);
        return -1;
    }
    m_multiSocket = fd;
    KYP_LOG(LOG_LEVEL_TRACE, "iframe:%s,IP:%s,Join Scan", m_adapterName.c_str(), m_ipAddr.c_str());
    return 0;
}

int CScanAdapter::AddSocket2BroadcastSock() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "create socket fail!");
        return -1;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) == -1) {
        // Kept: the socket stays open and nobody knows its number.
        KYP_LOG(LOG_LEVEL_ERROR, "broadcast setsockopt fail");
        return -1;
    }
    m_broadSocket = fd;
    if (bind_to(fd, m_ipAddr, 0) == -1) {
        // Kept: GetBroadScanSocket() gives the unbound socket, which still sends.
        KYP_LOG(LOG_LEVEL_ERROR, "bind failed.ip=[%s]", m_ipAddr.c_str());
        return -1;
    }
    return 0;
}

void CScanAdapter::ReleaseSocket() {
    close_socket(m_multiSocket);
    close_socket(m_broadSocket);
}
