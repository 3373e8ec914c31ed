#include "kypcore/ThreadPool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/router/RouteManage.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

constexpr unsigned short kPort = 600;

// A gate in the route: requests wait in it while it is shut.
class Gate {
public:
    void shut() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = false;
    }
    void open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void pass(uint32_t id) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_arrived.push_back(id);
        m_changed.wait(lock, [this] { return m_open; });
    }
    std::vector<uint32_t> arrived() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_arrived;
    }
    bool wait_for_arrivals(size_t count) {
        return eventually([&] { return arrived().size() >= count; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = true;
    std::vector<uint32_t> m_arrived;
};

void pass_gate(unsigned short, char const*, unsigned int, _msg_request request, void* ctx) {
    static_cast<Gate*>(ctx)->pass(request.invokeId);
}

class ThreadPoolTest : public testing::Test {
protected:
    ThreadPoolTest() {
        CThreadPool::m_shutdown = false;  // an earlier test of this process has stopped its pool
        auto& routes = utility::instance<RouteManage>();
        routes.delPortRoute(kPort);
        routes.addSvrPortRoute(kPort, pass_gate, &m_gate);
        SetLogLevel(LOG_LEVEL_DEBUG);
    }

    ~ThreadPoolTest() override {
        m_gate.open();
        m_pool.stop();
    }

    CMsgHeader* message(uint32_t id) {
        Bytes const frame = request_frame(kPort, 9, id, 0, 0);
        auto* const msg = new CMsgHeader(MSG_MODE_RECV, MSG_TYPE_STREAM);
        msg->setpBuf(utility::instance<server_bufpool>().get_one_buf(128), 48);
        memcpy(msg->GetVaildData(), frame.data(), frame.size());
        msg->addRecvBufSize(static_cast<int>(frame.size()));
        msg->m_pConn = &m_conn;
        msg->m_nSequence = m_conn.iCurrsequence;
        return msg;
    }

    CSocketConnection m_conn;
    Gate m_gate;
    CThreadPool m_pool;
};

TEST_F(ThreadPoolTest, HasItsFieldsInOrder) {
    auto const offset = [this](void const* field) {
        return static_cast<char const*>(field) - reinterpret_cast<char const*>(&m_pool);
    };

    EXPECT_EQ(0, offset(&m_pool.m_nThreadCount));
    EXPECT_EQ(4, offset(&m_pool.m_nQueueCount));
    EXPECT_EQ(8, offset(&m_pool.m_tLastBusyLog));
    EXPECT_EQ(16, offset(&m_pool.m_nRunning));
    EXPECT_EQ(24, offset(&m_pool.m_msgRecvQueue));
    EXPECT_EQ(48, offset(&m_pool.m_vecThreads));
    EXPECT_EQ(72U, sizeof(CThreadPool));
    EXPECT_EQ(24U, sizeof(CThreadPool::ThreadItem));
}

TEST_F(ThreadPoolTest, StartsNothingBelowOne) {
    LogCapture log;

    EXPECT_EQ(0, m_pool.start(0));
    EXPECT_EQ(0, m_pool.start(-3));

    EXPECT_TRUE(m_pool.m_vecThreads.empty());
    EXPECT_EQ(-3, m_pool.m_nThreadCount);
    EXPECT_EQ(1, log.count("DEBUG", "ThreadPool Start 0 Thread"));
    EXPECT_EQ(1, log.count("DEBUG", "ThreadPool Start -3 Thread"));
}

TEST_F(ThreadPoolTest, StartsTheWorkersAskedFor) {
    EXPECT_EQ(0, m_pool.start(4));

    ASSERT_EQ(4U, m_pool.m_vecThreads.size());
    EXPECT_EQ(4, m_pool.m_nThreadCount);
    for (CThreadPool::ThreadItem* item : m_pool.m_vecThreads) EXPECT_EQ(&m_pool, item->m_pPool);
}

TEST_F(ThreadPoolTest, NamesItsWorkers) {
    m_pool.start(1);

    EXPECT_TRUE(eventually([&] {
        char name[16] = {};
        pthread_getname_np(m_pool.m_vecThreads[0]->m_thread, name, sizeof name);
        return std::string("workthread") == name;
    }));
}

TEST_F(ThreadPoolTest, AWorkerMarksItsFirstWait) {
    m_pool.start(1);

    EXPECT_TRUE(eventually([&] {
        pthread_mutex_lock(&CThreadPool::m_pthreadMutex);
        bool const waited = m_pool.m_vecThreads[0]->m_bWaited;
        pthread_mutex_unlock(&CThreadPool::m_pthreadMutex);
        return waited;
    }));
}

TEST_F(ThreadPoolTest, AWorkerThatCannotBeCreatedEndsTheCreation) {
    pthread_attr_t usual;
    pthread_getattr_default_np(&usual);
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, size_t{1} << 47);
    pthread_setattr_default_np(&huge);
    LogCapture log;

    EXPECT_EQ(0, m_pool.start(3));
    pthread_setattr_default_np(&usual);

    EXPECT_EQ(
        1, log.count("ERROR", "CThreadPool::Create thread:0 fail,error:" + std::to_string(EAGAIN)));
    EXPECT_EQ(1U, m_pool.m_vecThreads.size());
    EXPECT_EQ(3, m_pool.m_nThreadCount);
    EXPECT_EQ(0, m_pool.stop());
}

TEST_F(ThreadPoolTest, ServesWhatIsPutIn) {
    m_pool.start(2);

    for (uint32_t id = 1; id <= 50; ++id) EXPECT_EQ(0, m_pool.putq(message(id)));

    EXPECT_TRUE(m_gate.wait_for_arrivals(50));
    EXPECT_TRUE(eventually([&] { return m_pool.m_nRunning == 0; }));
}

TEST_F(ThreadPoolTest, OneWorkerServesInTheOrderOfArrival) {
    for (uint32_t id = 1; id <= 20; ++id) m_pool.putq(message(id));
    EXPECT_EQ(20, m_pool.m_nQueueCount);
    EXPECT_EQ(20U, m_pool.m_msgRecvQueue.size());

    m_pool.start(1);

    ASSERT_TRUE(m_gate.wait_for_arrivals(20));
    std::vector<uint32_t> const arrived = m_gate.arrived();
    for (uint32_t id = 1; id <= 20; ++id) EXPECT_EQ(id, arrived[id - 1]);
}

TEST_F(ThreadPoolTest, CountsTheWorkersInside) {
    m_gate.shut();
    m_pool.start(3);

    m_pool.putq(message(1));
    m_pool.putq(message(2));

    ASSERT_TRUE(m_gate.wait_for_arrivals(2));
    EXPECT_EQ(2, m_pool.m_nRunning);
}

TEST_F(ThreadPoolTest, TwoMessagesOfOneConnectionAreServedAtTheSameTime) {
    m_gate.shut();
    m_pool.start(2);

    m_pool.putq(message(1));
    m_pool.putq(message(2));

    EXPECT_TRUE(m_gate.wait_for_arrivals(2));
}

TEST_F(ThreadPoolTest, GivesAFreshMessageToItsRoute) {
    CMsgHeader* const msg = message(7);

    EXPECT_EQ(0, m_pool.dealMessage(msg));

    EXPECT_EQ(std::vector<uint32_t>{7}, m_gate.arrived());
    delete msg;
}

TEST_F(ThreadPoolTest, DropsAMessageWhoseConnectionHasGone) {
    m_conn.iCurrsequence = 5;
    CMsgHeader* const msg = message(7);
    m_conn.iCurrsequence = 30;

    EXPECT_EQ(-1, m_pool.dealMessage(msg));

    EXPECT_TRUE(m_gate.arrived().empty());
    delete msg;
}

TEST_F(ThreadPoolTest, KeepsTheSequencesOfAStaleMessageInTheFirstTwoPlaces) {
    m_conn.iCurrsequence = 5;
    CMsgHeader* const msg = message(7);
    m_conn.iCurrsequence = 30;
    LogCapture log;

    m_pool.dealMessage(msg);

    EXPECT_EQ(1, log.count("ERROR", "conn:0x1e currsequence:5!=msg currsequence:0"));
    delete msg;
}

TEST_F(ThreadPoolTest, AWorkerGoesOnAfterAStaleMessage) {
    CMsgHeader* const stale = message(1);
    m_conn.iCurrsequence++;
    m_pool.start(1);

    m_pool.putq(stale);
    m_pool.putq(message(2));

    ASSERT_TRUE(m_gate.wait_for_arrivals(1));
    EXPECT_EQ(std::vector<uint32_t>{2}, m_gate.arrived());
}

TEST_F(ThreadPoolTest, WarnsOnceWhileAllWorkersAreBusy) {
    m_gate.shut();
    m_pool.start(1);
    LogCapture log;  // the worker may be busy with the first one before its notify() looks
    m_pool.putq(message(1));
    ASSERT_TRUE(m_gate.wait_for_arrivals(1));

    for (uint32_t id = 2; id <= 101; ++id) m_pool.putq(message(id));

    EXPECT_EQ(1, log.count("ERROR", "thread pool thread is all busy"));
}

TEST_F(ThreadPoolTest, WarnsAgainAfter31Seconds) {
    m_pool.m_nThreadCount = 0;  // none asked for, none at work: as many as there are
    LogCapture log;

    m_pool.notify();
    m_pool.notify();
    EXPECT_EQ(1, log.count("ERROR", "thread pool thread is all busy"));
    m_pool.m_tLastBusyLog = time(nullptr) - 29;
    m_pool.notify();
    EXPECT_EQ(1, log.count("ERROR", "thread pool thread is all busy"));
    m_pool.m_tLastBusyLog = time(nullptr) - 31;
    m_pool.notify();
    EXPECT_EQ(2, log.count("ERROR", "thread pool thread is all busy"));
}

TEST_F(ThreadPoolTest, DoesNotWarnAgainAfter30Seconds) {
    m_pool.m_nThreadCount = 0;
    long warnings = 0;
    time_t now = 0;
    do {  // once more when the second has changed meanwhile
        LogCapture log;
        now = time(nullptr);
        m_pool.m_tLastBusyLog = now - 30;
        m_pool.notify();
        warnings = log.count("ERROR", "thread pool thread is all busy");
    } while (time(nullptr) != now);

    EXPECT_EQ(0, warnings);
}

TEST_F(ThreadPoolTest, DoesNotWarnWhileAWorkerIsFree) {
    m_gate.shut();
    m_pool.start(2);
    m_pool.putq(message(1));
    ASSERT_TRUE(m_gate.wait_for_arrivals(1));
    LogCapture log;

    EXPECT_EQ(0, m_pool.notify());

    EXPECT_EQ(0, log.count("ERROR", "thread pool thread is all busy"));
}

TEST_F(ThreadPoolTest, KeepsComparingWithTheNumberAskedFor) {
    m_gate.shut();
    m_pool.start(1);
    m_pool.m_nThreadCount = 2;  // as if the second worker could not be created
    m_pool.putq(message(1));
    ASSERT_TRUE(m_gate.wait_for_arrivals(1));
    LogCapture log;

    m_pool.putq(message(2));

    EXPECT_EQ(0, log.count("ERROR", "thread pool thread is all busy"));
}

TEST_F(ThreadPoolTest, StopEndsTheWorkersAndSaysSo) {
    m_pool.start(3);
    LogCapture log;

    EXPECT_EQ(0, m_pool.stop());

    EXPECT_TRUE(m_pool.m_vecThreads.empty());
    EXPECT_TRUE(CThreadPool::m_shutdown);
    EXPECT_EQ(1, log.count("INFO", "work threads ready stop"));
    EXPECT_EQ(1, log.count("INFO", "work threads stop success"));
}

TEST_F(ThreadPoolTest, ASecondStopIsRefused) {
    m_pool.start(1);
    m_pool.stop();
    LogCapture log;

    EXPECT_EQ(-1, m_pool.stop());

    EXPECT_EQ(1, log.count("INFO", "work threads ready stop"));
    EXPECT_EQ(0, log.count("INFO", "work threads stop success"));
}

TEST_F(ThreadPoolTest, LeavesWhatIsQueuedAtTheStop) {
    m_gate.shut();
    m_pool.start(1);
    m_pool.putq(message(1));
    ASSERT_TRUE(m_gate.wait_for_arrivals(1));
    for (uint32_t id = 2; id <= 5; ++id) m_pool.putq(message(id));

    std::thread stopper([&] { m_pool.stop(); });
    ASSERT_TRUE(eventually([] { return CThreadPool::m_shutdown.load(); }));
    m_gate.open();
    stopper.join();

    EXPECT_EQ(std::vector<uint32_t>{1}, m_gate.arrived());
    EXPECT_EQ(4, m_pool.m_nQueueCount);
    EXPECT_EQ(4U, m_pool.m_msgRecvQueue.size());
}

TEST_F(ThreadPoolTest, AMessageAfterTheStopIsKeptUnserved) {
    m_pool.start(1);
    m_pool.stop();

    EXPECT_EQ(0, m_pool.putq(message(1)));

    EXPECT_EQ(1U, m_pool.m_msgRecvQueue.size());
    EXPECT_TRUE(m_gate.arrived().empty());
}

TEST_F(ThreadPoolTest, IsNotRestartable) {
    m_pool.stop();

    EXPECT_EQ(0, m_pool.start(1));
    m_pool.putq(message(1));

    ASSERT_EQ(1U, m_pool.m_vecThreads.size());
    pthread_join(m_pool.m_vecThreads[0]->m_thread, nullptr);  // ends without being told again
    delete m_pool.m_vecThreads[0];
    m_pool.m_vecThreads.clear();
    EXPECT_TRUE(m_gate.arrived().empty());
    EXPECT_EQ(1U, m_pool.m_msgRecvQueue.size());
}

TEST_F(ThreadPoolTest, ClearingDestroysTheQueuedMessages) {
    m_pool.putq(message(1));
    m_pool.putq(message(2));

    m_pool.clearMsgRecvQueue();

    EXPECT_TRUE(m_pool.m_msgRecvQueue.empty());
    EXPECT_EQ(0, m_pool.m_nQueueCount);
}

TEST_F(ThreadPoolTest, AMessageTakesTheQueueNodeOfAnEarlierOne) {
    m_gate.shut();
    m_pool.start(1);
    m_pool.putq(message(1));
    ASSERT_TRUE(m_gate.wait_for_arrivals(1));
    m_pool.putq(message(2));
    pthread_mutex_lock(&CThreadPool::m_pthreadMutex);
    void const* const node = &m_pool.m_msgRecvQueue.front();
    pthread_mutex_unlock(&CThreadPool::m_pthreadMutex);
    m_gate.open();
    ASSERT_TRUE(m_gate.wait_for_arrivals(2));
    ASSERT_TRUE(eventually([&] { return m_pool.m_nRunning == 0; }));

    m_gate.shut();
    m_pool.putq(message(3));
    ASSERT_TRUE(m_gate.wait_for_arrivals(3));
    m_pool.putq(message(4));

    pthread_mutex_lock(&CThreadPool::m_pthreadMutex);
    EXPECT_EQ(node, &m_pool.m_msgRecvQueue.front());
    pthread_mutex_unlock(&CThreadPool::m_pthreadMutex);
}

TEST_F(ThreadPoolTest, ManyProducersLoseNothing) {
    m_pool.start(4);
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < 4; ++p) {
        producers.emplace_back([this, p] {
            for (uint32_t i = 0; i < 250; ++i) m_pool.putq(message(p * 1000 + i));
        });
    }
    for (std::thread& producer : producers) producer.join();

    EXPECT_TRUE(m_gate.wait_for_arrivals(1000));
}

}  // namespace
