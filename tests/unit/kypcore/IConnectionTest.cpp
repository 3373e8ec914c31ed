#include "kypcore/IConnection.h"

#include <gtest/gtest.h>

namespace {

class FakeConnection : public IConnection {
public:
    int send_message(char const*, int) override { return 0; }
    int send_message(_AoEHeader const&, unsigned short, char const*, int, int) override {
        return 0;
    }
    int send_message(pbuf*, _AoEHeader const&) override { return 0; }
    int get_fd() override { return 7; }
};

class Observer : public IObserverConn {
public:
    Observer(std::string name, std::vector<std::string>& told) : m_name(name), m_told(told) {}
    void conn_close(IConnection* conn) override {
        m_told.push_back(m_name);
        m_seen = conn;
        if (m_attachNext != nullptr) conn->attach(m_attachNext);
        m_attachNext = nullptr;
    }

    std::string m_name;
    std::vector<std::string>& m_told;
    IConnection* m_seen = nullptr;
    IObserverConn* m_attachNext = nullptr;
};

class IConnectionTest : public testing::Test {
protected:
    using Names = std::vector<std::string>;

    Names m_told;
    Observer m_a{"a", m_told};
    Observer m_b{"b", m_told};
    FakeConnection m_conn;
};

TEST_F(IConnectionTest, NotifyTellsTheObserversInTheOrderOfAttachment) {
    EXPECT_EQ(0, m_conn.attach(&m_b));
    EXPECT_EQ(0, m_conn.attach(&m_a));

    EXPECT_EQ(0, m_conn.notify());
    EXPECT_EQ((Names{"b", "a"}), m_told);
}

TEST_F(IConnectionTest, AnObserverIsGivenTheConnectionThatCloses) {
    m_conn.attach(&m_a);

    m_conn.notify();
    EXPECT_EQ(&m_conn, m_a.m_seen);
}

TEST_F(IConnectionTest, AnObserverAttachedTwiceIsToldTwice) {
    m_conn.attach(&m_a);
    m_conn.attach(&m_a);

    m_conn.notify();
    EXPECT_EQ((Names{"a", "a"}), m_told);
}

TEST_F(IConnectionTest, DetachRemovesTheFirstOccurrenceAlone) {
    m_conn.attach(&m_a);
    m_conn.attach(&m_b);
    m_conn.attach(&m_a);

    EXPECT_EQ(0, m_conn.detach(&m_a));
    m_conn.notify();
    EXPECT_EQ((Names{"b", "a"}), m_told);
}

TEST_F(IConnectionTest, DetachOfAnUnknownObserverReturnsZeroAndChangesNothing) {
    m_conn.attach(&m_a);

    EXPECT_EQ(0, m_conn.detach(&m_b));
    m_conn.notify();
    EXPECT_EQ((Names{"a"}), m_told);
}

TEST_F(IConnectionTest, DetachAllForgetsEveryObserver) {
    m_conn.attach(&m_a);
    m_conn.attach(&m_b);

    m_conn.detachAll();
    m_conn.notify();
    EXPECT_EQ((Names{}), m_told);
}

TEST_F(IConnectionTest, AnObserverAttachedDuringNotifyIsToldInTheSameRound) {
    m_a.m_attachNext = &m_b;
    m_conn.attach(&m_a);

    m_conn.notify();
    EXPECT_EQ((Names{"a", "b"}), m_told);
}

TEST_F(IConnectionTest, NotifyWithoutObserversReturnsZero) {
    EXPECT_EQ(0, m_conn.notify());
}

}  // namespace
