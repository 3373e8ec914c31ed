#include "kypcore/SocketConnection.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "CoreFixture.h"
#include "kypcomm/KypStatus.h"

namespace {

// A record whose queue is the test's.
class RecordingConnection : public CSocketConnection {
public:
    int addSendQueue(CMsgHeader* msg) override {
        m_queued.reset(msg);
        return m_answer;
    }

    std::unique_ptr<CMsgHeader> m_queued;
    int m_answer = 0;
};

// Counts what is sent through the connection.
class CountingServer : public ISocketServer {
public:
    int sendproc(CSocketConnection* conn, unsigned char* data, unsigned int size) override {
        m_conn = conn;
        m_data = data;
        return static_cast<int>(size) + 1;
    }

    CSocketConnection* m_conn = nullptr;
    unsigned char* m_data = nullptr;
};

_AoEHeader aoe_of(Bytes const& head) {
    _AoEHeader aoe;
    EXPECT_EQ(sizeof aoe, head.size());
    memcpy(&aoe, head.data(), sizeof aoe);
    return aoe;
}

class SocketConnectionTest : public CoreFixture {
protected:
    int send_text(std::string const& text) {
        return m_conn->send_message(text.data(), static_cast<int>(text.size()));
    }

    static CMsgHeader* message_of(std::string const& text) {
        auto* const msg = new CMsgHeader(MSG_MODE_SEND, MSG_TYPE_STREAM);
        auto& pool = utility::instance<server_bufpool>();
        pool.set_mem_limit(0x40000000);  // new buffers join the pool
        msg->setpBuf(pool.get_one_buf(1000), 0);
        msg->prepend(text.data(), static_cast<int>(text.size()));
        return msg;
    }

    // The buffer that the next user of the class of 1000 bytes would get.
    static pbuf* next_buffer() {
        pbuf* const buf = utility::instance<server_bufpool>().get_one_buf(1000);
        utility::instance<server_bufpool>().put_one_free(buf);
        return buf;
    }
};

TEST(SocketConnectionRecordTest, AFreshRecordHasNoSocketAndWaitsForAHead) {
    CSocketConnection conn;

    EXPECT_EQ(-1, conn.get_fd());
    EXPECT_EQ(0u, conn.iCurrsequence);
    EXPECT_EQ(0, conn.m_nRecvState);
    EXPECT_EQ(8u, conn.m_nRecvRest);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(&conn.m_recvHeader), conn.m_pRecvPos);
    EXPECT_TRUE(conn.m_readHandler == nullptr);
    EXPECT_TRUE(conn.m_writeHandler == nullptr);
    EXPECT_EQ(nullptr, conn.m_pServer);
    EXPECT_EQ(nullptr, conn.m_pEventLoop.load());
}

TEST_F(SocketConnectionTest, AMessageOfBytesLeavesAsItIs) {
    EXPECT_EQ(0, send_text("whole frame"));

    turn();
    EXPECT_EQ("whole frame", as_text(m_peer.receive(11)));
}

TEST_F(SocketConnectionTest, AnAnswerLeavesBehindTwoHeads) {
    _AoEHeader const aoe = aoe_of(bytes("00 00 10 14 00 00 00 2A 00 09 00 00 01"));

    EXPECT_EQ(0, m_conn->send_message(aoe, 5000, "abc", 3, 1000));
    turn();
    EXPECT_EQ("00 01 88 13 10 00 00 00 00 00 10 14 00 00 00 2A 00 09 00 00 01 61 62 63",
              hex(m_peer.receive(24)));
}

TEST_F(SocketConnectionTest, AnAnswerWithoutPayloadIsTwoHeads) {
    _AoEHeader const aoe = aoe_of(bytes("00 00 00 00 00 00 00 01 00 02 00 00 01"));

    EXPECT_EQ(0, m_conn->send_message(aoe, 100, nullptr, 0, 1000));
    turn();
    EXPECT_EQ("00 01 64 00 0D 00 00 00 00 00 00 00 00 00 00 01 00 02 00 00 01",
              hex(m_peer.receive(21)));
}

TEST_F(SocketConnectionTest, ABufferLeavesAsTheCallerFilledIt) {
    _AoEHeader const aoe{};
    auto* const buf = new pbuf(64);
    buf->prepend("all heads are mine", 18);

    EXPECT_EQ(0, m_conn->send_message(buf, aoe));
    turn();
    EXPECT_EQ("all heads are mine", as_text(m_peer.receive(18)));
}

