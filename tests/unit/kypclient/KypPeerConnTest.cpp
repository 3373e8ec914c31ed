#include "kypclient/KypPeerConn.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <thread>

#include "FakePeerConnection.h"
#include "kypcomm/pbuf/pbuf.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

constexpr _KypDeviceId kDevice{{192, 168, 1, 7, 1, 1}};

_KypPayload payload_of(Bytes& data, uint16_t cmd = 9, uint32_t group = 0, uint32_t offset = 0) {
    return {cmd, group, offset, static_cast<uint32_t>(data.size()), data.data()};
}

class KypPeerConnTest : public testing::Test {
protected:
    void SetUp() override {
        tlsErrno = 0;
        SetLogLevel(LOG_LEVEL_TRACE);
    }

    int send(std::string const& data = "AB", uint16_t cmd = 9, int timeoutMs = 20000) {
        Bytes payload = text(data);
        return m_conn.send_request_packet(200, payload_of(payload, cmd, 0x10, 0x20), timeoutMs);
    }

    void next_id(uint32_t id) { m_conn.m_invokeId = id; }

    std::string fetch(size_t room = 100) {
        Bytes data(room);
        unsigned short port = 0;
        const int n = m_conn.m_peerBuffer.read_buf(&port, data.data(), static_cast<unsigned>(room));
        data.resize(static_cast<size_t>(n));
        return as_text(data);
    }

    FakePeerConnection m_conn{kDevice, "some=text"};
    RouteCalls m_calls;
};

// --- a new connection -------------------------------------------------------------------------

TEST_F(KypPeerConnTest, NewConnectionKeepsItsIdentityAndStartsAtRest) {
    EXPECT_EQ(0, memcmp(&kDevice, &m_conn.m_deviceId, sizeof(kDevice)));
    EXPECT_EQ("some=text", m_conn.m_param);
    EXPECT_TRUE(m_conn.m_reconnectEnabled);
    EXPECT_EQ(2, m_conn.m_reconnectIntervalSec);
    EXPECT_EQ(0u, m_conn.m_invokeId);
    EXPECT_EQ(0u, m_conn.m_lastInvokeId);
    EXPECT_EQ(nullptr, m_conn.m_pLatestRequest);
    EXPECT_EQ(nullptr, m_conn.m_pLatestResponse);
    EXPECT_TRUE(m_conn.m_connEvent == nullptr);
    EXPECT_EQ(nullptr, m_conn.m_connEventCtx);
    EXPECT_TRUE(m_conn.m_topics.empty());
    EXPECT_EQ(500u, std::size(m_conn.m_responses));
}

TEST_F(KypPeerConnTest, BothConstructorsEnterTheRouteOfTopics) {
    FakePeerConnection plain;

    for (FakePeerConnection* conn : {&plain, &m_conn}) {
        ASSERT_EQ(1u, conn->m_router.m_ports.size());
        CMsgPort const& port = conn->m_router.m_ports.at(103);
        EXPECT_EQ(static_cast<IKypPeerConnection*>(conn), port.m_ctx);
        EXPECT_TRUE(port.m_callback == libkypsubscribeMsgRouterCallBack);
    }
    EXPECT_EQ("", plain.m_param);
}

TEST_F(KypPeerConnTest, TransportOperationsOfTheBaseDoNothing) {
    EXPECT_EQ(0, m_conn.start());
    EXPECT_EQ(0, m_conn.stop());
    EXPECT_EQ(0, m_conn.connect(10));
    EXPECT_EQ(0, m_conn.reconnect(10));
    EXPECT_FALSE(m_conn.isconnected());
    m_conn.disconnect();
}

TEST_F(KypPeerConnTest, ReconnectSettingsAndCallbackAreStored) {
    const auto event = [](_KypDeviceId*, void*, int) {};
    int ctx = 0;

    m_conn.set_reconnect_event(7, false);
    m_conn.register_connevent(event, &ctx);

    EXPECT_EQ(7, m_conn.m_reconnectIntervalSec);
    EXPECT_FALSE(m_conn.m_reconnectEnabled);
    EXPECT_TRUE(m_conn.m_connEvent == event);
    EXPECT_EQ(&ctx, m_conn.m_connEventCtx);
}

TEST_F(KypPeerConnTest, RoutePortsAreCutTo16Bits) {
    EXPECT_EQ(0, m_conn.add_router(0x10000 + 600, RouteCalls::record, &m_calls));
    EXPECT_EQ(1u, m_conn.m_router.m_ports.count(600));
    EXPECT_EQ(0x1007, m_conn.add_router(600, RouteCalls::record, &m_calls));

    EXPECT_EQ(0, m_conn.del_router(600));
    EXPECT_EQ(0x1007, m_conn.del_router(0x10000 + 600));
}

