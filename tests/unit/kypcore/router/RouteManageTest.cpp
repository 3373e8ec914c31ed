#include "kypcore/router/RouteManage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

constexpr int kHeadRoom = 48;

// A peer that keeps what it is to send as the bytes that would travel.
class RecordingConn : public CSocketConnection {
public:
    int send_message(_AoEHeader const& aoe, unsigned short port, char const* data, int size,
                     int timeout) override {
        m_sent.push_back(join({kyp_head(port, static_cast<uint32_t>(size) + 13),
                               Bytes(reinterpret_cast<uint8_t const*>(&aoe),
                                     reinterpret_cast<uint8_t const*>(&aoe) + sizeof aoe),
                               Bytes(data, data + size)}));
        m_timeout = timeout;
        return 0;
    }

    std::vector<Bytes> m_sent;
    int m_timeout = -1;
};

// What one call of a svr route was given.
struct SvrCall {
    unsigned short port;
    Bytes data;
    _msg_request request;
    void* ctx;
};
std::vector<SvrCall> g_svrCalls;

void record_svr(unsigned short port, char const* data, unsigned int size, _msg_request request,
                void* ctx) {
    g_svrCalls.push_back({port, Bytes(data, data + size), request, ctx});
}

void other_svr(unsigned short, char const*, unsigned int, _msg_request, void*) {}

// What one call of a cmp route was given.
struct CmpCall {
    Bytes rest;
    _KypHeader header;
    _AoEHeader aoe;
    void* ctx;
};
std::vector<CmpCall> g_cmpCalls;

void record_cmp(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe, void* ctx) {
    g_cmpCalls.push_back(
        {Bytes(msg->GetVaildData(), msg->GetVaildData() + msg->GetVaildSize()), header, aoe, ctx});
}

class RouteManageTest : public testing::Test {
protected:
    RouteManageTest() {
        g_svrCalls.clear();
        g_cmpCalls.clear();
        tlsErrno = 0;
    }

    // A message as the read handler makes it.
    std::unique_ptr<CMsgHeader> received(Bytes const& frame) {
        auto msg = std::make_unique<CMsgHeader>(MSG_MODE_RECV, MSG_TYPE_STREAM);
        msg->setpBuf(utility::instance<server_bufpool>().get_one_buf(
                         static_cast<int>(frame.size()) + kHeadRoom),
                     kHeadRoom);
        if (!frame.empty()) memcpy(msg->GetVaildData(), frame.data(), frame.size());
        msg->addRecvBufSize(static_cast<int>(frame.size()));
        msg->m_pConn = &m_conn;
        return msg;
    }

    std::unique_ptr<CMsgHeader> sendable(Bytes const& frame, int capacity) {
        auto msg = std::make_unique<CMsgHeader>(MSG_MODE_SEND, MSG_TYPE_STREAM);
        auto* const buf = new pbuf(capacity);
        msg->setpBuf(buf, 0);
        if (!frame.empty()) msg->prepend(frame.data(), static_cast<int>(frame.size()));
        msg->m_pConn = &m_conn;
        return msg;
    }

    int call(Bytes const& frame) { return m_routes->call(received(frame).get()); }

    RecordingConn m_conn;
    std::unique_ptr<RouteManage> m_routes = std::make_unique<RouteManage>();
    int m_ctx = 0;
};

TEST_F(RouteManageTest, ARequestIs27BytesInItsOrder) {
    EXPECT_EQ(27U, sizeof(_msg_request));
    EXPECT_EQ(0U, offsetof(_msg_request, version));
    EXPECT_EQ(1U, offsetof(_msg_request, cmd));
    EXPECT_EQ(3U, offsetof(_msg_request, invokeId));
    EXPECT_EQ(7U, offsetof(_msg_request, indexGroup));
    EXPECT_EQ(11U, offsetof(_msg_request, indexOffset));
    EXPECT_EQ(15U, offsetof(_msg_request, error));
    EXPECT_EQ(19U, offsetof(_msg_request, conn));
}

TEST_F(RouteManageTest, HasAnEntryForEveryPortAndOneForZero) {
    EXPECT_EQ(24U, sizeof(PortRegister));
    EXPECT_EQ(sizeof(std::mutex) + 4097 * sizeof(PortRegister), sizeof(RouteManage));
}