TEST(SocketConnectionStampTest, BytesAreStampedWithConnectionAndSequenceAndNoInvokeId) {
    RecordingConnection conn;
    conn.iCurrsequence = 7;

    EXPECT_EQ(0, conn.send_message("abc", 3));
    ASSERT_NE(nullptr, conn.m_queued);
    EXPECT_EQ(&conn, conn.m_queued->m_pConn);
    EXPECT_EQ(7u, conn.m_queued->m_nSequence);
    EXPECT_EQ(0u, conn.m_queued->m_nInvokeId);
    EXPECT_EQ(MSG_MODE_SEND, conn.m_queued->m_enMode);
    EXPECT_EQ(MSG_TYPE_STREAM, conn.m_queued->m_enType);
    EXPECT_GE(conn.m_queued->getpBuf()->capacity(), 3 + 48);
    EXPECT_EQ("abc", as_text(bytes_of(*conn.m_queued)));
}

TEST(SocketConnectionStampTest, AnAnswerCarriesItsInvokeIdInHostOrder) {
    RecordingConnection conn;
    _AoEHeader const aoe = aoe_of(bytes("00 00 00 00 01 02 03 04 00 09 00 00 01"));

    EXPECT_EQ(0, conn.send_message(aoe, 100, "abc", 3, 1000));
    EXPECT_EQ(0x01020304u, conn.m_queued->m_nInvokeId);
    EXPECT_EQ(&conn, conn.m_queued->m_pConn);
    EXPECT_GE(conn.m_queued->getpBuf()->capacity(), 3 + 69);
}

TEST(SocketConnectionStampTest, AnAnswerInABufferCarriesItsInvokeIdToo) {
    RecordingConnection conn;
    conn.iCurrsequence = 3;
    _AoEHeader const aoe = aoe_of(bytes("00 00 00 00 01 02 03 04 00 09 00 00 01"));
    auto* const buf = new pbuf(64);

    EXPECT_EQ(0, conn.send_message(buf, aoe));
    EXPECT_EQ(0x01020304u, conn.m_queued->m_nInvokeId);
    EXPECT_EQ(3u, conn.m_queued->m_nSequence);
    EXPECT_EQ(buf, conn.m_queued->getpBuf());
}

TEST(SocketConnectionStampTest, KeepsReturningZeroFromSendMessageWhateverTheQueueSays) {
    RecordingConnection conn;
    conn.m_answer = -1;
    _AoEHeader const aoe{};

    EXPECT_EQ(0, conn.send_message("abc", 3));
    EXPECT_EQ(0, conn.send_message(aoe, 100, "abc", 3, 1000));
    EXPECT_EQ(0, conn.send_message(new pbuf(64), aoe));
}

TEST_F(SocketConnectionTest, BadArgumentsOfSendMessageAreReported) {
    _AoEHeader const aoe{};

    tlsErrno = 0;
    EXPECT_EQ(-1, m_conn->send_message("abc", -1));
    EXPECT_EQ(KYP_ERR_PARAM, tlsErrno);
    EXPECT_EQ(-1, m_conn->send_message(aoe, 100, nullptr, 3, 1000));
    EXPECT_EQ(1, m_log.count("ERROR", "send message fail,data:(nil),size:3"));
    tlsErrno = 0;
    EXPECT_EQ(-1, m_conn->send_message(static_cast<pbuf*>(nullptr), aoe));
    EXPECT_EQ(KYP_ERR_PARAM, tlsErrno);
    EXPECT_EQ(1, m_log.count("ERROR", "send message fail,no buffer"));
    EXPECT_FALSE(m_conn->m_bSending);
}

TEST_F(SocketConnectionTest, AMessageThatNoBufferHoldsIsReported) {
    tlsErrno = 0;
    EXPECT_EQ(-1, m_conn->send_message("abc", 0x1000000));
    EXPECT_EQ(KYP_ERR_PACKET_TOO_LONG, tlsErrno);
    EXPECT_EQ(-1, m_conn->send_message("abc", 0x7fffffff));
    EXPECT_EQ(
        1, m_log.count("ERROR", "send message fail,size:16777216 is more than any buffer holds"));
}

TEST_F(SocketConnectionTest, ALongAnswerFindsRoomAlsoWhereSmallerBuffersComeBack) {
    // Buffers of 16384 and 32768 bytes come back to the list of the next class.
    auto& pool = utility::instance<server_bufpool>();
    pool.make_buf_list(32768, 1);
    pool.put_one_free(pool.get_one_buf(20000));
    pool.make_buf_list(16384, 1);
    pool.put_one_free(pool.get_one_buf(10000));
    for (size_t size : {20000u, 40000u}) {
        SCOPED_TRACE(size);
        Bytes const data = pattern(size);

        EXPECT_EQ(0, m_conn->send_message(reinterpret_cast<char const*>(data.data()),
                                          static_cast<int>(size)));
        turn(2);
        EXPECT_EQ(data, m_peer.receive(size));
    }
}

