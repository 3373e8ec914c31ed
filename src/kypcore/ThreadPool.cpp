#include "kypcore/ThreadPool.h"

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/router/RouteManage.h"
#include "utils/Log.h"

template class utility::Singleton<CThreadPool>;

pthread_mutex_t CThreadPool::m_pthreadMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t CThreadPool::m_pthreadCond = PTHREAD_COND_INITIALIZER;
std::atomic<bool> CThreadPool::m_shutdown{false};

namespace {

constexpr time_t kBusyLogSeconds = 31;

class QueueLock {
public:
    QueueLock() { pthread_mutex_lock(&CThreadPool::m_pthreadMutex); }
    ~QueueLock() { pthread_mutex_unlock(&CThreadPool::m_pthreadMutex); }
    QueueLock(QueueLock const&) = delete;
    QueueLock& operator=(QueueLock const&) = delete;
};

// List nodes that wait for the next message, so that a message costs no allocation once the queue
// has been as long before. Guarded by m_pthreadMutex; never destroyed, since workers may still run
// while the process ends.
std::list<CMsgHeader*>& spare_nodes() {
    static std::list<CMsgHeader*>* const nodes = new std::list<CMsgHeader*>;
    return *nodes;
}

void push_message(std::list<CMsgHeader*>& queue, CMsgHeader* msg) {
    std::list<CMsgHeader*>& spare = spare_nodes();
    if (spare.empty()) {
        queue.push_back(msg);
        return;
    }
    spare.front() = msg;
    queue.splice(queue.end(), spare, spare.begin());
}

CMsgHeader* pop_message(std::list<CMsgHeader*>& queue) {
    CMsgHeader* const msg = queue.front();
    std::list<CMsgHeader*>& spare = spare_nodes();
    spare.splice(spare.begin(), queue, queue.begin());
    return msg;
}

// Waits for the next message and takes it out; null when the pool stops.
CMsgHeader* next_message(CThreadPool& pool, CThreadPool::ThreadItem& item) {
    QueueLock lock;
    while (pool.m_msgRecvQueue.empty() &&
           !CThreadPool::m_shutdown.load(std::memory_order_relaxed)) {
        item.m_bWaited = true;
        pthread_cond_wait(&CThreadPool::m_pthreadCond, &CThreadPool::m_pthreadMutex);
    }
    // Messages that wait at the stop are not served.
    if (CThreadPool::m_shutdown.load(std::memory_order_relaxed)) return nullptr;

    --pool.m_nQueueCount;
    return pop_message(pool.m_msgRecvQueue);
}

}  // namespace

CThreadPool::ThreadItem::ThreadItem() : m_thread(0), m_pPool(nullptr), m_bWaited(false) {}
CThreadPool::ThreadItem::~ThreadItem() = default;

CThreadPool::CThreadPool()
    : m_nThreadCount(0), m_nQueueCount(0), m_tLastBusyLog(0), m_nRunning(0) {}

CThreadPool::~CThreadPool() {
    clearMsgRecvQueue();
}

int CThreadPool::start(int count) {
    KYP_LOG(LOG_LEVEL_DEBUG, "ThreadPool Start %d Thread", count);
    m_nThreadCount.store(count, std::memory_order_relaxed);
    for (int i = 0; i < count; ++i) {
        ThreadItem* const item = new ThreadItem;
        item->m_pPool = this;
        m_vecThreads.push_back(item);
        const int error = pthread_create(&item->m_thread, nullptr, ThreadFunc, item);
        if (error != 0) {
            KYP_LOG(LOG_LEVEL_ERROR, "CThreadPool::Create thread:%d fail,error:%d", i, error);
            item->m_thread = 0;  // pthread_create leaves it undefined
            break;
        }
    }
    return 0;
}

int CThreadPool::stop() {
    KYP_LOG(LOG_LEVEL_INFO, "work threads ready stop");
    {
        // Under the lock, or a worker between its test and its wait would sleep through the stop.
        QueueLock lock;
        if (m_shutdown.exchange(true, std::memory_order_relaxed)) return -1;
    }
    pthread_cond_broadcast(&m_pthreadCond);
    for (ThreadItem* item : m_vecThreads) {
        if (item->m_thread != 0) pthread_join(item->m_thread, nullptr);
    }

    pthread_mutex_destroy(&m_pthreadMutex);
    pthread_cond_destroy(&m_pthreadCond);
    // A putq() that comes too late finds idle objects and not dead ones.
    pthread_mutex_init(&m_pthreadMutex, nullptr);
    pthread_cond_init(&m_pthreadCond, nullptr);

    for (ThreadItem* item : m_vecThreads) delete item;
    m_vecThreads.clear();
    KYP_LOG(LOG_LEVEL_INFO, "work threads stop success");
    return 0;
}

int CThreadPool::putq(CMsgHeader* msg) {
    {
        QueueLock lock;
        push_message(m_msgRecvQueue, msg);
        ++m_nQueueCount;
    }
    notify();
    return 0;
}

int CThreadPool::notify() {
    pthread_cond_signal(&m_pthreadCond);
    // Kept: compares with the number asked for, so a pool that got fewer workers never warns, and
    // one that was never started always does.
    if (m_nThreadCount.load(std::memory_order_relaxed) !=
        m_nRunning.load(std::memory_order_relaxed)) {
        return 0;
    }
    const time_t now = time(nullptr);
    time_t last = m_tLastBusyLog.load(std::memory_order_relaxed);
    // The exchange lets one of several callers through.
    if (now - last >= kBusyLogSeconds &&
        m_tLastBusyLog.compare_exchange_strong(last, now, std::memory_order_relaxed)) {
        KYP_LOG(LOG_LEVEL_ERROR, "thread pool thread is all busy");
    }
    return 0;
}

int CThreadPool::dealMessage(CMsgHeader* msg) {
    (void)msg->GetVaildData();
    const uint64_t current = msg->m_pConn->iCurrsequence;
    if (current != msg->m_nSequence) {
        // Kept: the place of the connection shows its sequence and the next one the message's; the
        // last says nothing.
        KYP_LOG(LOG_LEVEL_ERROR, "conn:0x%x currsequence:%u!=msg currsequence:%u",
                static_cast<unsigned int>(current), static_cast<unsigned int>(msg->m_nSequence),
                0U);
        return -1;
    }
    utility::instance<RouteManage>().call(msg);
    return 0;
}

int CThreadPool::clearMsgRecvQueue() {
    for (CMsgHeader* msg : m_msgRecvQueue) delete msg;
    m_msgRecvQueue.clear();
    m_nQueueCount = 0;
    return 0;
}

void* CThreadPool::ThreadFunc(void* item) {
    pthread_setname_np(pthread_self(), "workthread");
    ThreadItem& self = *static_cast<ThreadItem*>(item);
    CThreadPool& pool = *self.m_pPool;
    while (CMsgHeader* msg = next_message(pool, self)) {
        pool.m_nRunning.fetch_add(1, std::memory_order_relaxed);
        pool.dealMessage(msg);
        delete msg;
        pool.m_nRunning.fetch_sub(1, std::memory_order_relaxed);
    }
    return nullptr;
}