TEST_F(RouteManageTest, BeginsWithEmptyEntries) {
    for (PortRegister const& entry : m_routes->m_ports) {
        ASSERT_EQ(0, entry.m_type);
        ASSERT_EQ(0, entry.m_bUsed);
        ASSERT_EQ(0, entry.m_port);
        ASSERT_EQ(nullptr, entry.m_callback);
        ASSERT_EQ(nullptr, entry.m_ctx);
    }
}

TEST_F(RouteManageTest, RegistersTheLowestAndTheHighestPort) {
    for (unsigned short port : {1, 4096}) {
        SCOPED_TRACE(port);

        EXPECT_EQ(0, m_routes->addSvrPortRoute(port, record_svr, &m_ctx));
        EXPECT_EQ(0, m_routes->delPortRoute(port));
        EXPECT_EQ(0, m_routes->addCmpPortRoute(port, record_cmp, &m_ctx));
        EXPECT_EQ(0, tlsErrno);
    }
}

TEST_F(RouteManageTest, RefusesPortsOutsideTheTable) {
    for (unsigned short port : {0, 4097, 65535}) {
        SCOPED_TRACE(port);

        tlsErrno = 0;
        EXPECT_EQ(0x1012, m_routes->addSvrPortRoute(port, record_svr, nullptr));
        EXPECT_EQ(0x1012, tlsErrno);
        tlsErrno = 0;
        EXPECT_EQ(0x1012, m_routes->addCmpPortRoute(port, record_cmp, nullptr));
        EXPECT_EQ(0x1012, tlsErrno);
        tlsErrno = 0;
        EXPECT_EQ(0x1012, m_routes->delPortRoute(port));
        EXPECT_EQ(0x1012, tlsErrno);
    }
}

TEST_F(RouteManageTest, KeepsTheFirstOfTwoRoutes) {
    m_routes->addSvrPortRoute(600, record_svr, &m_ctx);
    LogCapture log;

    EXPECT_EQ(0x1007, m_routes->addSvrPortRoute(600, other_svr, nullptr));
    EXPECT_EQ(0x1007, m_routes->addCmpPortRoute(600, record_cmp, nullptr));

    EXPECT_EQ(0x1007, tlsErrno);
    EXPECT_EQ(2, log.count("ERROR", "port:600 router is already register..."));
    call(request_frame(600, 9, 1, 0, 0));
    ASSERT_EQ(1U, g_svrCalls.size());
    EXPECT_EQ(&m_ctx, g_svrCalls[0].ctx);
}

TEST_F(RouteManageTest, KeepsServingADeletedRoute) {
    m_routes->addSvrPortRoute(600, record_svr, &m_ctx);

    EXPECT_EQ(0, m_routes->delPortRoute(600));

    call(request_frame(600, 9, 1, 0, 0));
    EXPECT_EQ(1U, g_svrCalls.size());
    EXPECT_EQ(0, m_routes->m_ports[600].m_bUsed);
    EXPECT_EQ(600, m_routes->m_ports[600].m_port);
    EXPECT_EQ(&m_ctx, m_routes->m_ports[600].m_ctx);
}

TEST_F(RouteManageTest, ANewRegistrationTakesTheDeletedRoutesPlace) {
    m_routes->addSvrPortRoute(600, record_svr, nullptr);
    m_routes->delPortRoute(600);

    EXPECT_EQ(0, m_routes->addCmpPortRoute(600, record_cmp, &m_ctx));

    call(request_frame(600, 9, 1, 0, 0));
    EXPECT_TRUE(g_svrCalls.empty());
    EXPECT_EQ(1U, g_cmpCalls.size());
}

TEST_F(RouteManageTest, GivesASvrRouteTheRequestInHostOrder) {
    m_routes->addSvrPortRoute(200, record_svr, &m_ctx);

    EXPECT_EQ(0, call(bytes("00 01 C8 00 17 00 00 00"
                            "00 00 00 05 00 00 00 07 00 09 00 00 00"
                            "00 00 00 10 00 00 00 20"
                            "41 42")));

    ASSERT_EQ(1U, g_svrCalls.size());
    SvrCall const& got = g_svrCalls[0];
    EXPECT_EQ(200, got.port);
    EXPECT_EQ("AB", as_text(got.data));
    EXPECT_EQ(&m_ctx, got.ctx);
    EXPECT_EQ(1, got.request.version);
    EXPECT_EQ(9, static_cast<int>(got.request.cmd));
    EXPECT_EQ(7U, static_cast<uint32_t>(got.request.invokeId));
    EXPECT_EQ(0x10U, static_cast<uint32_t>(got.request.indexGroup));
    EXPECT_EQ(0x20U, static_cast<uint32_t>(got.request.indexOffset));
    EXPECT_EQ(5U, static_cast<uint32_t>(got.request.error));
    EXPECT_EQ(&m_conn, static_cast<IConnection*>(got.request.conn));
}

