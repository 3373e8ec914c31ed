#include "kypcore/SockConnPool.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "kypcore/SocketConnection.h"
#include "utils/Log.h"

template class utility::Singleton<CSockConnPool>;

namespace {

constexpr int64_t kRecycleDelaySec = 60;

CSocketConnection* make_record() {
    auto* const conn = new CSocketConnection();
    conn->GetOneToUse();
    return conn;
}

// The caller holds m_recyMutex.
void queue_for_reuse(CSockConnPool& pool, CSocketConnection* conn) {
    if (std::find(pool.m_listRecy.begin(), pool.m_listRecy.end(), conn) != pool.m_listRecy.end())
        return;

    conn->m_tRecycle = time(nullptr);
    // From here on the workers drop what this connection has sent.
    conn->iCurrsequence.fetch_add(1, std::memory_order_relaxed);
    pool.m_listRecy.push_back(conn);
    pool.m_nRecy.fetch_add(1, std::memory_order_relaxed);
}

void close_descriptor(CSocketConnection* conn) {
    std::lock_guard<std::mutex> lock(conn->m_sendMutex);
    int const fd = conn->m_fd.load(std::memory_order_relaxed);
    if (fd == -1) return;

    close(fd);
    conn->m_fd.store(-1, std::memory_order_relaxed);
}

}  // namespace

CSockConnPool::CSockConnPool()
    : m_nRecyDelay(kRecycleDelaySec), m_nTotal(0), m_nFree(0), m_nRecy(0) {}

CSockConnPool::~CSockConnPool() {
    clear_connections();
}

int CSockConnPool::init_connections(int count) {
    if (count < 1) return 0;

    std::lock_guard<std::mutex> lock(m_connMutex);
    for (int i = 0; i < count; ++i) {
        CSocketConnection* const conn = make_record();
        m_listAll.push_back(conn);
        m_listFree.push_back(conn);
    }
    // Kept: a second call counts the records that are in use among the free ones.
    int const all = static_cast<int>(m_listAll.size());
    m_nTotal.store(all, std::memory_order_relaxed);
    m_nFree.store(all, std::memory_order_relaxed);
    return 0;
}

void CSockConnPool::clear_connections() {
    {
        // Kept: the other lists still name the records, and the counters still count them, so the
        // pool serves nobody behind this.
        std::lock_guard<std::mutex> lock(m_connMutex);
        while (!m_listAll.empty()) {
            CSocketConnection* const conn = m_listAll.front();
            m_listAll.pop_front();
            delete conn;
        }
    }
    KYP_LOG(LOG_LEVEL_INFO, "clear all socket connection from pool");
}

CSocketConnection* CSockConnPool::get_connection(int fd) {
    std::lock_guard<std::mutex> lock(m_connMutex);
    CSocketConnection* conn = nullptr;
    if (m_listFree.empty()) {
        conn = make_record();
        m_listAll.push_back(conn);
        m_nTotal.fetch_add(1, std::memory_order_relaxed);
    } else {
        conn = m_listFree.front();
        m_listFree.pop_front();
        conn->GetOneToUse();
        m_nFree.fetch_sub(1, std::memory_order_relaxed);
    }
    conn->m_fd.store(fd, std::memory_order_relaxed);
    return conn;
}

void CSockConnPool::free_connection(CSocketConnection* conn) {
    std::lock_guard<std::mutex> lock(m_connMutex);
    conn->PutOneToFree();
    m_listFree.push_back(conn);
    m_nFree.fetch_add(1, std::memory_order_relaxed);
}

void CSockConnPool::close_connections(CSocketConnection* conn) {
    KYP_LOG(LOG_LEVEL_WARNING, "close connection:%p,fd:%d,iCurrsequence:%lu",
            static_cast<void*>(conn), conn->m_fd.load(std::memory_order_relaxed),
            static_cast<unsigned long>(conn->iCurrsequence.load(std::memory_order_relaxed)));
    conn->notify();
    conn->detachAll();
    // One hold for both: with a short delay the recycler could otherwise hand the record to a new
    // peer in between, and the descriptor closed would be the new one's.
    std::lock_guard<std::mutex> lock(m_recyMutex);
    queue_for_reuse(*this, conn);
    close_descriptor(conn);
}

int CSockConnPool::inRecyConnectQueue(CSocketConnection* conn) {
    conn->notify();
    conn->detachAll();
    std::lock_guard<std::mutex> lock(m_recyMutex);
    queue_for_reuse(*this, conn);
    return 0;
}

void CSockConnPool::IdelRecyConnections() {
    if (m_nRecy.load(std::memory_order_relaxed) <= 0) return;

    time_t const now = time(nullptr);
    int64_t const delay = m_nRecyDelay.load(std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(m_recyMutex);
    for (auto it = m_listRecy.begin(); it != m_listRecy.end();) {
        CSocketConnection* const conn = *it;
        if (conn->m_tRecycle + delay > now) {
            ++it;
            continue;
        }
        KYP_LOG(LOG_LEVEL_INFO, "client:%s,conn:%p delay the recycle", conn->m_szPeerName,
                static_cast<void*>(conn));
        m_nRecy.fetch_sub(1, std::memory_order_relaxed);
        it = m_listRecy.erase(it);
        free_connection(conn);
    }
}
