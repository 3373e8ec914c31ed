#include "kypcore/EventLoop.h"

#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kypcore/ISocketServer.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "utils/Log.h"

template class utility::Singleton<CEventManage>;

std::atomic<int> CEventLoop::m_nNo{0};

namespace {

constexpr int kMaxBatch = 512;
constexpr int kRoundMs = 500;
constexpr unsigned int kHighestPriority = 99;
constexpr size_t kStackSize = 4194304;
constexpr size_t kThreadNameSize = 16;  // what the kernel keeps, with the NUL
constexpr unsigned int kDefaultLoops = 3;
constexpr unsigned int kReadInterest = EPOLLIN | EPOLLRDHUP;
// A peer that is gone is the read handler's business: it finds the end of the stream.
constexpr unsigned int kGone = EPOLLRDHUP | EPOLLERR | EPOLLHUP;

// `events` was saved before the first handler runs, so a write handler can follow a read handler
// that has closed the connection: the record stays, its descriptor is -1 and the send fails.
void dispatch(CSocketConnection* conn, unsigned int events) {
    ISocketServer* const server = conn->m_pServer;
    if (server == nullptr) return;

    if ((events & EPOLLIN) != 0) {
        SockEventHandler const read = conn->m_readHandler;
        if (read != nullptr) (server->*read)(conn);
    }
    if ((events & EPOLLOUT) != 0 && (events & kGone) == 0) {
        SockEventHandler const write = conn->m_writeHandler;
        if (write != nullptr) (server->*write)(conn);
    }
}

// The connection's mask after EPOLL_CTL_MOD.
unsigned int changed_mask(unsigned int saved, unsigned int events, int flag) {
    if (flag == 0) return saved | events;
    if (flag == 1) return saved & ~events;
    return events;
}

}  // namespace

CEventLoop::CEventLoop() : m_bStop(false), m_bRecycle(false), m_epollFd(-1), m_thread(0) {
    epoll_init();
}

CEventLoop::~CEventLoop() {
    if (m_epollFd != -1) close(m_epollFd);
}

int CEventLoop::epoll_init() {
    m_epollFd = epoll_create1(0);
    if (m_epollFd == -1) {
        int const error = errno;
        KYP_LOG(LOG_LEVEL_ERROR, "create epoll readd fd error:%d,%s", error, strerror(error));
        return -1;
    }
    KYP_LOG(LOG_LEVEL_INFO, "epoll_create1 success fd:%d", m_epollFd);
    return 0;
}

int CEventLoop::event_start(unsigned int priority) {
    return CreateRealtimeThread(&m_thread, SocketEpollThread, this, priority);
}

int CEventLoop::CreateRealtimeThread(unsigned long* thread, void* (*entry)(void*), void* arg,
                                     unsigned int priority) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
    sched_param param{};
    param.sched_priority = static_cast<int>(std::min(priority, kHighestPriority));
    // Twice: a priority is checked against the policy that stands, and each policy's range is
    // another.
    pthread_attr_setschedparam(&attr, &param);
    pthread_attr_setschedpolicy(&attr, priority != 0 ? SCHED_FIFO : SCHED_OTHER);
    pthread_attr_setschedparam(&attr, &param);
    pthread_attr_setstacksize(&attr, kStackSize);
    int const error = pthread_create(thread, &attr, entry, arg);
    pthread_attr_destroy(&attr);
    if (error == 0) return 0;

    // The C library stores an id before it knows that the thread cannot run.
    *thread = 0;
    KYP_LOG(LOG_LEVEL_ERROR, "pthread_create realtime thread fail,error:%d,%s", error,
            strerror(error));
    return -1;
}

void* CEventLoop::SocketEpollThread(void* loop) {
    char name[kThreadNameSize];
    snprintf(name, sizeof name, "kypepoll-%d", m_nNo.fetch_add(1, std::memory_order_relaxed));
    int const error = pthread_setname_np(pthread_self(), name);
    if (error != 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "pthread_setname_np fail:,%d,%s", error, strerror(error));
    }
    static_cast<CEventLoop*>(loop)->event_run();
    return nullptr;
}

void CEventLoop::event_run() {
    while (!m_bStop.load(std::memory_order_relaxed)) {
        (void)epoll_process_event(kRoundMs);
        if (m_bRecycle.load(std::memory_order_relaxed)) {
            utility::instance<CSockConnPool>().IdelRecyConnections();
        }
    }
}

