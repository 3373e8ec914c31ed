#include "common/Sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

sockaddr_un local(char const* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

}  // namespace

char const* name_of(Transport transport) {
    return transport == Transport::Tcp ? "tcp" : "domain";
}

void fail(char const* what) {
    fprintf(stderr, "bench: %s: %s\n", what, strerror(errno));
    exit(1);
}

int listen_tcp(unsigned short port) {
    int const fd = socket(AF_INET, SOCK_STREAM, 0);
    int const on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in const address = loopback(port);
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) fail("bind");
    if (listen(fd, 500) != 0) fail("listen");
    return fd;
}

int listen_domain(char const* path) {
    int const fd = socket(AF_UNIX, SOCK_STREAM, 0);
    unlink(path);
    sockaddr_un const address = local(path);
    if (bind(fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) fail(path);
    if (listen(fd, 500) != 0) fail("listen");
    return fd;
}

int connect_plain(Transport transport, Endpoint const& endpoint) {
    sockaddr_in const tcp = loopback(endpoint.tcpPort);
    sockaddr_un const domain = local(endpoint.domainPath);
    bool const isTcp = transport == Transport::Tcp;
    for (int attempt = 0; attempt < 500; ++attempt) {
        int const fd = socket(isTcp ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
        auto const* address = isTcp ? reinterpret_cast<sockaddr const*>(&tcp)
                                    : reinterpret_cast<sockaddr const*>(&domain);
        if (connect(fd, address, isTcp ? sizeof tcp : sizeof domain) == 0) {
            if (isTcp) tune(fd);
            return fd;
        }
        close(fd);
        usleep(10000);
    }
    fail("connect");
}

void tune(int fd) {
    int const on = 1;
    int const bytes = 262144;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

void send_all(int fd, void const* data, std::size_t size) {
    auto const* next = static_cast<char const*>(data);
    while (size > 0) {
        ssize_t const n = send(fd, next, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail("send");
        next += n;
        size -= static_cast<std::size_t>(n);
    }
}

void recv_all(int fd, void* data, std::size_t size) {
    auto* next = static_cast<char*>(data);
    while (size > 0) {
        ssize_t const n = recv(fd, next, size, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail("recv");
        next += n;
        size -= static_cast<std::size_t>(n);
    }
}

pid_t spawn(std::vector<std::string> const& command) {
    pid_t const child = fork();
    if (child < 0) fail("fork");
    if (child > 0) return child;

    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string const& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    fail(arguments[0]);
}

void end(pid_t child) {
    if (child <= 0) return;
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

void wait_for(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child) fail("waitpid");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fail("a measuring process failed");
}
