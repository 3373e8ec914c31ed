#include "kypserver/ServerCore.h"

#include <algorithm>

#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/EventLoop.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/ThreadPool.h"
#include "kypserver/Errands.h"

namespace kypserver {

namespace {

constexpr size_t kFirstRecords = 256;  // made at the start; more come with the clients

bool all_loops_run() {
    auto const& loops = utility::instance<CEventManage>().m_vecLoops;
    return std::all_of(loops.begin(), loops.end(), [](CEventLoop const* loop) {
        return loop->m_thread != 0 && loop->m_epollFd != -1;
    });
}

// Asks all loops at once; each notices within half a second.
void join_loops() {
    auto const& loops = utility::instance<CEventManage>().m_vecLoops;
    for (CEventLoop* loop : loops) loop->m_bStop = true;
    for (CEventLoop* loop : loops) loop->event_stop();
}

}  // namespace

CServerCore::CServerCore(Options const& options, CErrands& errands)
    : m_options(options), m_errands(errands), m_bRunning(false) {}

CServerCore::~CServerCore() {
    stop();
}

void CServerCore::prepare() {
    utility::instance<server_bufpool>().init_bufpool();
    utility::instance<CSockConnPool>().init_connections(
        static_cast<int>(std::min(m_options.maxClients, kFirstRecords)));
}

std::string CServerCore::start() {
    m_bRunning = true;
    utility::instance<CEventManage>().init_event_loop(m_options.loops, m_options.priority);
    if (!all_loops_run()) {
        return m_options.priority > 0
                   ? "cannot start event loops with priority " +
                         std::to_string(m_options.priority) +
                         ": this user may not use realtime scheduling; use --priority 0 or run the "
                         "server with that right"
                   : "cannot start the event loops: the log on standard output says why";
    }
    auto& workers = utility::instance<CThreadPool>();
    workers.start(m_options.workers);
    bool const allThere =
        std::all_of(workers.m_vecThreads.begin(), workers.m_vecThreads.end(),
                    [](CThreadPool::ThreadItem const* item) { return item->m_thread != 0; });
    return allThere ? "" : "cannot start the workers: use fewer of them (--workers)";
}

void CServerCore::stop() {
    if (!m_bRunning) return;
    m_bRunning = false;
    m_errands.stop();
    join_loops();
    utility::instance<CThreadPool>().stop();
    utility::instance<CEventManage>().uninit_event_loop();
}

}  // namespace kypserver
