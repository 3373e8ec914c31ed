#include "kypcore/EventLoop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "KernelCalls.h"
#include "kypcore/ISocketServer.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"

namespace {

using Names = std::vector<std::string>;

// Notes which handlers run; its overrides are reached through handlers of the base.
class NotingServer : public ISocketServer {
public:
    int sock_event_accept(CSocketConnection*) override {
        ++m_accepts;
        return 0;
    }
    int sock_read_request_handler(CSocketConnection* conn) override {
        m_calls.push_back("read");
        if (m_closeOnRead) conn->SetSockServer(nullptr);
        return -1;
    }
    int sock_write_request_handler(CSocketConnection*) override {
        m_calls.push_back("write");
        return -1;
    }

    Names m_calls;
    bool m_closeOnRead = false;
    std::atomic<int> m_accepts{0};
};

class EventLoopTest : public testing::Test {
protected:
    EventLoopTest() {
        m_conn.SetSockServer(&m_server);
        m_conn.m_readHandler = &ISocketServer::sock_read_request_handler;
        m_conn.m_writeHandler = &ISocketServer::sock_write_request_handler;
    }

    // One round in which epoll_wait reports `events` of the record.
    int report(unsigned int events) {
        KernelHook hook(kernel::epoll_wait, [&](int, epoll_event* ready, int, int) {
            ready[0].events = events;
            ready[0].data.ptr = &m_conn;
            return 1;
        });
        return m_loop.epoll_process_event(500);
    }

    LogCapture m_log;
    NotingServer m_server;
    CSocketConnection m_conn;
    CEventLoop m_loop;
};

TEST_F(EventLoopTest, AFreshLoopHasADescriptorAndNoThread) {
    EXPECT_FALSE(m_loop.m_bStop);
    EXPECT_FALSE(m_loop.m_bRecycle);
    EXPECT_NE(-1, m_loop.m_epollFd);
    EXPECT_EQ(0u, m_loop.m_thread);
    EXPECT_EQ(1,
              m_log.count("INFO", "epoll_create1 success fd:" + std::to_string(m_loop.m_epollFd)));
}

TEST_F(EventLoopTest, AFailedEpollCreateIsLoggedAndLeavesMinusOne) {
    KernelHook hook(kernel::epoll_create1, [](int) { return fail_with(EMFILE); });

    CEventLoop loop;
    EXPECT_EQ(-1, loop.m_epollFd);
    EXPECT_EQ(1, m_log.count("ERROR", "create epoll readd fd error:24,Too many open files"));
    EXPECT_EQ(-1, loop.epoll_init());
}

TEST_F(EventLoopTest, TheDescriptorIsClosedWithTheLoop) {
    int fd = -1;
    {
        CEventLoop loop;
        fd = loop.m_epollFd;
    }

    EXPECT_EQ(-1, close(fd));
}

TEST_F(EventLoopTest, AnInterruptedWaitIsNoError) {
    KernelHook hook(kernel::epoll_wait,
                    [](int, epoll_event*, int, int) { return fail_with(EINTR); });
    m_log.clear();

    EXPECT_EQ(0, m_loop.epoll_process_event(500));
    EXPECT_EQ("", m_log.text());
}

TEST_F(EventLoopTest, AFailedWaitIsLogged) {
    CEventLoop loop;
    close(loop.m_epollFd);
    loop.m_epollFd = -1;

    EXPECT_EQ(-1, loop.epoll_process_event(500));
    EXPECT_EQ(1, m_log.count("ERROR", "epoll_wait() fail:Bad file descriptor"));
}

TEST_F(EventLoopTest, ATimeoutIsNoError) {
    EXPECT_EQ(0, m_loop.epoll_process_event(0));
}

TEST_F(EventLoopTest, AnEndlessWaitThatEndsIsLogged) {
    KernelHook hook(kernel::epoll_wait, [](int, epoll_event*, int, int) {
        errno = 0;
        return 0;
    });

    EXPECT_EQ(-1, m_loop.epoll_process_event(-1));
    EXPECT_EQ(1, m_log.count("ERROR", "epoll_wait() should block,but return,error:Success"));
}

TEST_F(EventLoopTest, ARoundTakesUpTo512RecordsWithTheGivenTimeout) {
    std::vector<int> asked;
    KernelHook hook(kernel::epoll_wait, [&](int fd, epoll_event*, int count, int timeoutMs) {
        asked = {fd, count, timeoutMs};
        return 0;
    });

    EXPECT_EQ(0, m_loop.epoll_process_event(123));
    EXPECT_EQ((std::vector<int>{m_loop.m_epollFd, 512, 123}), asked);
}

TEST_F(EventLoopTest, EventsChooseTheHandlers) {
    struct Row {
        unsigned int events;
        Names calls;
    };
    Row const rows[] = {
        {EPOLLIN, {"read"}},
        {EPOLLOUT, {"write"}},
        {EPOLLIN | EPOLLOUT, {"read", "write"}},
        {EPOLLOUT | EPOLLHUP, {}},
        {EPOLLOUT | EPOLLERR, {}},
        {EPOLLOUT | EPOLLRDHUP, {}},
        {EPOLLIN | EPOLLHUP, {"read"}},
        {EPOLLIN | EPOLLOUT | EPOLLRDHUP, {"read"}},
        {EPOLLHUP, {}},
        {EPOLLRDHUP, {}},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.events);
        m_server.m_calls.clear();

        EXPECT_EQ(0, report(row.events));
        EXPECT_EQ(row.calls, m_server.m_calls);
    }
}