TEST_F(SocketConnectionTest, TheFirstMessageIsBeingSentAndTheSecondWaits) {
    send_text("first");
    CMsgHeader* const first = m_conn->m_pSendMsg;
    ASSERT_NE(nullptr, first);

    send_text("second");
    EXPECT_EQ(first, m_conn->m_pSendMsg);
    EXPECT_EQ(1u, m_conn->m_sendQueue.size());
    EXPECT_TRUE(m_conn->m_bSending);
    EXPECT_EQ(5u, m_conn->m_nSendRest);
    EXPECT_EQ(first->GetVaildData(), m_conn->m_pSendPos.load());
    EXPECT_EQ(0x2005u, m_conn->m_events);
}

TEST_F(SocketConnectionTest, WaitingMessagesLeaveInOrder) {
    send_text("first,");
    send_text("second,");
    send_text("third");

    turn(3);
    EXPECT_EQ("first,second,third", as_text(m_peer.receive(18)));
    EXPECT_FALSE(m_conn->m_bSending);
    EXPECT_EQ(nullptr, m_conn->m_pSendMsg);
}

TEST_F(SocketConnectionTest, NothingIsWrittenOnTheCallersThread) {
    send_text("later");

    EXPECT_EQ(0u, m_peer.waiting());
}

TEST_F(SocketConnectionTest, WhenTheLastMessageHasLeftWritabilityIsNoLongerAskedFor) {
    send_text("only");

    turn();
    EXPECT_EQ(0x2001u, m_conn->m_events);
    EXPECT_FALSE(m_conn->m_bSending);
}

TEST_F(SocketConnectionTest, AFailedEndOfWritabilityIsLoggedAndIgnored) {
    close_record();
    m_log.clear();
    m_conn->m_bSending = true;

    EXPECT_EQ(0, m_conn->triggerSendNextMsg());
    EXPECT_EQ(
        1, m_log.count("ERROR", "client:peer delete write event fail,error:9,Bad file descriptor"));
    EXPECT_FALSE(m_conn->m_bSending);
}

TEST_F(SocketConnectionTest, TriggerInstallsTheNextMessageAndStaysSending) {
    m_conn->m_bSending = true;
    CMsgHeader* const waiting = message_of("waiting");
    m_conn->addSendQueue(waiting);
    ASSERT_EQ(nullptr, m_conn->m_pSendMsg);

    EXPECT_EQ(0, m_conn->triggerSendNextMsg());
    EXPECT_EQ(waiting, m_conn->m_pSendMsg);
    EXPECT_EQ(7u, m_conn->m_nSendRest);
    EXPECT_EQ(waiting->GetVaildData(), m_conn->m_pSendPos.load());
    EXPECT_TRUE(m_conn->m_bSending);
    EXPECT_TRUE(m_conn->m_sendQueue.empty());
}

TEST_F(SocketConnectionTest, ALateReplyOnAClosedRecordIsDestroyedAndReported) {
    close_record();
    m_log.clear();
    CMsgHeader* const late = message_of("late");
    pbuf* const buf = late->getpBuf();

    EXPECT_EQ(-1, m_conn->addSendQueue(late));
    EXPECT_EQ(buf, next_buffer());
    EXPECT_EQ(1, m_log.count("ERROR", "epoll_ctl(-1,3,4,0)fail,error:9,Bad file descriptor"));
    EXPECT_EQ(1, m_log.count("ERROR",
                             "ServerSendQueueThread epoll_oper_event fail(Bad file descriptor)"));
    EXPECT_FALSE(m_conn->m_bSending);
    EXPECT_EQ(nullptr, m_conn->m_pSendMsg);
    EXPECT_EQ(nullptr, m_conn->m_pSendPos.load());
    EXPECT_EQ(0u, m_conn->m_nSendRest);
}

TEST_F(SocketConnectionTest, ALateReplyOnARecycledRecordFollowsNoNullPointer) {
    close_record();
    m_conn->PutOneToFree();
    m_log.clear();
    CMsgHeader* const late = message_of("late");
    pbuf* const buf = late->getpBuf();

    EXPECT_EQ(-1, m_conn->addSendQueue(late));
    EXPECT_EQ(buf, next_buffer());
    EXPECT_EQ(1, m_log.count("ERROR",
                             "ServerSendQueueThread epoll_oper_event fail(Bad file descriptor)"));
    EXPECT_FALSE(m_conn->m_bSending);
}