// --- invoke ids -------------------------------------------------------------------------------

TEST_F(KypPeerConnTest, FirstInvokeIdIsOne) {
    EXPECT_EQ(1u, m_conn.GetInvokeId());
    EXPECT_EQ(2u, m_conn.GetInvokeId());
}

TEST_F(KypPeerConnTest, InvokeIdBehindTheLargestIsOne) {
    next_id(0xfffffffe);

    EXPECT_EQ(0xfffffffeu, m_conn.GetInvokeId());
    EXPECT_EQ(0xffffffffu, m_conn.GetInvokeId());
    EXPECT_EQ(1u, m_conn.GetInvokeId());
}

TEST_F(KypPeerConnTest, HeadsIntoABufferTakeANewIdAndKeepIt) {
    pbuf buf(64);
    buf.prepend("AB", 2);
    next_id(7);

    EXPECT_EQ(0, m_conn.MakeKypRequestHeaderTobuf(&buf, 200, 9, 0x10, 0x20));

    EXPECT_EQ(7u, m_conn.m_lastInvokeId);
    EXPECT_EQ(
        "00 01 C8 00 17 00 00 00 "
        "00 00 00 00 00 00 00 07 00 09 00 00 00 "
        "00 00 00 10 00 00 00 20 "
        "41 42",
        hex(buf.data(), static_cast<size_t>(buf.size())));
}

// --- the split way: sending -------------------------------------------------------------------

TEST_F(KypPeerConnTest, RequestGoesOutWithItsThreeHeads) {
    next_id(7);

    EXPECT_EQ(31, send("AB", 9, 1234));

    ASSERT_EQ(1u, m_conn.m_sent.size());
    EXPECT_EQ(
        "00 01 C8 00 17 00 00 00 "
        "00 00 00 00 00 00 00 07 00 09 00 00 00 "
        "00 00 00 10 00 00 00 20 "
        "41 42",
        hex(m_conn.m_sent[0]));
    EXPECT_EQ(1234, m_conn.m_timeouts[0]);
    EXPECT_EQ(7u, m_conn.m_lastInvokeId);
}

TEST_F(KypPeerConnTest, RequestIsKeptWithItsTargetAndNothingElse) {
    next_id(7);
    ASSERT_EQ(31, send());

    KypRequest const& request = *m_conn.m_pLatestRequest;
    EXPECT_FALSE(request.copyToUser);
    EXPECT_EQ(0, memcmp(&kDevice, &request.deviceId, sizeof(kDevice)));
    EXPECT_EQ(200, request.port);
    EXPECT_EQ(9, request.cmd);
    EXPECT_EQ(0u, request.capacity);
    EXPECT_EQ(nullptr, request.buffer);
    EXPECT_EQ(nullptr, request.recvLen);
    EXPECT_EQ(0u, request.copied);
    EXPECT_EQ(31u, request.frame.size());
}

TEST_F(KypPeerConnTest, SlotAwaitsTheIdBeforeTheBytesLeave) {
    next_id(507);
    uint32_t awaited = 0;
    KypRequest* owner = nullptr;
    m_conn.m_onSend = [&](Bytes const&) {
        awaited = m_conn.slot(507).invokeId;
        owner = m_conn.slot(507).request;
    };

    ASSERT_EQ(31, send());

    EXPECT_EQ(507u, awaited);
    EXPECT_EQ(m_conn.m_pLatestRequest, owner);
    EXPECT_EQ(&m_conn.m_responses[7], m_conn.m_pLatestResponse);
}

TEST_F(KypPeerConnTest, AnswerThatArrivesDuringTheSendIsTaken) {
    next_id(7);
    m_conn.m_onSend = [&](Bytes const&) {
        m_conn.receive(response_frame(200, 9, 7, text("early")));
    };

    ASSERT_EQ(31, send());

    EXPECT_EQ(0, m_conn.m_pLatestResponse->Wait());
    EXPECT_EQ("early", fetch());
}

TEST_F(KypPeerConnTest, KeepsOneSecondForTheAnswerWhateverTheTimeoutSays) {
    for (const int timeoutMs : {0, 10, 60000}) {
        SCOPED_TRACE(timeoutMs);
        const int64_t before = std::chrono::steady_clock::now().time_since_epoch().count();
        ASSERT_EQ(31, send("AB", 9, timeoutMs));
        const int64_t after = std::chrono::steady_clock::now().time_since_epoch().count();

        const int64_t deadline = m_conn.m_pLatestRequest->deadline;
        EXPECT_LE(before + 1000000000, deadline);
        EXPECT_GE(after + 1000000000, deadline);
    }
}