TEST_F(EventLoopTest, AWriteHandlerFollowsAReadHandlerThatGaveTheRecordUp) {
    m_server.m_closeOnRead = true;

    report(EPOLLIN | EPOLLOUT);
    EXPECT_EQ((Names{"read", "write"}), m_server.m_calls);
}

TEST_F(EventLoopTest, ARecordWithoutHandlersOrServerIsLeftAlone) {
    m_conn.m_readHandler = nullptr;
    m_conn.m_writeHandler = nullptr;
    EXPECT_EQ(0, report(EPOLLIN | EPOLLOUT));

    m_conn.SetSockServer(nullptr);
    EXPECT_EQ(0, report(EPOLLIN | EPOLLOUT));
    EXPECT_EQ(Names{}, m_server.m_calls);
}

TEST_F(EventLoopTest, InterestChangesFollowOperationAndFlag) {
    struct Row {
        unsigned int op;
        unsigned int events;
        int flag;
        unsigned int passed;
        unsigned int saved;
    };
    // The mask saved before each row is 0x2001.
    Row const rows[] = {
        {1, 0x4, 0, 0x4, 0x4},       {1, 0x4, 1, 0x4, 0x4},       {3, 0x4, 0, 0x2005, 0x2005},
        {3, 0x1, 1, 0x2000, 0x2000}, {3, 0x4, 1, 0x2001, 0x2001}, {3, 0x4, 2, 0x4, 0x4},
        {3, 0x4, -1, 0x4, 0x4},      {2, 0x4, 0, 0, 0x2001},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(testing::Message() << row.op << "," << row.events << "," << row.flag);
        m_conn.m_events = 0x2001;
        int op = 0;
        int fd = 0;
        epoll_event passed{};
        KernelHook hook(kernel::epoll_ctl, [&](int, int o, int f, epoll_event* event) {
            op = o;
            fd = f;
            passed = *event;
            return 0;
        });

        EXPECT_EQ(0, m_loop.epoll_oper_event(55, row.op, row.events, row.flag, &m_conn));
        EXPECT_EQ(static_cast<int>(row.op), op);
        EXPECT_EQ(55, fd);
        EXPECT_EQ(row.passed, static_cast<unsigned int>(passed.events));
        EXPECT_EQ(&m_conn, passed.data.ptr);
        EXPECT_EQ(row.saved, m_conn.m_events);
    }
}

TEST_F(EventLoopTest, AnUnknownOperationCallsNothing) {
    int calls = 0;
    KernelHook hook(kernel::epoll_ctl, [&](int, int, int, epoll_event*) { return ++calls; });
    m_conn.m_events = 0x2001;

    EXPECT_EQ(0, m_loop.epoll_oper_event(55, 0, 4, 0, &m_conn));
    EXPECT_EQ(0, m_loop.epoll_oper_event(55, 4, 4, 0, &m_conn));
    EXPECT_EQ(0, calls);
    EXPECT_EQ(0x2001u, m_conn.m_events);
}