TEST_F(SocketConnectionTest, SendMessageOnAClosedRecordStillReportsZero) {
    close_record();

    EXPECT_EQ(0, send_text("late"));
    EXPECT_EQ(nullptr, m_conn->m_pSendMsg);
}

TEST_F(SocketConnectionTest, AReplyBehindAMessageThatWasBeingSentGoesWithTheRecord) {
    send_text("under way");
    close_record();
    CMsgHeader* const late = message_of("late");
    pbuf* const buf = late->getpBuf();
    EXPECT_EQ(0, m_conn->addSendQueue(late));

    m_conn->PutOneToFree();
    EXPECT_TRUE(m_conn->m_sendQueue.empty());
    EXPECT_EQ(buf, next_buffer());
}

TEST_F(SocketConnectionTest, TriggerOnARecordWithoutALoopIsReported) {
    close_record();
    m_conn->PutOneToFree();
    m_log.clear();

    EXPECT_EQ(0, m_conn->triggerSendNextMsg());
    EXPECT_EQ(1,
              m_log.count("ERROR", "client: delete write event fail,error:9,Bad file descriptor"));
}

TEST(SocketConnectionRecordTest, GetOneToUseResetsAllThatBelongsToOnePeer) {
    CSocketConnection conn;
    ISocketServer server;
    conn.m_events = 5;
    conn.m_fd = 1000;
    conn.m_pRecvPos = nullptr;
    conn.m_nRecvRest = 1;
    conn.m_nRecvState = 3;
    conn.m_nSendRest = 4;
    unsigned char byte = 0;
    conn.m_pSendPos = &byte;
    conn.m_bSending = true;
    conn.SetSockServer(&server);
    strcpy(conn.m_szPeerName, "somebody");

    conn.GetOneToUse();
    EXPECT_EQ(1u, conn.iCurrsequence);
    EXPECT_EQ(0u, conn.m_events);
    EXPECT_EQ(-1, conn.m_fd);
    EXPECT_EQ(reinterpret_cast<unsigned char*>(&conn.m_recvHeader), conn.m_pRecvPos);
    EXPECT_EQ(8u, conn.m_nRecvRest);
    EXPECT_EQ(nullptr, conn.m_pRecvMsg);
    EXPECT_EQ(0, conn.m_nRecvState);
    EXPECT_EQ(0u, conn.m_nSendRest);
    EXPECT_EQ(nullptr, conn.m_pSendPos.load());
    EXPECT_EQ(nullptr, conn.m_pSendMsg);
    EXPECT_FALSE(conn.m_bSending);
    EXPECT_EQ(nullptr, conn.m_pServer);
    EXPECT_EQ(std::string(32, '\0'), std::string(conn.m_szPeerName, 32));
}

TEST(SocketConnectionRecordTest, GetOneToUseLeavesHandlersAndLoop) {
    CSocketConnection conn;
    CEventLoop loop;
    conn.m_readHandler = &ISocketServer::sock_read_request_handler;
    conn.m_writeHandler = &ISocketServer::sock_write_request_handler;
    conn.SetEventLoop(&loop);

    conn.GetOneToUse();
    EXPECT_TRUE(conn.m_readHandler == &ISocketServer::sock_read_request_handler);
    EXPECT_TRUE(conn.m_writeHandler == &ISocketServer::sock_write_request_handler);
    EXPECT_EQ(&loop, conn.m_pEventLoop.load());
}

TEST(SocketConnectionRecordTest, PutOneToFreeDestroysMessagesAndForgetsThePeer) {
    CSocketConnection conn;
    CEventLoop loop;
    conn.SetEventLoop(&loop);
    conn.m_bSending = true;
    conn.m_pRecvMsg = new CMsgHeader(MSG_MODE_RECV, MSG_TYPE_STREAM);
    conn.m_pSendMsg = new CMsgHeader(MSG_MODE_SEND, MSG_TYPE_STREAM);
    conn.m_sendQueue.push_back(new CMsgHeader(MSG_MODE_SEND, MSG_TYPE_STREAM));
    strcpy(conn.m_szPeerName, "somebody");

    conn.PutOneToFree();
    EXPECT_EQ(1u, conn.iCurrsequence);
    EXPECT_EQ(nullptr, conn.m_pRecvMsg);
    EXPECT_EQ(nullptr, conn.m_pSendMsg);
    EXPECT_FALSE(conn.m_bSending);
    EXPECT_EQ(nullptr, conn.m_pEventLoop.load());
    EXPECT_EQ(std::string(32, '\0'), std::string(conn.m_szPeerName, 32));
    EXPECT_TRUE(conn.m_sendQueue.empty());
}