TEST_F(RouteManageTest, GivesASvrRouteThePayloadInPlace) {
    static char const* seen;
    m_routes->addSvrPortRoute(
        200,
        [](unsigned short, char const* data, unsigned int, _msg_request, void*) { seen = data; },
        nullptr);
    auto const msg = received(request_frame(200, 9, 1, 0, 0, text("payload")));
    unsigned char* const frame = msg->GetVaildData();

    m_routes->call(msg.get());

    EXPECT_EQ(reinterpret_cast<char const*>(frame + 29), seen);
}

TEST_F(RouteManageTest, HandsTheFramesVersionOn) {
    m_routes->addSvrPortRoute(200, record_svr, nullptr);

    call(request_frame(200, 9, 1, 0, 0, {}, 0));

    ASSERT_EQ(1U, g_svrCalls.size());
    EXPECT_EQ(0, g_svrCalls[0].request.version);
}

TEST_F(RouteManageTest, LogsTheHeadsOfEveryFrame) {
    SetLogLevel(LOG_LEVEL_TRACE);
    LogCapture log;

    call(join({kyp_head(700, 13), aoe_head(4, 7, 9, 1)}));

    EXPECT_EQ(1, log.count("TRACE",
                           "KypHeader len:13,port:700,AoeHeader:error:4,invokeId:7,Cmd:9,State:1(0:"
                           "REQ 1:RES)"));
}

TEST_F(RouteManageTest, GivesACmpRouteTheHeadsAsTheyCame) {
    m_routes->addCmpPortRoute(200, record_cmp, &m_ctx);

    EXPECT_EQ(0, call(request_frame(200, 9, 7, 0x10, 0x20, text("AB"))));

    ASSERT_EQ(1U, g_cmpCalls.size());
    CmpCall const& got = g_cmpCalls[0];
    EXPECT_EQ(&m_ctx, got.ctx);
    EXPECT_EQ(23U, static_cast<uint32_t>(got.header.nMsgLen));
    EXPECT_EQ(utils_htonl(7), static_cast<uint32_t>(got.aoe.invokeId));
    EXPECT_EQ(utils_htons(9), static_cast<uint16_t>(got.aoe.cmd));
    EXPECT_EQ("00 00 00 10 00 00 00 20 41 42", hex(got.rest));
}

TEST_F(RouteManageTest, AnswersAPortOutsideTheTable) {
    int const result = call(request_frame(5000, 9, 7, 0x10, 0x20, text("AB")));

    EXPECT_EQ(0x1014, result);
    EXPECT_EQ(0x1014, tlsErrno);
    ASSERT_EQ(1U, m_conn.m_sent.size());
    EXPECT_EQ("00 01 88 13 0D 00 00 00 00 00 10 14 00 00 00 07 00 09 00 00 01",
              hex(m_conn.m_sent[0]));
    EXPECT_EQ(1000, m_conn.m_timeout);
}

TEST_F(RouteManageTest, AnswersTheNeighboursOfTheTable) {
    EXPECT_EQ(0x1014, call(request_frame(0, 9, 7, 0, 0)));
    EXPECT_EQ(0x1014, call(request_frame(4097, 9, 8, 0, 0)));
    EXPECT_EQ(0, call(request_frame(1, 9, 7, 0, 0)));
    EXPECT_EQ(0, call(request_frame(4096, 9, 7, 0, 0)));

    EXPECT_EQ(2U, m_conn.m_sent.size());
}

TEST_F(RouteManageTest, KeepsSilentAboutAPortThatNobodyServes) {
    SetLogLevel(LOG_LEVEL_DEBUG);
    auto const msg = received(request_frame(700, 9, 7, 0, 0));
    LogCapture log;

    EXPECT_EQ(0, m_routes->call(msg.get()));

    EXPECT_TRUE(m_conn.m_sent.empty());
    EXPECT_EQ("", log.text());
}