TEST_F(KypPeerConnTest, CommandsWithoutAnAnswerLeaveAnAwaitedOneAlone) {
    next_id(7);
    ASSERT_EQ(31, send());
    KypRequest* const request = m_conn.m_pLatestRequest;
    KypResponse* const response = m_conn.m_pLatestResponse;

    for (const uint16_t cmd : {uint16_t{6}, uint16_t{7}, uint16_t{8}}) {
        SCOPED_TRACE(cmd);
        EXPECT_EQ(31, send("AB", cmd));

        EXPECT_EQ(request, m_conn.m_pLatestRequest);
        EXPECT_EQ(response, m_conn.m_pLatestResponse);
    }
    EXPECT_EQ(request_frame(200, 7, 9, 0x10, 0x20, text("AB")), m_conn.m_sent[2]);
    EXPECT_EQ(10u, m_conn.m_lastInvokeId);
    EXPECT_EQ(nullptr, m_conn.slot(8).request.load());
}

TEST_F(KypPeerConnTest, CommandsWithoutAnAnswerReturnWhatTheLinkTook) {
    m_conn.fail_sends(5);
    EXPECT_EQ(5, send("AB", 7));

    m_conn.fail_sends(-1, 5);
    EXPECT_EQ(-1, send("AB", 8));
    EXPECT_EQ(5, tlsErrno);
}

TEST_F(KypPeerConnTest, OtherCommandsAwaitAnAnswer) {
    for (const uint16_t cmd : {uint16_t{0}, uint16_t{1}, uint16_t{5}, uint16_t{9}}) {
        SCOPED_TRACE(cmd);
        ASSERT_EQ(31, send("AB", cmd));
        EXPECT_NE(nullptr, m_conn.m_pLatestResponse);
    }
}

TEST_F(KypPeerConnTest, ShortOrFailedSendGivesTheSlotFree) {
    for (const int result : {-1, 0, 30, 32}) {
        SCOPED_TRACE(result);
        next_id(7);
        m_conn.fail_sends(result, 5);

        EXPECT_EQ(-1, send());

        EXPECT_EQ(5, tlsErrno);
        EXPECT_EQ(nullptr, m_conn.m_pLatestResponse);
        EXPECT_NE(nullptr, m_conn.m_pLatestRequest);
        EXPECT_EQ(nullptr, m_conn.slot(7).request.load());
        EXPECT_EQ(-1, m_conn.slot(7).result);
    }
}

TEST_F(KypPeerConnTest, SlotStillInUseFailsTheSend) {
    BlockingRequest first(10);
    first.fill({});
    next_id(7);
    ASSERT_NE(nullptr, m_conn.WriteKypRequest(&first.request));
    next_id(507);
    LogCapture log;

    EXPECT_EQ(-1, send());

    EXPECT_EQ(1, log.count("ERROR", "response KypRequest is already in use"));
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(nullptr, m_conn.m_pLatestResponse);
    EXPECT_EQ(1u, m_conn.m_sent.size());
    EXPECT_EQ(&first.request, m_conn.slot(7).request.load());
    EXPECT_EQ(7u, m_conn.slot(7).invokeId.load());
}

TEST_F(KypPeerConnTest, KeepsTheStatusOfASendThatSaysNotWhyItFailed) {
    BlockingRequest first(10);
    first.fill({});
    next_id(7);
    ASSERT_NE(nullptr, m_conn.WriteKypRequest(&first.request));
    next_id(507);
    tlsErrno = 77;

    EXPECT_EQ(-1, send());
    EXPECT_EQ(77, tlsErrno);

    m_conn.fail_sends(30);
    EXPECT_EQ(-1, send());
    EXPECT_EQ(77, tlsErrno);
}

TEST_F(KypPeerConnTest, SecondSendDropsTheAnswerThatNobodyFetched) {
    next_id(7);
    ASSERT_EQ(31, send());
    ASSERT_EQ(31, send());
    LogCapture log;

    EXPECT_EQ(-1, m_conn.receive(response_frame(200, 9, 7, text("late"))));

    EXPECT_EQ(1, log.count("ERROR", "request recv timeout"));
    EXPECT_EQ(0x1008, m_conn.slot(7).result);
    EXPECT_EQ("", fetch());
    EXPECT_EQ(&m_conn.m_responses[8], m_conn.m_pLatestResponse);
}