int CEventLoop::epoll_process_event(int timeoutMs) {
    epoll_event ready[kMaxBatch];
    int const count = epoll_wait(m_epollFd, ready, kMaxBatch, timeoutMs);
    if (count == -1) {
        if (errno == EINTR) return 0;
        KYP_LOG(LOG_LEVEL_ERROR, "epoll_wait() fail:%s", strerror(errno));
        return -1;
    }
    if (count == 0) {
        if (timeoutMs != -1) return 0;
        KYP_LOG(LOG_LEVEL_ERROR, "epoll_wait() should block,but return,error:%s", strerror(errno));
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        dispatch(static_cast<CSocketConnection*>(ready[i].data.ptr), ready[i].events);
    }
    return 0;
}

int CEventLoop::epoll_oper_event(int fd, unsigned int op, unsigned int events, int flag,
                                 CSocketConnection* conn) {
    epoll_event event{};
    event.data.ptr = conn;
    switch (op) {
        case EPOLL_CTL_ADD:
            event.events = events;
            break;
        case EPOLL_CTL_MOD:
            event.events =
                changed_mask(conn->m_events.load(std::memory_order_relaxed), events, flag);
            break;
        case EPOLL_CTL_DEL:
            break;
        default:
            return 0;
    }
    // Kept: saved also when the kernel then refuses. It comes before the call because other threads
    // change the mask as soon as the descriptor is in the set.
    if (op != EPOLL_CTL_DEL) conn->m_events.store(event.events, std::memory_order_relaxed);
    if (epoll_ctl(m_epollFd, static_cast<int>(op), fd, &event) == 0) return 0;

    int const error = errno;
    KYP_LOG(LOG_LEVEL_ERROR, "epoll_ctl(%d,%u,%u,%d)fail,error:%d,%s", fd, op, events, flag, error,
            strerror(error));
    errno = error;  // the caller reports it too
    return -1;
}

int CEventLoop::add_listen_event(ISocketServer* server,
                                 int (ISocketServer::*handler)(CSocketConnection*)) {
    if (server == nullptr) return -1;

    int const fd = server->get_listen_sock();
    CSocketConnection* const conn = utility::instance<CSockConnPool>().get_connection(fd);
    conn->SetSockServer(server);
    conn->m_readHandler = handler;
    // Kept: a socket that epoll refuses still costs a record, which stays in use.
    return epoll_oper_event(fd, EPOLL_CTL_ADD, kReadInterest, 0, conn);
}

void CEventLoop::event_stop() {
    m_bStop.store(true, std::memory_order_relaxed);
    if (m_thread != 0) {
        pthread_join(m_thread, nullptr);
        m_thread = 0;
    }
    KYP_LOG(LOG_LEVEL_DEBUG, "eventloop epoll fd:%d thread stop success", m_epollFd);
}

CEventManage::CEventManage() : m_nLoopCount(kDefaultLoops), m_nNextLoop(0) {}

CEventManage::~CEventManage() {
    uninit_event_loop();
}

int CEventManage::init_event_loop(int count, int priority) {
    m_nLoopCount = static_cast<unsigned int>(count);
    for (int i = 0; i < count; ++i) {
        auto* const loop = new CEventLoop();
        (void)loop->event_start(static_cast<unsigned int>(priority));
        m_vecLoops.push_back(loop);
        if (i == 0) loop->m_bRecycle.store(true, std::memory_order_relaxed);
    }
    return 0;
}

int CEventManage::uninit_event_loop() {
    for (CEventLoop* loop : m_vecLoops) {
        loop->event_stop();
        delete loop;
    }
    m_vecLoops.clear();
    m_nLoopCount = 0;
    return 0;
}

int CEventManage::add_listen_event(ISocketServer* server,
                                   int (ISocketServer::*handler)(CSocketConnection*)) {
    if (m_vecLoops.empty()) return -1;
    return m_vecLoops.front()->add_listen_event(server, handler);
}

CEventLoop* CEventManage::get_event_loop() {
    if (m_vecLoops.empty()) return nullptr;

    unsigned int next = m_nNextLoop + 1;
    // Kept: with exactly one loop every number is the first loop's, and the search has no end.
    while (next % m_nLoopCount == 0) ++next;
    m_nNextLoop = next;
    return m_vecLoops[next % m_nLoopCount];
}