TEST_F(RouteManageTest, ARouteWithoutCallbackDoesNothing) {
    m_routes->addSvrPortRoute(700, nullptr, &m_ctx);
    m_routes->addCmpPortRoute(701, nullptr, &m_ctx);

    EXPECT_EQ(0, call(request_frame(700, 9, 7, 0, 0)));
    EXPECT_EQ(0, call(request_frame(701, 9, 7, 0, 0)));

    EXPECT_TRUE(m_conn.m_sent.empty());
}

TEST_F(RouteManageTest, ReadsAHeadThatIsNotThereAsZero) {
    m_routes->addSvrPortRoute(200, record_svr, nullptr);
    Bytes const whole = request_frame(200, 9, 7, 0x10, 0x20);
    for (size_t length = 8; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        g_svrCalls.clear();

        EXPECT_EQ(0, call(Bytes(whole.begin(), whole.begin() + static_cast<long>(length))));

        ASSERT_EQ(1U, g_svrCalls.size());
        bool const hasAoe = length >= 21;
        EXPECT_EQ(hasAoe ? 9 : 0, static_cast<int>(g_svrCalls[0].request.cmd));
        EXPECT_EQ(hasAoe ? 7U : 0U, static_cast<uint32_t>(g_svrCalls[0].request.invokeId));
        EXPECT_EQ(0U, static_cast<uint32_t>(g_svrCalls[0].request.indexGroup));
        EXPECT_EQ(0U, static_cast<uint32_t>(g_svrCalls[0].request.indexOffset));
        EXPECT_EQ(0U, g_svrCalls[0].data.size());
    }
}

TEST_F(RouteManageTest, AFrameWithoutAHeadIsForPortZero) {
    for (size_t length = 0; length < 8; ++length) {
        SCOPED_TRACE(length);
        m_conn.m_sent.clear();

        EXPECT_EQ(0x1014, call(Bytes(length, 0xff)));

        ASSERT_EQ(1U, m_conn.m_sent.size());
        EXPECT_EQ("00 01 00 00 0D 00 00 00 00 00 10 14 00 00 00 00 00 00 00 00 01",
                  hex(m_conn.m_sent[0]));
    }
}

TEST_F(RouteManageTest, KeepsNothingOfAHeadThatIsNotThereWhole) {
    m_routes->addCmpPortRoute(200, record_cmp, nullptr);

    call(join({kyp_head(200, 12), Bytes(12, 0xff)}));

    ASSERT_EQ(1U, g_cmpCalls.size());
    EXPECT_EQ("", hex(g_cmpCalls[0].rest));
    EXPECT_EQ(0U, static_cast<uint32_t>(g_cmpCalls[0].aoe.error));
    EXPECT_EQ(0, g_cmpCalls[0].aoe.state);
}

TEST_F(RouteManageTest, AShortMessageEndsAtItsOwnEnd) {
    m_routes->addCmpPortRoute(200, record_cmp, nullptr);
    auto const msg = received(kyp_head(200, 5));
    unsigned char* const end = msg->m_recvBuf.m_end;

    m_routes->call(msg.get());

    EXPECT_EQ(end, msg->GetVaildData());
    EXPECT_EQ(0, msg->GetVaildSize());
}

TEST_F(RouteManageTest, ASizeBelowZeroReachesARouteAsZero) {
    m_routes->addSvrPortRoute(200, record_svr, nullptr);
    auto const msg = received({});
    msg->m_recvBuf.m_begin += 4;
    _KypHeader header = {0, 1, 200, 0};
    _AoEHeader aoe = {};
    AoERequestHeader request = {};

    m_routes->cbNotifyRequest(msg.get(), header, aoe, request, m_routes->m_ports[200]);
    m_routes->comp_datacallback(msg->GetVaildData(), -1, header, aoe, request, &m_conn);
    m_routes->comp_datacallback(&msg->m_recvBuf, header, aoe, request, &m_conn);

    ASSERT_EQ(3U, g_svrCalls.size());
    for (SvrCall const& got : g_svrCalls) EXPECT_EQ(0U, got.data.size());
}

TEST_F(RouteManageTest, ReadsAMessageInSendModeFromItsBuffer) {
    m_routes->addSvrPortRoute(200, record_svr, nullptr);
    auto const msg = sendable(request_frame(200, 9, 7, 0x10, 0x20, text("AB")), 128);

    EXPECT_EQ(0, m_routes->call(msg.get()));

    ASSERT_EQ(1U, g_svrCalls.size());
    EXPECT_EQ(7U, static_cast<uint32_t>(g_svrCalls[0].request.invokeId));
    EXPECT_EQ(0x20U, static_cast<uint32_t>(g_svrCalls[0].request.indexOffset));
    EXPECT_EQ("AB", as_text(g_svrCalls[0].data));
    EXPECT_EQ(2, msg->GetVaildSize());
}

