#include "kypserver/Endpoints.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kypcore/EventLoop.h"

namespace kypserver {

namespace {

// The socket of local clients is open to owner and group, from its first moment on.
constexpr mode_t kDomainUmask = 0117;

std::string text_of(Address const& address) {
    return address.host + ":" + std::to_string(address.port);
}

sockaddr_in socket_address(Address const& address) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_port = htons(address.port);
    inet_pton(AF_INET, address.host.c_str(), &result.sin_addr);
    return result;
}

// Why nobody can have `address`, or an empty text. The library's TCP socket shares its port with
// every other one of the same user that allows it, so the question is asked by a socket that does
// not share.
std::string probe(Address const& address, int type, std::string const& option) {
    std::string const what = (type == SOCK_STREAM ? "TCP " : "UDP ") + text_of(address);
    int const fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd == -1) return "cannot open a socket for " + what + ": " + strerror(errno);

    int const on = 1;
    if (type == SOCK_STREAM) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in const local = socket_address(address);
    int const error =
        bind(fd, reinterpret_cast<sockaddr const*>(&local), sizeof local) == 0 ? 0 : errno;
    close(fd);
    switch (error) {
        case 0:
            return "";
        case EADDRINUSE:
            return what + " is taken by another program; stop it or choose another " + option;
        case EACCES:
            return what + " is refused to this user; choose another " + option +
                   " or run the server with the right to it";
        case EADDRNOTAVAIL:
            return what + " is no address of this machine; choose another " + option;
        default:
            return "cannot bind " + what + ": " + strerror(error) + "; choose another " + option;
    }
}

bool is_listening(int fd) {
    int listening = 0;
    socklen_t length = sizeof listening;
    return getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening == 1;
}

// 0 when the socket is not bound.
uint16_t bound_port(int fd) {
    sockaddr_in local = {};
    socklen_t length = sizeof local;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) == -1) return 0;
    return ntohs(local.sin_port);
}

std::string not_opened(std::string const& what) {
    return "cannot open " + what + ": the log on standard output says why";
}

std::string not_served(std::string const& what) {
    return "cannot serve " + what + ": the event loops do not take it";
}

bool register_endpoint(ISocketServer* server, int (ISocketServer::*handler)(CSocketConnection*)) {
    return utility::instance<CEventManage>().add_listen_event(server, handler) == 0;
}

}  // namespace

CEndpoints::CEndpoints(Options const& options, Traffic const& traffic)
    : m_options(options), m_traffic(traffic) {}

CEndpoints::~CEndpoints() = default;

std::string CEndpoints::open() {
    // The path first: its lock also tells two servers apart that start at the same moment.
    std::string problem;
    if (m_options.domain) problem = open_domain();
    if (problem.empty() && m_options.tcp) problem = open_tcp();
    if (problem.empty() && m_options.udp) problem = open_udp();
    return problem;
}

std::string CEndpoints::serve() {
    if (m_tcp && !register_endpoint(m_tcp.get(), &ISocketServer::sock_event_accept)) {
        return not_served("TCP");
    }
    if (m_domain && !register_endpoint(m_domain.get(), &ISocketServer::sock_event_accept)) {
        return not_served(m_options.domainPath);
    }
    if (m_udp && !register_endpoint(m_udp.get(), &ISocketServer::sock_read_request_handler)) {
        return not_served("UDP");
    }
    return "";
}

std::string CEndpoints::describe() const {
    std::string text;
    auto const add = [&text](std::string const& part) {
        text += (text.empty() ? "" : ", ") + part;
    };
    if (m_tcp) {
        add("tcp " + text_of({m_options.tcpAddress.host, bound_port(m_tcp->get_listen_sock())}));
    }
    if (m_domain) add("domain " + m_options.domainPath);
    if (m_udp) {
        add("udp " + text_of({m_options.udpAddress.host, bound_port(m_udp->get_listen_sock())}));
    }
    return text;
}

std::string CEndpoints::open_tcp() {
    Address const& address = m_options.tcpAddress;
    std::string problem = probe(address, SOCK_STREAM, "--tcp-address");
    if (!problem.empty()) return problem;

    m_tcp = std::make_unique<CTcpEndpoint>(m_traffic, address.host.c_str(), address.port);
    return is_listening(m_tcp->get_listen_sock()) ? "" : not_opened("TCP " + text_of(address));
}

std::string CEndpoints::open_domain() {
    std::string const& path = m_options.domainPath;
    std::string problem = m_pathGuard.take(path);
    if (!problem.empty()) return problem;

    mode_t const usual = umask(kDomainUmask);
    m_domain = std::make_unique<CDomainEndpoint>(m_traffic, path.c_str());
    umask(usual);
    return is_listening(m_domain->get_listen_sock()) ? "" : not_opened(path);
}

std::string CEndpoints::open_udp() {
    Address const& address = m_options.udpAddress;
    std::string problem = probe(address, SOCK_DGRAM, "--udp-address");
    if (!problem.empty()) return problem;

    m_udp = std::make_unique<CUdpEndpoint>(m_traffic.held, m_traffic.counters, address.host.c_str(),
                                           address.port);
    return bound_port(m_udp->get_listen_sock()) != 0 ? "" : not_opened("UDP " + text_of(address));
}

}  // namespace kypserver