TEST(SocketConnectionRecordTest, ClearMsgQueueTakesNoLock) {
    CSocketConnection conn;
    conn.m_sendQueue.push_back(new CMsgHeader(MSG_MODE_SEND, MSG_TYPE_STREAM));
    std::lock_guard<std::mutex> lock(conn.m_sendMutex);

    conn.clearMsgQueue();
    EXPECT_TRUE(conn.m_sendQueue.empty());
}

TEST(SocketConnectionRecordTest, SendprocForwardsToTheServer) {
    CSocketConnection conn;
    CountingServer server;
    conn.SetSockServer(&server);
    unsigned char data[3] = {};

    EXPECT_EQ(4, conn.sendproc(data, 3));
    EXPECT_EQ(&conn, server.m_conn);
    EXPECT_EQ(data, server.m_data);
}

TEST(SocketConnectionRecordTest, SendprocWithoutAServerSendsNothing) {
    CSocketConnection conn;
    unsigned char data[3] = {};

    EXPECT_EQ(0, conn.sendproc(data, 3));
}

TEST_F(SocketConnectionTest, AMessageLargerThanTheSocketTakesLeavesInPieces) {
    m_peer.shrink_buffers();
    Bytes const data = pattern(3000000);
    m_conn->send_message(reinterpret_cast<char const*>(data.data()), static_cast<int>(data.size()));

    Bytes received;
    while (received.size() < data.size()) {
        turn();
        size_t const waiting = m_peer.waiting();
        ASSERT_GT(waiting, 0u);
        Bytes const piece = m_peer.receive(waiting);
        received.insert(received.end(), piece.begin(), piece.end());
    }
    EXPECT_EQ(data, received);
    EXPECT_EQ(0x2001u, m_conn->m_events);
}

TEST_F(SocketConnectionTest, AnswersFromManyThreadsAllLeave) {
    constexpr int kThreads = 4;
    constexpr int kMessages = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this] {
            for (int i = 0; i < kMessages; ++i) m_conn->send_message("12345678", 8);
        });
    }

    Bytes received;
    while (received.size() < size_t{8} * kThreads * kMessages) {
        m_loop.epoll_process_event(10);
        Bytes const piece = m_peer.receive(m_peer.waiting());
        received.insert(received.end(), piece.begin(), piece.end());
    }
    for (std::thread& thread : threads) thread.join();
    std::string expected;
    for (int i = 0; i < kThreads * kMessages; ++i) expected += "12345678";
    EXPECT_EQ(expected, as_text(received));
    EXPECT_FALSE(m_conn->m_bSending);
}

TEST(SocketConnectionReuseTest, LateRepliesNeverMeetTheDescriptorOfAnotherConnection) {
    // One thread answers a record for ever while it is closed, recycled and reused. The number of
    // the closed descriptor goes to a bystander at once, who hears nothing and stays open.
    LogCapture log;
    CSockConnPool pool;
    pool.m_nRecyDelay = 0;
    CEventLoop loop;
    ISocketServer server;
    std::atomic<CSocketConnection*> target{pool.get_connection(-1)};
    std::atomic<bool> stop{false};
    std::thread worker([&] {
        while (!stop) target.load()->send_message("late", 4);
    });

    for (int i = 0; i < 300; ++i) {
        int pair[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair));
        CSocketConnection* const conn = pool.get_connection(pair[0]);
        conn->m_writeHandler = &ISocketServer::sock_write_request_handler;
        conn->SetSockServer(&server);
        conn->SetEventLoop(&loop);
        loop.epoll_oper_event(pair[0], EPOLL_CTL_ADD, EPOLLIN, 0, conn);
        target = conn;
        loop.epoll_process_event(0);
        pool.close_connections(conn);
        int other[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, other));
        EXPECT_EQ(pair[0], other[0]);
        loop.epoll_process_event(0);
        pool.IdelRecyConnections();
        char byte;
        EXPECT_EQ(-1, read(other[1], &byte, 1));
        EXPECT_EQ(EAGAIN, errno);
        close(other[0]);
        close(other[1]);
        close(pair[1]);
    }
    stop = true;
    worker.join();
}

}  // namespace