TEST_F(RouteManageTest, KeepsAskingTheCapacityOfAMessageInSendMode) {
    m_routes->addSvrPortRoute(200, record_svr, nullptr);
    auto const msg = sendable(bytes("00 01 C8 00"), 64);

    EXPECT_EQ(0, m_routes->call(msg.get()));

    ASSERT_EQ(1U, g_svrCalls.size());
    EXPECT_EQ(0, static_cast<int>(g_svrCalls[0].request.cmd));
    EXPECT_EQ(0U, g_svrCalls[0].data.size());
}

TEST_F(RouteManageTest, ASendBufferTooSmallForTheHeadIsForPortZero) {
    auto const msg = sendable(bytes("00 01 C8 00"), 7);

    EXPECT_EQ(0x1014, m_routes->call(msg.get()));

    ASSERT_EQ(1U, m_conn.m_sent.size());
    EXPECT_EQ(0, take_apart(m_conn.m_sent[0]).port);
}

TEST_F(RouteManageTest, AMessageInNoModeIsForPortZero) {
    m_routes->addSvrPortRoute(200, record_svr, nullptr);
    auto const msg = received(request_frame(200, 9, 7, 0, 0));
    msg->m_enMode = static_cast<EnMsgMode>(3);

    EXPECT_EQ(0x1014, m_routes->call(msg.get()));

    EXPECT_TRUE(g_svrCalls.empty());
    EXPECT_EQ(1U, m_conn.m_sent.size());
    msg->m_enMode = MSG_MODE_RECV;
}

TEST_F(RouteManageTest, TheTableIsNotReadOutsideItsBounds) {
    auto const msg = received({});
    _AoEHeader aoe = {};
    for (unsigned short port : {0, 4097, 65535}) {
        SCOPED_TRACE(port);
        _KypHeader header = {0, 1, port, 0};

        EXPECT_EQ(0x1014, m_routes->dataCallback(msg.get(), header, aoe));
    }
}

TEST_F(RouteManageTest, AnErrorAnswerRepeatsCommandAndInvokeId) {
    _KypHeader const header = {0, 1, 300, 99};
    _AoEHeader aoe = {};
    aoe.error = utils_htonl(3);
    aoe.invokeId = utils_htonl(0x01020304);
    aoe.cmd = utils_htons(4);
    aoe.reserved = 0xffff;

    EXPECT_EQ(0, m_routes->ErrorResponse(header, aoe, 0x1006, static_cast<IConnection*>(&m_conn)));

    ASSERT_EQ(1U, m_conn.m_sent.size());
    EXPECT_EQ("00 01 2C 01 0D 00 00 00 00 00 10 06 01 02 03 04 00 04 00 00 01",
              hex(m_conn.m_sent[0]));
}

TEST_F(RouteManageTest, AnErrorAnswerToNobodyGoesNowhere) {
    _KypHeader const header = {0, 1, 300, 99};

    EXPECT_EQ(0, m_routes->ErrorResponse(header, {}, 0x1006, nullptr));
}

TEST_F(RouteManageTest, KeepsDispatchingAResponseAsARequest) {
    m_routes->addSvrPortRoute(200, record_svr, nullptr);

    EXPECT_EQ(0, call(response_frame(200, 9, 7, text("\1\2\3\4\5\6\7\10AB"))));

    ASSERT_EQ(1U, g_svrCalls.size());
    EXPECT_EQ("AB", as_text(g_svrCalls[0].data));
}

class CompDataCallbackTest : public RouteManageTest {
protected:
    CompDataCallbackTest() {
        m_aoe.error = utils_htonl(2);
        m_aoe.invokeId = utils_htonl(7);
        m_aoe.cmd = utils_htons(9);
        m_request.indexGroup = utils_htonl(0x10);
        m_request.indexOffset = utils_htonl(0x20);
    }

    int call_with_bytes(unsigned short port, Bytes payload) {
        _KypHeader header = {0, 1, port, 23};
        return m_routes->comp_datacallback(payload.data(), static_cast<int>(payload.size()), header,
                                           m_aoe, m_request, static_cast<IConnection*>(&m_conn));
    }