TEST_F(EventLoopTest, WriteInterestIsAddedAndRemovedBitByBit) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    EXPECT_EQ(0, m_loop.epoll_oper_event(pair[0], EPOLL_CTL_ADD, 0x2001, 0, &m_conn));

    EXPECT_EQ(0, m_loop.epoll_oper_event(pair[0], EPOLL_CTL_MOD, 4, 0, &m_conn));
    EXPECT_EQ(0x2005u, m_conn.m_events);
    EXPECT_EQ(0, m_loop.epoll_oper_event(pair[0], EPOLL_CTL_MOD, 4, 1, &m_conn));
    EXPECT_EQ(0x2001u, m_conn.m_events);
    EXPECT_EQ(0, m_loop.epoll_oper_event(pair[0], EPOLL_CTL_DEL, 4, 1, &m_conn));
    EXPECT_EQ(0x2001u, m_conn.m_events);
    close(pair[0]);
    close(pair[1]);
}

TEST_F(EventLoopTest, KeepsTheMaskOfAFailedInterestChange) {
    m_conn.m_events = 0x2001;

    EXPECT_EQ(-1, m_loop.epoll_oper_event(-1, EPOLL_CTL_MOD, 4, 0, &m_conn));
    EXPECT_EQ(0x2005u, m_conn.m_events);
    EXPECT_EQ(1, m_log.count("ERROR", "epoll_ctl(-1,3,4,0)fail,error:9,Bad file descriptor"));
}

TEST_F(EventLoopTest, ListeningForANullServerRegistersNothing) {
    int const total = utility::instance<CSockConnPool>().m_nTotal;

    EXPECT_EQ(-1, m_loop.add_listen_event(nullptr, &ISocketServer::sock_event_accept));
    EXPECT_EQ(total, utility::instance<CSockConnPool>().m_nTotal);
}

TEST_F(EventLoopTest, AListeningSocketGetsARecordWithTheReadHandlerAlone) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    m_server.m_listenSock = pair[0];

    EXPECT_EQ(0, m_loop.add_listen_event(&m_server, &ISocketServer::sock_event_accept));
    CSocketConnection* const conn = utility::instance<CSockConnPool>().m_listAll.back();
    EXPECT_EQ(pair[0], conn->m_fd);
    EXPECT_EQ(&m_server, conn->m_pServer);
    EXPECT_TRUE(conn->m_readHandler == &ISocketServer::sock_event_accept);
    EXPECT_TRUE(conn->m_writeHandler == nullptr);
    EXPECT_EQ(nullptr, conn->m_pEventLoop.load());
    EXPECT_EQ(0x2001u, conn->m_events);
    ASSERT_EQ(1, write(pair[1], "x", 1));
    EXPECT_EQ(0, m_loop.epoll_process_event(0));
    EXPECT_EQ(1, m_server.m_accepts);
    close(pair[0]);
    close(pair[1]);
}

TEST_F(EventLoopTest, KeepsTheRecordOfASocketThatCannotListen) {
    auto& pool = utility::instance<CSockConnPool>();
    pool.init_connections(1);

    EXPECT_EQ(-1, m_loop.add_listen_event(&m_server, &ISocketServer::sock_event_accept));
    EXPECT_EQ(1, m_log.count("ERROR", "epoll_ctl(-1,1,8193,0)fail,error:9,Bad file descriptor"));
    EXPECT_EQ(0, pool.m_nFree);
    EXPECT_EQ(0, pool.m_nRecy);
}

// What CreateRealtimeThread asks the C library for.
struct ThreadWish {
    Names steps;
    int policy = -1;
    int priority = -1;
    int inherit = -1;
    int detach = -1;
    size_t stack = 0;
};