TEST_F(KypPeerConnTest, SecondSendOnTheSameSlotTakesItOver) {
    next_id(7);
    ASSERT_EQ(31, send());
    next_id(507);
    ASSERT_EQ(31, send());

    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 507, text("new"))));
    EXPECT_EQ(0, m_conn.m_pLatestResponse->Wait());
    EXPECT_EQ("new", fetch());
}

TEST_F(KypPeerConnTest, LateAnswerToTheFormerIdOfASlotReachesNobody) {
    next_id(7);
    ASSERT_EQ(31, send());
    next_id(507);
    ASSERT_EQ(31, send());
    LogCapture log;

    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 7, text("old"))));

    EXPECT_EQ(1, log.count("ERROR", "port:200 router is not register..."));
    EXPECT_EQ(507u, m_conn.slot(7).invokeId.load());
    EXPECT_EQ("", fetch());
}

TEST_F(KypPeerConnTest, RequestWithoutDataHasHeadsOnly) {
    next_id(7);

    EXPECT_EQ(29, m_conn.send_request_packet(200, {9, 1, 2, 0, nullptr}, 100));

    EXPECT_EQ(request_frame(200, 9, 7, 1, 2), m_conn.m_sent[0]);
}

// --- inbound frames ---------------------------------------------------------------------------

TEST_F(KypPeerConnTest, EveryFrameIsLogged) {
    LogCapture log;

    m_conn.receive(response_frame(200, 9, 7, text("CD")));

    EXPECT_EQ(1, log.count("TRACE",
                           "received a Frame,version:1,port:200,Frame size:23,PayLoad "
                           "Size:2,InvokeId:7"));
}

TEST_F(KypPeerConnTest, AnswerOfTheSplitWayIsParkedWhole) {
    next_id(7);
    ASSERT_EQ(31, send());

    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 7, text("CD"))));

    EXPECT_EQ(0, m_conn.slot(7).result);
    EXPECT_EQ(0u, m_conn.slot(7).invokeId.load());
    EXPECT_EQ(200, m_conn.m_peerBuffer.m_port);
    EXPECT_EQ(23u, m_conn.m_peerBuffer.m_length);
    EXPECT_EQ(21u, m_conn.m_peerBuffer.m_readPos);
    EXPECT_EQ("CD", fetch());
}

TEST_F(KypPeerConnTest, AnswerWithAnErrorIsParkedAllTheSame) {
    next_id(7);
    ASSERT_EQ(31, send());

    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 7, text("why"), 0x1006)));

    EXPECT_EQ(0x1006, m_conn.m_pLatestResponse->Wait());
    EXPECT_EQ("why", fetch());
}

TEST_F(KypPeerConnTest, FrameOfCommandEightIsNeverAnAnswer) {
    ASSERT_EQ(0, m_conn.add_router(200, RouteCalls::record, &m_calls));
    next_id(7);
    ASSERT_EQ(31, send());

    EXPECT_EQ(0, m_conn.receive(response_frame(200, 8, 7, text("CD"))));

    EXPECT_EQ(7u, m_conn.slot(7).invokeId.load());
    ASSERT_EQ(1u, m_calls.count());
    EXPECT_EQ("CD", as_text(m_calls.m_calls[0].data));
}

TEST_F(KypPeerConnTest, UnknownAndDuplicateAnswersGoToTheirPortsRoute) {
    ASSERT_EQ(0, m_conn.add_router(200, RouteCalls::record, &m_calls));
    next_id(7);
    ASSERT_EQ(31, send());
    ASSERT_EQ(0, m_conn.receive(response_frame(200, 9, 7, text("answer"))));

    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 7, text("again"))));
    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 8, text("unknown"))));
    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 507, text("neighbour"))));

    ASSERT_EQ(3u, m_calls.count());
    EXPECT_EQ("again", as_text(m_calls.m_calls[0].data));
    EXPECT_EQ("unknown", as_text(m_calls.m_calls[1].data));
    EXPECT_EQ("neighbour", as_text(m_calls.m_calls[2].data));
    EXPECT_EQ("answer", fetch());
}

TEST_F(KypPeerConnTest, ResultOfTheRouteIsNotTheFramesResult) {
    LogCapture log;

    EXPECT_EQ(0, m_conn.receive(response_frame(601, 9, 7)));

    EXPECT_EQ(0x1005, tlsErrno);
    EXPECT_EQ(1, log.count("ERROR", "port:601 router is not register..."));
}

