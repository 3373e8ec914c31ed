// The readiness engine: one epoll descriptor with its thread, and the fixed set of them.
//
// A watched descriptor stands for a CSocketConnection, whose address is the epoll user word; a
// ready one means a call of the connection's handlers on the server that owns it. Interest is
// level-triggered throughout.
#ifndef KYP_KYPCORE_EVENTLOOP_H
#define KYP_KYPCORE_EVENTLOOP_H

#include <atomic>
#include <vector>

#include "utils/Export.h"
#include "utils/Singleton.h"

class CSocketConnection;
class ISocketServer;

// Owns:     m_epollFd and the thread. Connections belong to their pool; closing a descriptor is
//           what takes it out of the set.
// Threads:  epoll_oper_event() from any thread. Handlers run on the loop's own thread, so a handler
//           never calls event_stop(): it would wait for itself.
// Lifetime: outlives every connection registered on it and every thread that may still answer on
//           one. Not restartable.
class KYP_API CEventLoop {
public:
    // Calls epoll_init(); a failure shows in its log line and in m_epollFd.
    CEventLoop();

    // Closes the epoll descriptor. The thread is stopped before.
    ~CEventLoop();

    // Creates the epoll descriptor. Returns 0, or -1 with the reason logged.
    int epoll_init();

    // Starts the thread: SCHED_FIFO with `priority` (99 at most), SCHED_OTHER for 0. Returns 0, or
    // -1 with the reason logged, for example when the process may not use SCHED_FIFO.
    int event_start(unsigned int priority);

    // A joinable thread with 4 MiB of stack and the scheduling of event_start(). Returns 0 with the
    // thread's id in *thread, or -1 with the reason logged and *thread 0.
    int CreateRealtimeThread(unsigned long* thread, void* (*entry)(void*), void* arg,
                             unsigned int priority);

    // The thread's body; `loop` is its CEventLoop.
    static void* SocketEpollThread(void* loop);

    // Rounds of 500 ms at most until event_stop().
    void event_run();

    // Waits up to `timeoutMs` (-1 without end) and serves what is ready, the read handler before
    // the write handler. Returns 0, or -1 with the reason logged.
    int epoll_process_event(int timeoutMs);

    // The one place where interest changes. `op` is an EPOLL_CTL_ number; with EPOLL_CTL_MOD a
    // `flag` of 0 adds `events` to the connection's saved mask, 1 takes them out, any other
    // replaces the mask. Returns 0, also for an unknown `op`, which does nothing; or -1 with the
    // reason logged. The saved mask changes in both cases. `conn` is never null.
    int epoll_oper_event(int fd, unsigned int op, unsigned int events, int flag,
                         CSocketConnection* conn);

    // Watches the server's socket with `handler` for readiness. Returns 0, or -1 for a null server
    // and for a socket that epoll refuses.
    int add_listen_event(ISocketServer* server, int (ISocketServer::*handler)(CSocketConnection*));

    // Ends the thread and waits for it, up to one round.
    void event_stop();

    static std::atomic<int> m_nNo;  // number of the next thread's name

    std::atomic<bool> m_bStop;     // polled every round; relaxed: nothing hangs on it
    std::atomic<bool> m_bRecycle;  // first loop only: recycles connection records every round
    int m_epollFd;                 // -1 when creation failed
    unsigned long m_thread;        // 0 while there is none
};

// The loops of the process. The first one accepts and recycles, the others carry the connections.
//
// Owns:     the loops.
// Threads:  init_event_loop() and uninit_event_loop() belong to the program's start and end.
//           get_event_loop() belongs to the first loop's thread, where every accept runs: it takes
//           no lock.
// Lifetime: a singleton. A program stops its workers before uninit_event_loop(), since an answer
//           under way still needs the loop.
class KYP_API CEventManage {
public:
    CEventManage();

    // uninit_event_loop().
    ~CEventManage();

    // Creates and starts `count` loops; a server that accepts needs two at least. Returns 0, also
    // when a thread could not be started, which is logged.
    int init_event_loop(int count, int priority);

    // Stops and destroys the loops, in order. Returns 0, also when there are none.
    int uninit_event_loop();

    // CEventLoop::add_listen_event() of the first loop; -1 when there is no loop.
    int add_listen_event(ISocketServer* server, int (ISocketServer::*handler)(CSocketConnection*));

    // The loop for a new connection, dealt round-robin over all but the first; null when there is
    // no loop. With exactly one loop the call does not return.
    CEventLoop* get_event_loop();

    unsigned int m_nLoopCount;            // 3 before init_event_loop()
    unsigned int m_nNextLoop;             // counts on for ever, modulo 2^32
    std::vector<CEventLoop*> m_vecLoops;  // owned; the first loop at index 0
};

extern template class KYP_API utility::Singleton<CEventManage>;

#endif