ThreadWish wish_for(CEventLoop& loop, unsigned int priority) {
    ThreadWish wish;
    KernelHook init(kernel::pthread_attr_init, [&](pthread_attr_t* attr) {
        wish.steps.push_back("init");
        return kernel::pthread_attr_init.real(attr);
    });
    KernelHook inherit(kernel::pthread_attr_setinheritsched, [&](pthread_attr_t* attr, int value) {
        wish.steps.push_back("inheritsched");
        return kernel::pthread_attr_setinheritsched.real(attr, value);
    });
    KernelHook detach(kernel::pthread_attr_setdetachstate, [&](pthread_attr_t* attr, int value) {
        wish.steps.push_back("detachstate");
        return kernel::pthread_attr_setdetachstate.real(attr, value);
    });
    KernelHook param(kernel::pthread_attr_setschedparam,
                     [&](pthread_attr_t* attr, sched_param const* value) {
                         wish.steps.push_back("param " + std::to_string(value->sched_priority));
                         return kernel::pthread_attr_setschedparam.real(attr, value);
                     });
    KernelHook policy(kernel::pthread_attr_setschedpolicy, [&](pthread_attr_t* attr, int value) {
        wish.steps.push_back("policy");
        return kernel::pthread_attr_setschedpolicy.real(attr, value);
    });
    KernelHook stack(kernel::pthread_attr_setstacksize, [&](pthread_attr_t* attr, size_t size) {
        wish.steps.push_back("stacksize");
        return kernel::pthread_attr_setstacksize.real(attr, size);
    });
    KernelHook create(kernel::pthread_create,
                      [&](pthread_t* thread, pthread_attr_t const* attr, void* (*)(void*), void*) {
                          wish.steps.push_back("create");
                          sched_param value{};
                          pthread_attr_getschedpolicy(attr, &wish.policy);
                          pthread_attr_getschedparam(attr, &value);
                          wish.priority = value.sched_priority;
                          pthread_attr_getinheritsched(attr, &wish.inherit);
                          pthread_attr_getdetachstate(attr, &wish.detach);
                          pthread_attr_getstacksize(attr, &wish.stack);
                          *thread = 4711;
                          return 0;
                      });
    KernelHook destroy(kernel::pthread_attr_destroy, [&](pthread_attr_t* attr) {
        wish.steps.push_back("destroy");
        return kernel::pthread_attr_destroy.real(attr);
    });
    unsigned long thread = 0;
    EXPECT_EQ(0,
              loop.CreateRealtimeThread(&thread, CEventLoop::SocketEpollThread, &loop, priority));
    EXPECT_EQ(4711u, thread);
    return wish;
}

TEST_F(EventLoopTest, PriorityChoosesPolicyAndIsCutAt99) {
    struct Row {
        unsigned int priority;
        int policy;
        int expected;
    };
    Row const rows[] = {
        {0, SCHED_OTHER, 0},  {1, SCHED_FIFO, 1},    {50, SCHED_FIFO, 50},
        {99, SCHED_FIFO, 99}, {100, SCHED_FIFO, 99}, {150, SCHED_FIFO, 99},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.priority);

        ThreadWish const wish = wish_for(m_loop, row.priority);
        EXPECT_EQ(row.policy, wish.policy);
        EXPECT_EQ(row.expected, wish.priority);
        EXPECT_EQ(PTHREAD_EXPLICIT_SCHED, wish.inherit);
        EXPECT_EQ(PTHREAD_CREATE_JOINABLE, wish.detach);
        EXPECT_EQ(4194304u, wish.stack);
    }
}

TEST_F(EventLoopTest, TheThreadsAttributesAreSetInOrderWithThePriorityTwice) {
    EXPECT_EQ((Names{"init", "inheritsched", "detachstate", "param 99", "policy", "param 99",
                     "stacksize", "create", "destroy"}),
              wish_for(m_loop, 150).steps);
}

TEST_F(EventLoopTest, ARefusedThreadIsLoggedAndLeavesNoId) {
    KernelHook hook(kernel::pthread_create,
                    [](pthread_t* thread, pthread_attr_t const*, void* (*)(void*), void*) {
                        *thread = 4711;  // as the C library does
                        return EPERM;
                    });

    EXPECT_EQ(-1, m_loop.event_start(50));
    EXPECT_EQ(0u, m_loop.m_thread);
    EXPECT_EQ(1, m_log.count("ERROR",
                             "pthread_create realtime thread fail,error:1,Operation not "
                             "permitted"));
    m_loop.event_stop();  // has nothing to join
}

TEST_F(EventLoopTest, TheThreadIsNamedAndNumbered) {
    CEventLoop::m_nNo = 7;
    std::string name;
    KernelHook hook(kernel::pthread_setname_np, [&](pthread_t thread, char const* text) {
        name = text;
        return kernel::pthread_setname_np.real(thread, text);
    });
    m_loop.m_bStop = true;

    EXPECT_EQ(nullptr, CEventLoop::SocketEpollThread(&m_loop));
    EXPECT_EQ("kypepoll-7", name);
    EXPECT_EQ(8, CEventLoop::m_nNo);
}