TEST_F(KypPeerConnTest, AnswerBehindTheDeadlineIsRefused) {
    next_id(7);
    ASSERT_EQ(31, send());
    m_conn.m_pLatestRequest->deadline = std::chrono::steady_clock::now().time_since_epoch().count();
    LogCapture log;

    EXPECT_EQ(-1, m_conn.receive(response_frame(200, 9, 7, text("late"))));

    EXPECT_EQ(1, log.count_containing("[libkyp,ERROR,"));
    EXPECT_EQ(1, log.count_containing("invokid:7,response is timeout,time usec:"));
    EXPECT_EQ(0x1008, m_conn.m_pLatestResponse->Wait());
    EXPECT_EQ("", fetch());
}

// Most rounds get to their answer with some of the time left.
TEST_F(KypPeerConnTest, AnswerInTheLastMicrosecondIsRefused) {
    SetLogLevel(LOG_LEVEL_CRITICAL);
    Bytes late = response_frame(200, 9, 7, text("late"));

    for (int round = 0; round < 200; ++round) {
        next_id(7);
        ASSERT_EQ(31, send());
        int64_t& deadline = m_conn.m_pLatestRequest->deadline;
        deadline = std::chrono::steady_clock::now().time_since_epoch().count() + 999;
        ASSERT_EQ(-1, m_conn.process_frame(late.data(), static_cast<int>(late.size())));
    }
}

TEST_F(KypPeerConnTest, DeadlineLongGoneIsReportedInMicroseconds) {
    next_id(7);
    ASSERT_EQ(31, send());
    m_conn.m_pLatestRequest->deadline = std::numeric_limits<int64_t>::min();
    LogCapture log;

    EXPECT_EQ(-1, m_conn.receive(response_frame(200, 9, 7)));

    EXPECT_EQ(1, log.count("ERROR", "invokid:7,response is timeout,time usec:-1000000"));
}

TEST_F(KypPeerConnTest, KeepsTakingAnAnswerWithIdZeroForALateOne) {
    ASSERT_EQ(0, m_conn.add_router(200, RouteCalls::record, &m_calls));
    LogCapture log;

    EXPECT_EQ(-1, m_conn.receive(response_frame(200, 9, 0)));

    EXPECT_EQ(1, log.count("ERROR", "request recv timeout"));
    EXPECT_EQ(0u, m_calls.count());

    m_conn.m_responses[0].invokeId = 500;
    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 0)));
    EXPECT_EQ(1u, m_calls.count());
}

TEST_F(KypPeerConnTest, StatusOfAllBitsSetDoesNotHoldItsWaiter) {
    m_conn.slot(7).Release();
    next_id(7);
    ASSERT_EQ(31, send());

    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 7, text("CD"), 0xffffffff)));

    EXPECT_EQ(0x1008, m_conn.m_pLatestResponse->Wait());
}

TEST_F(KypPeerConnTest, FrameShorterThanItsHeadsReadsZeroAndHasNoPayload) {
    BlockingRequest request(8);
    request.fill({});
    next_id(7);
    KypResponse* const slot = m_conn.WriteKypRequest(&request.request);
    ASSERT_NE(nullptr, slot);
    LogCapture log;

    // Ends behind the invoke id: the command reads as zero.
    EXPECT_EQ(0, m_conn.receive(bytes("00 01 C8 00 08 00 00 00 00 00 10 06 00 00 00 07")));

    EXPECT_EQ(1, log.count("TRACE",
                           "received a Frame,version:1,port:200,Frame size:16,PayLoad "
                           "Size:-5,InvokeId:7"));
    EXPECT_EQ(0x1006, slot->Wait());
    EXPECT_EQ(0u, request.recvLen);
    EXPECT_EQ(0u, request.request.copied);
    EXPECT_EQ(Bytes(8), request.answer);
    slot->Release();
}

TEST_F(KypPeerConnTest, ShortAnswerOfTheSplitWayHasNothingToFetch) {
    next_id(7);
    ASSERT_EQ(31, send());

    EXPECT_EQ(0, m_conn.receive(bytes("00 01 C8 00 08 00 00 00 00 00 00 00 00 00 00 07")));

    EXPECT_EQ(0, m_conn.m_pLatestResponse->Wait());
    EXPECT_EQ("", fetch());
}

