// The calls of one exchange and nothing else.
//
// Client: the caller sends and waits on a condition variable; a receive thread per connection
// selects, reads the head, reads the body and notifies. Server: two loop threads read head and
// body after one epoll_wait each and hand the frame to one of four workers through a queue with a
// condition variable; the worker asks for writability, the loop sends and takes the wish back.
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "common/Sockets.h"
#include "roundtrip/Contestant.h"

namespace {

constexpr Endpoint kBareEndpoint = {9902, "/var/tmp/kyp/bare"};
constexpr std::size_t kHead = 8;
constexpr std::size_t kLoops = 2;
constexpr int kWorkers = 4;

// An 8-byte head whose last four bytes count what follows, as on the library's streams.
struct Head {
    uint32_t mark;
    uint32_t size;
};

struct Connection {
    int fd = -1;
    int epoll = -1;
    std::size_t filled = 0;  // bytes of the present piece
    bool inBody = false;
    std::vector<char> frame = std::vector<char>(kHead);
    std::size_t frameSize = kHead;
    std::size_t sent = 0;
};

class WorkQueue {
public:
    void put(Connection* connection) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_waiting.push_back(connection);
        }
        m_ready.notify_one();
    }

    Connection* take() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_ready.wait(lock, [this] { return !m_waiting.empty(); });
        Connection* const next = m_waiting.front();
        m_waiting.pop_front();
        return next;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<Connection*> m_waiting;
};

void watch(Connection* connection, int operation, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = connection;
    epoll_ctl(connection->epoll, operation, connection->fd, &event);
}

constexpr uint32_t kReading = EPOLLIN | EPOLLRDHUP;

// One recv for each readiness event. True when the frame is whole.
bool read_piece(Connection* c) {
    std::size_t const want = (c->inBody ? c->frameSize : kHead) - c->filled;
    ssize_t const n = recv(c->fd, c->frame.data() + c->filled, want, 0);
    if (n <= 0) {
        close(c->fd);  // the record stays: a process of this length may lose a few
        return false;
    }
    c->filled += static_cast<std::size_t>(n);
    if (static_cast<std::size_t>(n) < want) return false;
    if (c->inBody) return true;

    Head head;
    memcpy(&head, c->frame.data(), sizeof head);
    c->frameSize = kHead + head.size;
    if (c->frame.size() < c->frameSize) c->frame.resize(c->frameSize);
    c->inBody = true;
    return false;
}

void write_piece(Connection* c) {
    ssize_t const n = send(c->fd, c->frame.data() + c->sent, c->frameSize - c->sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    c->sent += static_cast<std::size_t>(n);
    if (c->sent < c->frameSize) return;

    c->sent = 0;
    c->filled = 0;
    c->inBody = false;
    watch(c, EPOLL_CTL_MOD, kReading);
}

void run_loop(int epoll, WorkQueue* queue) {
    std::array<epoll_event, 512> events;
    for (;;) {
        int const n = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), 500);
        for (int i = 0; i < n; ++i) {
            epoll_event const& event = events[static_cast<std::size_t>(i)];
            auto* const connection = static_cast<Connection*>(event.data.ptr);
            if ((event.events & EPOLLIN) != 0 && read_piece(connection)) queue->put(connection);
            if ((event.events & EPOLLOUT) != 0) write_piece(connection);
        }
    }
}

void run_worker(WorkQueue* queue) {
    for (;;) watch(queue->take(), EPOLL_CTL_MOD, kReading | EPOLLOUT);
}

void accept_all(int listener, std::array<int, kLoops> const& loops, std::atomic<unsigned>* next) {
    for (;;) {
        int const fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
        if (fd < 0) continue;
        tune(fd);
        auto* const connection = new Connection;  // one for each accept, for the process's life
        connection->fd = fd;
        connection->epoll = loops[next->fetch_add(1) % kLoops];
        watch(connection, EPOLL_CTL_ADD, kReading);
    }
}

class BareLink : public Link {
public:
    explicit BareLink(int fd) : m_fd(fd), m_thread(&BareLink::receive, this) {}

    ~BareLink() override {
        shutdown(m_fd, SHUT_RDWR);
        m_thread.join();
        close(m_fd);
    }

    void exchange(std::vector<char> const& payload) override {
        m_request.resize(kHead + payload.size());
        Head const head = {0, static_cast<uint32_t>(payload.size())};
        memcpy(m_request.data(), &head, sizeof head);
        memcpy(m_request.data() + kHead, payload.data(), payload.size());
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_answered = false;
        }
        send_all(m_fd, m_request.data(), m_request.size());

        std::unique_lock<std::mutex> lock(m_mutex);
        auto const deadline = std::chrono::system_clock::now() + std::chrono::seconds(5);
        if (!m_arrived.wait_until(lock, deadline, [this] { return m_answered; })) fail("answer");
        if (m_answer.size() < payload.size()) fail("short answer");
        m_copy.assign(m_answer.begin(),
                      m_answer.begin() + static_cast<std::ptrdiff_t>(payload.size()));
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
            if (head.size > 0) recv_all(m_fd, body.data(), body.size());
            std::lock_guard<std::mutex> lock(m_mutex);
            m_answer.swap(body);
            m_answered = true;
            m_arrived.notify_all();
        }
    }

    int m_fd;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    bool m_answered = false;     // guarded by m_mutex
    std::vector<char> m_answer;  // guarded by m_mutex
    std::vector<char> m_request;
    std::vector<char> m_copy;
    std::thread m_thread;
};

class Bare : public Contestant {
public:
    ~Bare() override { end(m_server); }
    char const* name() const override { return "bare"; }
    void start() override { m_server = spawn({"/proc/self/exe", "--serve", "bare"}); }

    std::unique_ptr<Link> connect(Transport transport) override {
        return std::make_unique<BareLink>(connect_plain(transport, kBareEndpoint));
    }
};

}  // namespace

std::unique_ptr<Contestant> make_bare() {
    return std::make_unique<Bare>();
}

int serve_bare() {
    int const domain = listen_domain(kBareEndpoint.domainPath);
    int const tcp = listen_tcp(kBareEndpoint.tcpPort);
    WorkQueue queue;
    std::array<int, kLoops> loops;
    for (int& epoll : loops) {
        epoll = epoll_create1(0);
        std::thread(run_loop, epoll, &queue).detach();
    }
    for (int i = 0; i < kWorkers; ++i) std::thread(run_worker, &queue).detach();
    std::atomic<unsigned> next{0};
    std::thread([&] { accept_all(domain, loops, &next); }).detach();
    accept_all(tcp, loops, &next);
    return 0;
}