TEST_F(EventLoopTest, ALongThreadNameIsCutAtFifteenCharacters) {
    CEventLoop::m_nNo = 1234567890;
    std::string name;
    KernelHook hook(kernel::pthread_setname_np, [&](pthread_t, char const* text) {
        name = text;
        return 0;
    });
    m_loop.m_bStop = true;

    CEventLoop::SocketEpollThread(&m_loop);
    EXPECT_EQ("kypepoll-123456", name);
}

TEST_F(EventLoopTest, ARefusedThreadNameIsLoggedAndNotFatal) {
    KernelHook hook(kernel::pthread_setname_np, [](pthread_t, char const*) { return ERANGE; });
    m_loop.m_bStop = true;

    EXPECT_EQ(nullptr, CEventLoop::SocketEpollThread(&m_loop));
    EXPECT_EQ(1, m_log.count("ERROR", "pthread_setname_np fail:,34,Numerical result out of range"));
}

TEST_F(EventLoopTest, ALoopWaitsHalfASecondAndRecyclesAfterEveryRoundIfItIsTheFirst) {
    for (bool first : {false, true}) {
        SCOPED_TRACE(first);
        auto& pool = utility::instance<CSockConnPool>();
        pool.m_nRecyDelay = 0;
        pool.close_connections(pool.get_connection(-1));
        int timeout = 0;
        KernelHook hook(kernel::epoll_wait, [&](int, epoll_event*, int, int timeoutMs) {
            timeout = timeoutMs;
            m_loop.m_bStop = true;
            return fail_with(EBADF);
        });
        m_loop.m_bStop = false;
        m_loop.m_bRecycle = first;

        m_loop.event_run();
        EXPECT_EQ(500, timeout);
        EXPECT_EQ(first ? 0 : 1, pool.m_nRecy);
    }
}

TEST_F(EventLoopTest, AStoppedLoopHasJoinedItsThread) {
    ASSERT_EQ(0, m_loop.event_start(0));
    ASSERT_NE(0u, m_loop.m_thread);

    m_loop.event_stop();
    EXPECT_EQ(0u, m_loop.m_thread);
    EXPECT_EQ(1, m_log.count("DEBUG", "eventloop epoll fd:" + std::to_string(m_loop.m_epollFd) +
                                          " thread stop success"));
}

TEST_F(EventLoopTest, StoppingTwiceDoesNoHarm) {
    ASSERT_EQ(0, m_loop.event_start(0));

    m_loop.event_stop();
    m_loop.event_stop();
    EXPECT_TRUE(m_loop.m_bStop);
}

class EventManageTest : public testing::Test {
protected:
    // The place of the next loop in the vector.
    long next_loop() {
        CEventLoop* const loop = m_manage.get_event_loop();
        auto const& loops = m_manage.m_vecLoops;
        return std::find(loops.begin(), loops.end(), loop) - loops.begin();
    }

    std::vector<long> next_loops(int count) {
        std::vector<long> result;
        for (int i = 0; i < count; ++i) result.push_back(next_loop());
        return result;
    }

    // Loops without threads, as many as a test wants.
    void add_loops(unsigned int count) {
        m_manage.m_nLoopCount = count;
        for (unsigned int i = 0; i < count; ++i) m_manage.m_vecLoops.push_back(new CEventLoop());
    }

    LogCapture m_log;
    NotingServer m_server;
    CEventManage m_manage;
};

TEST_F(EventManageTest, WithoutLoopsNothingCanBeHad) {
    EXPECT_EQ(3u, m_manage.m_nLoopCount);
    EXPECT_EQ(0u, m_manage.m_nNextLoop);

    EXPECT_EQ(nullptr, m_manage.get_event_loop());
    EXPECT_EQ(-1, m_manage.add_listen_event(&m_server, &ISocketServer::sock_event_accept));
}

TEST_F(EventManageTest, ThreeLoopsAreDealtOneTwoOneTwo) {
    add_loops(3);

    EXPECT_EQ((std::vector<long>{1, 2, 1, 2}), next_loops(4));
}