TEST_F(KypPeerConnTest, FrameCutInEveryPlaceIsSafe) {
    ASSERT_EQ(0, m_conn.add_router(200, RouteCalls::record, &m_calls));
    const Bytes whole = response_frame(200, 9, 0x07070707, text("payload"));

    for (size_t size = 0; size <= whole.size(); ++size) {
        // On the heap and of this size, so that a sanitizer sees a read behind its end.
        Bytes cut(whole.begin(), whole.begin() + static_cast<long>(size));
        cut.shrink_to_fit();
        m_conn.receive(cut);
        m_conn.receive(join({kyp_head(200, static_cast<uint32_t>(size)), cut}));
    }

    for (auto const& call : m_calls.all()) EXPECT_LE(call.data.size(), whole.size());
}

TEST_F(KypPeerConnTest, LengthWordBeyondTheFrameGivesNoBytesThatAreNotThere) {
    ASSERT_EQ(0, m_conn.add_router(200, RouteCalls::record, &m_calls));
    BlockingRequest request(100);
    request.fill({});
    next_id(7);
    KypResponse* const slot = m_conn.WriteKypRequest(&request.request);
    ASSERT_NE(nullptr, slot);
    const Bytes lie = join({kyp_head(200, 1000), aoe_head(0, 7, 9, 1), text("CD")});

    EXPECT_EQ(0, m_conn.receive(lie));
    EXPECT_EQ(0, m_conn.receive(lie));

    EXPECT_EQ(2u, request.recvLen);
    EXPECT_EQ(2u, request.request.copied);
    ASSERT_EQ(1u, m_calls.count());
    EXPECT_EQ("CD", as_text(m_calls.m_calls[0].data));
    slot->Release();
}

// --- the blocking way -------------------------------------------------------------------------

class KypPeerConnBlockingTest : public KypPeerConnTest {
protected:
    // The peer answers every request at once with `payload` and `error`.
    void answer_with(Bytes payload, uint32_t error = 0) {
        m_conn.m_onSend = [this, payload, error](Bytes const& frame) {
            const FrameParts parts = take_apart(frame);
            m_conn.receive(response_frame(parts.port, parts.cmd, parts.invokeId, payload, error));
        };
    }
};

TEST_F(KypPeerConnBlockingTest, RequestGoesOutWithTheHeadsInFrontOfItsFrame) {
    BlockingRequest request(10);
    request.fill(text("AB"), 0x10, 0x20);
    next_id(7);

    KypResponse* const slot = m_conn.WriteKypRequest(&request.request);

    EXPECT_EQ(&m_conn.m_responses[7], slot);
    EXPECT_EQ(7u, slot->invokeId.load());
    EXPECT_EQ(&request.request, slot->request.load());
    EXPECT_EQ(request_frame(200, 9, 7, 0x10, 0x20, text("AB")), m_conn.m_sent.at(0));
    EXPECT_EQ(3000, m_conn.m_timeouts.at(0));
}

TEST_F(KypPeerConnBlockingTest, RunsBesideTheSplitWay) {
    next_id(7);
    ASSERT_EQ(31, send());
    KypResponse* const response = m_conn.m_pLatestResponse;
    BlockingRequest request(10);
    request.fill({});
    answer_with(text("CD"));

    EXPECT_EQ(0, m_conn.AddKypRequest(&request.request));

    EXPECT_EQ(7u, m_conn.m_lastInvokeId);
    EXPECT_EQ(response, m_conn.m_pLatestResponse);
    EXPECT_EQ(7u, response->invokeId.load());
}

TEST_F(KypPeerConnBlockingTest, AnswerIsCopiedIntoTheCallersBuffer) {
    BlockingRequest request(10);
    request.fill({});
    answer_with(text("CD"));

    EXPECT_EQ(0, m_conn.AddKypRequest(&request.request));

    EXPECT_EQ(2u, request.recvLen);
    EXPECT_EQ(2u, request.request.copied);
    EXPECT_EQ(join({text("CD"), Bytes(8)}), request.answer);
    EXPECT_EQ(nullptr, m_conn.slot(1).request.load());
    EXPECT_EQ("", fetch());
}

TEST_F(KypPeerConnBlockingTest, AnswerBeyondTheCapacityIsCutAndItsFullSizeTold) {
    BlockingRequest request(10);
    request.fill({});
    const Bytes payload = pattern(100);
    answer_with(payload);

    EXPECT_EQ(0, m_conn.AddKypRequest(&request.request));

    EXPECT_EQ(100u, request.recvLen);
    EXPECT_EQ(10u, request.request.copied);
    EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 10), request.answer);
}

