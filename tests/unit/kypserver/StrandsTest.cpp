#include "kypserver/Strands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/FrameHandler.h"

namespace kypserver {
namespace {

using testing::ElementsAre;

constexpr unsigned short kOrdered = 103;
constexpr unsigned short kAlsoOrdered = 600;
constexpr unsigned short kUnordered = 100;

// Writes down what it is given; every message carries one letter.
class Recorder : public IFrameHandler {
public:
    void handle(CMsgHeader& msg, _KypHeader const& /*head*/, _AoEHeader const& /*aoe*/) override {
        m_seen += static_cast<char>(*msg.GetVaildData());
        if (m_meanwhile) m_meanwhile();
    }

    std::string m_seen;
    std::function<void()> m_meanwhile;  // runs while a message is served
};

class StrandsTest : public testing::Test {
protected:
    StrandsTest() {
        m_strands.order(kOrdered);
        m_strands.order(kAlsoOrdered);
    }

    // The head of a message has come.
    CMsgHeader& expect(char letter, unsigned short port = kOrdered) {
        m_messages.push_back(std::make_unique<CMsgHeader>(MSG_MODE_RECV, MSG_TYPE_STREAM));
        CMsgHeader& msg = *m_messages.back();
        msg.setpBuf(utility::instance<server_bufpool>().get_one_buf(128), 48);
        *msg.GetVaildData() = static_cast<unsigned char>(letter);
        msg.addRecvBufSize(1);
        msg.m_pConn = &m_conn;
        m_strands.expect(&msg, {0, 1, port, 1});
        return msg;
    }

    // A worker has got the message.
    void bring(CMsgHeader& msg) { m_strands.handle(msg, {}, {}, m_recorder); }

    CSocketConnection m_conn;
    Recorder m_recorder;
    CStrands m_strands;
    std::deque<std::unique_ptr<CMsgHeader>> m_messages;
};

TEST_F(StrandsTest, AMessageInItsTurnIsServedAtOnce) {
    CMsgHeader& a = expect('a');
    bring(a);
    EXPECT_EQ("a", m_recorder.m_seen);

    CMsgHeader& b = expect('b');
    bring(b);
    EXPECT_EQ("ab", m_recorder.m_seen);
    EXPECT_EQ(0U, m_strands.waiting(&m_conn));
}

TEST_F(StrandsTest, AMessageThatComesTooEarlyWaitsWithoutItsWorker) {
    CMsgHeader& a = expect('a');
    CMsgHeader& b = expect('b');
    CMsgHeader& c = expect('c');

    bring(c);
    bring(b);
    EXPECT_EQ("", m_recorder.m_seen);
    EXPECT_EQ(nullptr, b.getpBuf());

    bring(a);
    EXPECT_EQ("abc", m_recorder.m_seen);
    EXPECT_EQ(0U, m_strands.waiting(&m_conn));
}

TEST_F(StrandsTest, AMessageThatComesWhileAnotherIsServedIsServedByTheSameWorker) {
    CMsgHeader& a = expect('a');
    CMsgHeader& b = expect('b');
    m_recorder.m_meanwhile = [&] {
        m_recorder.m_meanwhile = nullptr;
        bring(b);
        EXPECT_EQ("a", m_recorder.m_seen);
    };

    bring(a);

    EXPECT_EQ("ab", m_recorder.m_seen);
}

TEST_F(StrandsTest, AllOrderedPortsOfAConnectionAreOneStrand) {
    CMsgHeader& a = expect('a', kAlsoOrdered);
    CMsgHeader& b = expect('b', kOrdered);

    bring(b);
    bring(a);

    EXPECT_EQ("ab", m_recorder.m_seen);
}

TEST_F(StrandsTest, OtherPortsHaveNoPlace) {
    expect('a', kUnordered);
    expect('b', 4097);
    expect('c', 65535);
    CMsgHeader& d = expect('d');

    bring(d);

    EXPECT_EQ("d", m_recorder.m_seen);
}

TEST_F(StrandsTest, OneConnectionDoesNotHoldUpAnother) {
    expect('a');
    CSocketConnection other;
    CMsgHeader& b = expect('b', kUnordered);
    b.m_pConn = &other;
    m_strands.expect(&b, {0, 1, kOrdered, 1});

    bring(b);

    EXPECT_EQ("b", m_recorder.m_seen);
}

TEST_F(StrandsTest, ADatagramIsServedAtOnce) {
    expect('a');
    CMsgHeader& b = expect('b', kUnordered);
    b.m_enType = MSG_TYPE_DATAGRAM;

    bring(b);

    EXPECT_EQ("b", m_recorder.m_seen);
}

TEST_F(StrandsTest, HoldsAsManyAsAreSent) {
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        expected += static_cast<char>('a' + i % 26);
        expect(expected.back());
    }
    EXPECT_EQ(1000U, m_strands.waiting(&m_conn));

    for (size_t i = m_messages.size(); i-- > 0;) bring(*m_messages[i]);

    EXPECT_EQ(expected, m_recorder.m_seen);
}

TEST_F(StrandsTest, NothingOfAConnectionThatHasEndedIsServed) {
    CMsgHeader& a = expect('a');
    CMsgHeader& b = expect('b');
    bring(b);

    m_strands.end(&m_conn);
    bring(a);

    EXPECT_EQ("", m_recorder.m_seen);
    EXPECT_EQ(0U, m_strands.waiting(&m_conn));
}

TEST_F(StrandsTest, TheNextClientOfARecordHasAStrandOfItsOwn) {
    CMsgHeader& old = expect('o');
    expect('p');
    m_strands.end(&m_conn);
    CMsgHeader& a = expect('a');
    CMsgHeader& b = expect('b');

    bring(old);
    bring(b);
    bring(a);

    EXPECT_EQ("ab", m_recorder.m_seen);
}

TEST_F(StrandsTest, AConnectionMayEndAndBeginWhileItIsServed) {
    CMsgHeader& old = expect('o');
    expect('p');
    m_recorder.m_meanwhile = [&] {
        m_recorder.m_meanwhile = nullptr;
        m_strands.end(&m_conn);
        bring(expect('a'));
        EXPECT_EQ("o", m_recorder.m_seen);
    };

    bring(old);
    EXPECT_EQ("oa", m_recorder.m_seen);

    bring(expect('b'));
    EXPECT_EQ("oab", m_recorder.m_seen);
}

TEST_F(StrandsTest, ManyWorkersKeepTheOrder) {
    constexpr int kMessages = 5000;
    std::string expected;
    for (int i = 0; i < kMessages; ++i) {
        expected += static_cast<char>('a' + i % 26);
        expect(expected.back());
    }
    std::atomic<size_t> next{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i) {
        workers.emplace_back([&] {
            for (size_t at = next++; at < m_messages.size(); at = next++) bring(*m_messages[at]);
        });
    }
    for (std::thread& worker : workers) worker.join();

    EXPECT_TRUE(expected == m_recorder.m_seen);
    EXPECT_EQ(0U, m_strands.waiting(&m_conn));
}

}  // namespace
}  // namespace kypserver