TEST_F(EventManageTest, FourLoopsAreDealtOneTwoThreeOneTwoThree) {
    add_loops(4);

    EXPECT_EQ((std::vector<long>{1, 2, 3, 1, 2, 3}), next_loops(6));
}

TEST_F(EventManageTest, TheCounterWrapsAround) {
    add_loops(3);
    m_manage.m_nNextLoop = 0xffffffff;

    EXPECT_EQ((std::vector<long>{1, 2}), next_loops(2));
    EXPECT_EQ(2u, m_manage.m_nNextLoop);
}

TEST_F(EventManageTest, KeepsSearchingForEverWithExactlyOneLoop) {
    add_loops(1);

    // A timer ends the process that would otherwise count for ever.
    EXPECT_EXIT(
        {
            alarm(1);
            m_manage.get_event_loop();
        },
        testing::KilledBySignal(SIGALRM), "");
}

TEST_F(EventManageTest, InitStartsTheLoopsAndTheFirstRecycles) {
    EXPECT_EQ(0, m_manage.init_event_loop(3, 0));

    ASSERT_EQ(3u, m_manage.m_vecLoops.size());
    EXPECT_EQ(3u, m_manage.m_nLoopCount);
    EXPECT_TRUE(m_manage.m_vecLoops[0]->m_bRecycle);
    EXPECT_FALSE(m_manage.m_vecLoops[1]->m_bRecycle);
    EXPECT_FALSE(m_manage.m_vecLoops[2]->m_bRecycle);
    for (CEventLoop* loop : m_manage.m_vecLoops) EXPECT_NE(0u, loop->m_thread);
}

TEST_F(EventManageTest, InitWithoutLoopsCreatesNothing) {
    EXPECT_EQ(0, m_manage.init_event_loop(0, 0));
    EXPECT_EQ(0u, m_manage.m_nLoopCount);
    EXPECT_TRUE(m_manage.m_vecLoops.empty());
}

TEST_F(EventManageTest, ALoopWhoseThreadIsRefusedStaysInTheVector) {
    KernelHook hook(kernel::pthread_create, [](pthread_t*, pthread_attr_t const*, void* (*)(void*),
                                               void*) { return EPERM; });

    EXPECT_EQ(0, m_manage.init_event_loop(2, 10));
    EXPECT_EQ(2u, m_manage.m_vecLoops.size());
    EXPECT_EQ(2, m_log.count("ERROR",
                             "pthread_create realtime thread fail,error:1,Operation not "
                             "permitted"));
}

TEST_F(EventManageTest, UninitStopsAllLoopsAndMayBeCalledAgain) {
    m_manage.init_event_loop(2, 0);

    EXPECT_EQ(0, m_manage.uninit_event_loop());
    EXPECT_TRUE(m_manage.m_vecLoops.empty());
    EXPECT_EQ(0u, m_manage.m_nLoopCount);
    EXPECT_EQ(2, m_log.count_containing("thread stop success"));
    EXPECT_EQ(0, m_manage.uninit_event_loop());
}

TEST_F(EventManageTest, ListeningGoesToTheFirstLoop) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    m_server.m_listenSock = pair[0];
    add_loops(2);

    EXPECT_EQ(0, m_manage.add_listen_event(&m_server, &ISocketServer::sock_event_accept));
    ASSERT_EQ(1, write(pair[1], "x", 1));
    m_manage.m_vecLoops[1]->epoll_process_event(0);
    EXPECT_EQ(0, m_server.m_accepts);
    m_manage.m_vecLoops[0]->epoll_process_event(0);
    EXPECT_EQ(1, m_server.m_accepts);
    close(pair[0]);
    close(pair[1]);
}

TEST_F(EventManageTest, ARunningLoopServesWhatIsReady) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    m_server.m_listenSock = pair[0];
    m_manage.init_event_loop(2, 0);

    EXPECT_EQ(0, m_manage.add_listen_event(&m_server, &ISocketServer::sock_event_accept));
    ASSERT_EQ(1, write(pair[1], "x", 1));
    EXPECT_TRUE(eventually([&] { return m_server.m_accepts > 0; }));
    m_manage.uninit_event_loop();
    close(pair[0]);
    close(pair[1]);
}

}  // namespace
