#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <thread>

#include "common/Sockets.h"
#include "roundtrip/Contestant.h"

namespace {

constexpr Endpoint kPingPongEndpoint = {9901, "/var/tmp/kyp/pingpong"};

// Length-prefixed echo: the same bytes on the wire as a small frame head and its body would be.
void echo(int fd) {
    tune(fd);
    std::vector<char> buffer(1 << 20);
    for (;;) {
        ssize_t const n = recv(fd, buffer.data(), buffer.size(), 0);
        if (n <= 0) break;
        send_all(fd, buffer.data(), static_cast<std::size_t>(n));
    }
    close(fd);
}

void accept_all(int listener) {
    for (;;) {
        int const fd = accept(listener, nullptr, nullptr);
        if (fd >= 0) std::thread(echo, fd).detach();
    }
}

class PingPongLink : public Link {
public:
    explicit PingPongLink(int fd) : m_fd(fd) {}
    ~PingPongLink() override { close(m_fd); }

    void exchange(std::vector<char> const& payload) override {
        m_answer.resize(payload.size());
        send_all(m_fd, payload.data(), payload.size());
        recv_all(m_fd, m_answer.data(), m_answer.size());
    }

private:
    int m_fd;
    std::vector<char> m_answer;
};

class PingPong : public Contestant {
public:
    ~PingPong() override { end(m_server); }
    char const* name() const override { return "ping-pong"; }
    void start() override { m_server = spawn({"/proc/self/exe", "--serve", "ping-pong"}); }

    std::unique_ptr<Link> connect(Transport transport) override {
        return std::make_unique<PingPongLink>(connect_plain(transport, kPingPongEndpoint));
    }
};

}  // namespace

std::unique_ptr<Contestant> make_ping_pong() {
    return std::make_unique<PingPong>();
}

int serve_ping_pong() {
    int const domain = listen_domain(kPingPongEndpoint.domainPath);
    int const tcp = listen_tcp(kPingPongEndpoint.tcpPort);
    std::thread(accept_all, domain).detach();
    accept_all(tcp);
    return 0;
}