    _AoEHeader m_aoe = {};
    AoERequestHeader m_request = {};
};

TEST_F(CompDataCallbackTest, CallsTheSvrRouteOfThePort) {
    m_routes->addSvrPortRoute(600, record_svr, &m_ctx);
    SetLogLevel(LOG_LEVEL_TRACE);
    LogCapture log;

    EXPECT_EQ(0, call_with_bytes(600, text("AB")));

    ASSERT_EQ(1U, g_svrCalls.size());
    SvrCall const& got = g_svrCalls[0];
    EXPECT_EQ(600, got.port);
    EXPECT_EQ("AB", as_text(got.data));
    EXPECT_EQ(&m_ctx, got.ctx);
    EXPECT_EQ(7U, static_cast<uint32_t>(got.request.invokeId));
    EXPECT_EQ(0x10U, static_cast<uint32_t>(got.request.indexGroup));
    EXPECT_EQ(0x20U, static_cast<uint32_t>(got.request.indexOffset));
    EXPECT_EQ(2U, static_cast<uint32_t>(got.request.error));
    EXPECT_EQ(&m_conn, static_cast<IConnection*>(got.request.conn));
    EXPECT_EQ(1, log.count("TRACE", "port:600,AoeHeader:error:2,invokeId:7,Cmd:9"));
}

TEST_F(CompDataCallbackTest, TakesThePayloadFromAReceiveBuffer) {
    m_routes->addSvrPortRoute(600, record_svr, nullptr);
    RecvBuf buf(true);
    buf.init_pbuf(utility::instance<server_bufpool>().get_one_buf(64), 16);
    buf.pushback("AB", 2);
    _KypHeader header = {0, 1, 600, 0};

    EXPECT_EQ(0, m_routes->comp_datacallback(&buf, header, m_aoe, m_request, &m_conn));

    ASSERT_EQ(1U, g_svrCalls.size());
    EXPECT_EQ("AB", as_text(g_svrCalls[0].data));
}

TEST_F(CompDataCallbackTest, AnswersAndLogsAPortOutsideTheTable) {
    RecvBuf buf(true);
    for (unsigned short port : {0, 4097}) {
        SCOPED_TRACE(port);
        LogCapture log;
        m_conn.m_sent.clear();
        tlsErrno = 0;
        _KypHeader header = {0, 1, port, 0};

        EXPECT_EQ(0x1014, call_with_bytes(port, {}));
        EXPECT_EQ(0x1014, m_routes->comp_datacallback(&buf, header, m_aoe, m_request, &m_conn));

        EXPECT_EQ(0x1014, tlsErrno);
        EXPECT_EQ(2, log.count("ERROR", "port error:" + std::to_string(port)));
        ASSERT_EQ(2U, m_conn.m_sent.size());
        EXPECT_EQ(0x1014U, take_apart(m_conn.m_sent[0]).error);
        EXPECT_EQ(7U, take_apart(m_conn.m_sent[0]).invokeId);
    }
}

TEST_F(CompDataCallbackTest, ABadPortIsAnsweredWithoutABuffer) {
    _KypHeader bad = {0, 1, 5000, 0};
    _KypHeader good = {0, 1, 600, 0};
    m_routes->addSvrPortRoute(600, record_svr, nullptr);
    RecvBuf* const none = nullptr;

    EXPECT_EQ(0x1014, m_routes->comp_datacallback(none, bad, m_aoe, m_request, &m_conn));
    EXPECT_EQ(0, m_routes->comp_datacallback(none, good, m_aoe, m_request, &m_conn));

    EXPECT_EQ(1U, m_conn.m_sent.size());
    ASSERT_EQ(1U, g_svrCalls.size());
    EXPECT_EQ(0U, g_svrCalls[0].data.size());
}

TEST_F(CompDataCallbackTest, AcceptsTheEndsOfTheTable) {
    EXPECT_EQ(0, call_with_bytes(1, text("A")));
    EXPECT_EQ(0, call_with_bytes(4096, text("A")));

    EXPECT_TRUE(m_conn.m_sent.empty());
}

TEST_F(CompDataCallbackTest, KeepsCallingAnEntryAsASvrRouteWhateverItsType) {
    m_routes->addSvrPortRoute(600, record_svr, nullptr);
    m_routes->m_ports[600].m_type = 1;

    EXPECT_EQ(0, call_with_bytes(600, text("A")));

    EXPECT_EQ(1U, g_svrCalls.size());
}

}  // namespace