TEST_F(KypPeerConnBlockingTest, AnswerMayBeOfNoInterest) {
    BlockingRequest request(0);
    request.fill({});
    request.request.buffer = nullptr;
    request.request.recvLen = nullptr;
    answer_with(text("CD"));

    EXPECT_EQ(0, m_conn.AddKypRequest(&request.request));

    EXPECT_EQ(0u, request.request.copied);
}

TEST_F(KypPeerConnBlockingTest, PeersErrorIsTheResultAndItsPayloadIsDelivered) {
    BlockingRequest request(10);
    request.fill({});
    answer_with(text("why"), 0x1006);

    EXPECT_EQ(0x1006, m_conn.AddKypRequest(&request.request));

    EXPECT_EQ(0x1006, tlsErrno);
    EXPECT_EQ(3u, request.recvLen);
}

TEST_F(KypPeerConnBlockingTest, SuccessClearsTheStatus) {
    tlsErrno = 77;
    BlockingRequest request(10);
    request.fill({});
    answer_with({});

    EXPECT_EQ(0, m_conn.AddKypRequest(&request.request));
    EXPECT_EQ(0, tlsErrno);
}

TEST_F(KypPeerConnBlockingTest, TimeoutIsReportedAndALateAnswerGoesToTheRoute) {
    BlockingRequest request(10);
    request.fill({});
    request.set_deadline(std::chrono::seconds(-1));
    next_id(7);

    EXPECT_EQ(0x1008, m_conn.AddKypRequest(&request.request));
    EXPECT_EQ(0x1008, tlsErrno);
    EXPECT_EQ(nullptr, m_conn.slot(7).request.load());

    LogCapture log;
    EXPECT_EQ(0, m_conn.receive(response_frame(200, 9, 7)));
    EXPECT_EQ(1, log.count("ERROR", "port:200 router is not register..."));
}

TEST_F(KypPeerConnBlockingTest, AnswerBehindTheDeadlineIsATimeout) {
    BlockingRequest request(10);
    request.fill({});
    request.set_deadline(std::chrono::seconds(-1));
    answer_with(text("CD"));

    EXPECT_EQ(0x1008, m_conn.AddKypRequest(&request.request));
    EXPECT_EQ(0xdeadu, request.recvLen);
    EXPECT_EQ(Bytes(10), request.answer);
}

TEST_F(KypPeerConnBlockingTest, FailedSendLeavesTheStatusOfTheLink) {
    BlockingRequest request(10);
    for (const int result : {-1, 0, 10}) {
        SCOPED_TRACE(result);
        request.fill({});
        next_id(7);
        m_conn.fail_sends(result, 5);

        EXPECT_EQ(-1, m_conn.AddKypRequest(&request.request));

        EXPECT_EQ(5, tlsErrno);
        EXPECT_EQ(nullptr, m_conn.slot(7).request.load());
    }
}

TEST_F(KypPeerConnBlockingTest, IdsFiveHundredApartShareASlot) {
    BlockingRequest first(10);
    first.fill({});
    next_id(7);
    KypResponse* const slot = m_conn.WriteKypRequest(&first.request);
    ASSERT_NE(nullptr, slot);
    BlockingRequest second(10);
    second.fill({});
    next_id(507);
    LogCapture log;

    EXPECT_EQ(-1, m_conn.AddKypRequest(&second.request));

    EXPECT_EQ(1, log.count("ERROR", "response KypRequest is already in use"));
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(1u, m_conn.m_sent.size());

    slot->Release();
    second.fill({});
    next_id(507);
    EXPECT_EQ(slot, m_conn.WriteKypRequest(&second.request));
}

TEST_F(KypPeerConnBlockingTest, ReleaseWithoutAnAnswerStillKnowsTheLateOne) {
    BlockingRequest request(10);
    request.fill({});
    next_id(7);
    m_conn.WriteKypRequest(&request.request)->Release();
    LogCapture log;

    EXPECT_EQ(-1, m_conn.receive(response_frame(200, 9, 7, text("late"))));

    EXPECT_EQ(1, log.count("ERROR", "request recv timeout"));
    EXPECT_EQ(0xdeadu, request.recvLen);
    EXPECT_EQ(0x1008, m_conn.slot(7).result);
}

TEST_F(KypPeerConnBlockingTest, FreeSlotIsOccupiedWithoutAwaiting) {
    BlockingRequest request(10);
    _AoEHeader aoe{};
    aoe.invokeId = utils_htonl(1007);

    KypResponse* const slot = m_conn.GetFreeResponse(&request.request, aoe);

    EXPECT_EQ(&m_conn.m_responses[7], slot);
    EXPECT_EQ(&request.request, slot->request.load());
    EXPECT_EQ(0u, slot->invokeId.load());
}

