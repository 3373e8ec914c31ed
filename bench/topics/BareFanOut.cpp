// A connection says first what it is. The server sends each frame of a publisher to everybody who
// subscribes at that time, and closes them all when the publisher goes.
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>

#include "topics/Deliveries.h"
#include "topics/FanOut.h"

namespace {

constexpr Endpoint kEndpoint = {9903, "/var/tmp/kyp/fanout"};
constexpr char kPublisher = 'p';
constexpr char kSubscriber = 's';

// Its last four bytes count what follows, as on the library's streams.
struct Head {
    uint32_t mark;
    uint32_t size;
};

int connect_as(char kind, Transport transport) {
    int const fd = connect_plain(transport, kEndpoint);
    send_all(fd, &kind, 1);
    return fd;
}

class BareSubscriber {
public:
    BareSubscriber(Transport transport, std::size_t number, Deliveries& deliveries)
        : m_fd(connect_as(kSubscriber, transport)),
          m_number(number),
          m_deliveries(deliveries),
          m_thread(&BareSubscriber::receive, this) {}

    // Returns when the server has closed the connection.
    ~BareSubscriber() {
        m_thread.join();
        close(m_fd);
    }

private:
    void receive() {
        std::vector<char> body;
        for (;;) {
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(m_fd, &readable);
            timeval wait{0, 500000};
            if (select(m_fd + 1, &readable, nullptr, nullptr, &wait) < 1) continue;

            Head head;
            if (recv(m_fd, &head, sizeof head, MSG_WAITALL) != sizeof head) return;
            body.resize(head.size);
            recv_all(m_fd, body.data(), body.size());
            m_deliveries.arrived(m_number, body.data());
        }
    }

    int m_fd;
    std::size_t m_number;
    Deliveries& m_deliveries;
    std::thread m_thread;
};

class BareGroup : public Group {
public:
    BareGroup(Transport transport, Deliveries& deliveries)
        : m_publisher(connect_as(kPublisher, transport)) {
        for (std::size_t i = 0; i < deliveries.subscribers(); ++i) {
            m_subscribers.push_back(std::make_unique<BareSubscriber>(transport, i, deliveries));
        }
    }

    // The subscribers end behind the publisher.
    ~BareGroup() override { close(m_publisher); }

    void publish(std::vector<char> const& payload) override {
        m_frame.resize(sizeof(Head) + payload.size());
        Head const head = {0, static_cast<uint32_t>(payload.size())};
        memcpy(m_frame.data(), &head, sizeof head);
        memcpy(m_frame.data() + sizeof head, payload.data(), payload.size());
        send_all(m_publisher, m_frame.data(), m_frame.size());
    }

private:
    std::vector<std::unique_ptr<BareSubscriber>> m_subscribers;
    int m_publisher;
    std::vector<char> m_frame;
};

class BareFanOut : public FanOut {
public:
    ~BareFanOut() override { end(m_server); }
    char const* name() const override { return "bare"; }
    void start() override { m_server = spawn({"/proc/self/exe", "--serve"}); }

    std::unique_ptr<Group> gather(Transport transport, Deliveries& deliveries) override {
        return std::make_unique<BareGroup>(transport, deliveries);
    }

private:
    pid_t m_server = 0;
};

class BareServer {
public:
    void accept_all(int listener) {
        for (;;) {
            int const fd = accept(listener, nullptr, nullptr);
            if (fd < 0) continue;
            tune(fd);
            char kind = 0;
            recv_all(fd, &kind, 1);
            if (kind == kPublisher) {
                std::thread(&BareServer::serve, this, fd).detach();
                continue;
            }
            std::lock_guard<std::mutex> lock(m_mutex);
            m_subscribers.push_back(fd);
        }
    }

private:
    void serve(int publisher) {
        std::vector<char> frame;
        Head head;
        while (recv(publisher, &head, sizeof head, MSG_WAITALL) == sizeof head) {
            frame.resize(sizeof head + head.size);
            memcpy(frame.data(), &head, sizeof head);
            recv_all(publisher, frame.data() + sizeof head, head.size);
            std::lock_guard<std::mutex> lock(m_mutex);
            for (int const fd : m_subscribers) send_all(fd, frame.data(), frame.size());
        }
        close(publisher);
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int const fd : m_subscribers) close(fd);
        m_subscribers.clear();
    }

    std::mutex m_mutex;
    std::vector<int> m_subscribers;  // guarded by m_mutex
};

}  // namespace

std::unique_ptr<FanOut> make_bare() {
    return std::make_unique<BareFanOut>();
}

int serve_bare() {
    int const domain = listen_domain(kEndpoint.domainPath);
    int const tcp = listen_tcp(kEndpoint.tcpPort);
    BareServer server;
    std::thread(&BareServer::accept_all, &server, domain).detach();
    server.accept_all(tcp);
    return 0;
}
