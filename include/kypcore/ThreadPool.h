// The one queue of inbound messages and the worker threads that serve it.
//
// Event-loop threads only put whole frames in; every route runs on a worker. The queue is first in,
// first out over all connections and has no limit. With more than one worker two frames of one
// connection can be under work at the same time, and their answers can leave in either order.
//
// Owns:     the queued messages, and each worker the message that it has taken out.
// Threads:  putq() and notify() from any thread; start() and stop() from the one that runs the
//           program. The mutex is not held while a message is dealt with.
// Lifetime: one per process. Not restartable: stop() is for good. Whoever puts messages in has
//           ended before stop() is called.
#ifndef KYP_KYPCORE_THREADPOOL_H
#define KYP_KYPCORE_THREADPOOL_H

#include <pthread.h>

#include <atomic>
#include <ctime>
#include <list>
#include <vector>

#include "utils/Export.h"
#include "utils/Singleton.h"

class CMsgHeader;

class KYP_API CThreadPool {
public:
    // One worker.
    class KYP_API ThreadItem {
    public:
        ThreadItem();
        ~ThreadItem();

        pthread_t m_thread;    // 0 when the thread could not be created
        CThreadPool* m_pPool;  // not owned
        bool m_bWaited;  // the worker has found the queue empty once; guarded by m_pthreadMutex
    };

    CThreadPool();

    // Destroys the messages that nobody served. The workers are gone by then.
    ~CThreadPool();

    CThreadPool(CThreadPool const&) = delete;
    CThreadPool& operator=(CThreadPool const&) = delete;

    // Creates `count` workers, none when it is below 1. A worker that cannot be created is logged
    // and ends the creation. Returns 0 in every case.
    int start(int count);

    // Ends and joins the workers; each finishes the message that it has. What is still queued stays
    // there unserved. Returns 0, or -1 when the pool was stopped before.
    int stop();

    // Appends `msg`, which belongs to the pool from here on, and wakes a worker. Returns 0.
    int putq(CMsgHeader* msg);

    // Wakes one worker. Warns, at most once in 31 seconds, when all of them are at work. Returns 0.
    int notify();

    // Gives `msg` to its route, on the calling thread, and returns 0; or drops it and returns -1
    // when its connection has been closed since the message came in. `msg` stays the caller's.
    int dealMessage(CMsgHeader* msg);

    // Destroys every queued message without taking the lock. Returns 0.
    int clearMsgRecvQueue();

    // A worker's body; `item` is its ThreadItem. Returns null.
    static void* ThreadFunc(void* item);

    std::atomic<int> m_nThreadCount;        // workers asked for, not those that could be created
    int m_nQueueCount;                      // messages waiting; guarded by m_pthreadMutex
    std::atomic<time_t> m_tLastBusyLog;     // when the busy warning last came
    std::atomic<int> m_nRunning;            // workers inside dealMessage
    std::list<CMsgHeader*> m_msgRecvQueue;  // owned; guarded by m_pthreadMutex
    std::vector<ThreadItem*> m_vecThreads;  // owned; the starting and stopping thread's alone

    static pthread_mutex_t m_pthreadMutex;
    static pthread_cond_t m_pthreadCond;  // a message came in, or the pool stops
    static std::atomic<bool> m_shutdown;  // set by stop(), never cleared
};

extern template class KYP_API utility::Singleton<CThreadPool>;

#endif