TEST_F(KypPeerConnBlockingTest, PendingAnswerIsClaimedOnce) {
    m_conn.slot(7).invokeId = 507;

    EXPECT_EQ(nullptr, m_conn.GetPendingResponse(7));
    EXPECT_EQ(&m_conn.m_responses[7], m_conn.GetPendingResponse(507));
    EXPECT_EQ(0u, m_conn.slot(7).invokeId.load());
    EXPECT_EQ(nullptr, m_conn.GetPendingResponse(507));
}

// --- many threads -----------------------------------------------------------------------------

// A peer on a thread of its own that echoes every request it is given.
class EchoThread {
public:
    explicit EchoThread(FakePeerConnection& conn) : m_conn(conn) {
        conn.m_onSend = [this](Bytes const& frame) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_frames.push_back(frame);
            m_ready.notify_one();
        };
        m_thread = std::thread([this] { run(); });
    }

    ~EchoThread() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_ended = true;
        }
        m_ready.notify_one();
        m_thread.join();
    }

private:
    void run() {
        for (;;) {
            Bytes frame;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_ready.wait(lock, [this] { return m_ended || !m_frames.empty(); });
                if (m_frames.empty()) return;
                frame = std::move(m_frames.front());
                m_frames.pop_front();
            }
            const FrameParts parts = take_apart(frame);
            m_conn.receive(response_frame(parts.port, parts.cmd, parts.invokeId,
                                          Bytes(parts.rest.begin() + 8, parts.rest.end())));
        }
    }

    FakePeerConnection& m_conn;
    std::mutex m_mutex;
    std::condition_variable m_ready;
    std::deque<Bytes> m_frames;
    bool m_ended = false;
    std::thread m_thread;
};

// Exchanges `rounds` payloads of this thread and counts the wrong ones. A slot that is still in use
// 500 ids later is refused, so such a request is asked again.
int wrong_echoes(FakePeerConnection& conn, uint32_t thread, uint32_t rounds) {
    int wrong = 0;
    for (uint32_t round = 0; round < rounds;) {
        const Bytes payload = join({u32_be(thread), u32_be(round)});
        BlockingRequest request(8);
        request.fill(payload);
        const int result = conn.AddKypRequest(&request.request);
        if (result == -1) continue;
        if (result != 0 || request.answer != payload) ++wrong;
        ++round;
    }
    return wrong;
}

TEST_F(KypPeerConnTest, SixtyFourThreadsShareTheRingAcrossTheWrapOfTheIds) {
    SetLogLevel(LOG_LEVEL_CRITICAL);
    next_id(0xffffffff - 3000);
    EchoThread echo(m_conn);
    std::vector<int> wrong(64, -1);

    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < 64; ++i) {
        threads.emplace_back([&, i] { wrong[i] = wrong_echoes(m_conn, i, 100); });
    }
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(std::vector<int>(64, 0), wrong);
    EXPECT_LT(m_conn.m_invokeId, 0xffffffff - 3000);
    for (KypResponse& slot : m_conn.m_responses) EXPECT_EQ(nullptr, slot.request.load());
}

TEST_F(KypPeerConnTest, AnswersThatRaceWithTimeoutsTouchNothingOfTheCaller) {
    SetLogLevel(LOG_LEVEL_CRITICAL);
    EchoThread echo(m_conn);
    std::atomic<int> wrong{0};

    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (uint32_t round = 0; round < 500; ++round) {
                const Bytes payload = join({u32_be(i), u32_be(round)});
                auto request = std::make_unique<BlockingRequest>(8);
                request->fill(payload);
                request->set_deadline(std::chrono::microseconds(round % 50));
                const int result = m_conn.AddKypRequest(&request->request);
                const bool answered = result == 0 && request->answer == payload;
                if (!answered && result != 0x1008 && result != -1) ++wrong;
            }
        });
    }
    for (auto& thread : threads) thread.join();

    EXPECT_EQ(0, wrong);
}

TEST_F(KypPeerConnTest, AnswersThatRaceWithTheNextSendTouchNoFreedRequest) {
    SetLogLevel(LOG_LEVEL_CRITICAL);
    EchoThread echo(m_conn);

    for (int round = 0; round < 2000; ++round) ASSERT_EQ(31, send());

    // The last answer is fetched, all others were dropped by the send behind them.
    EXPECT_EQ(0, m_conn.m_pLatestResponse->Wait());
    EXPECT_EQ("AB", fetch());
}

}  // namespace
