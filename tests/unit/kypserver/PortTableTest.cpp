#include "kypserver/PortTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/Strands.h"
#include "support/FrameBytes.h"
#include "utils/Log.h"

namespace kypserver {
namespace {

class RecordingHandler : public IFrameHandler {
public:
    void handle(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& /*aoe*/) override {
        m_ports.push_back(head.port);
        m_rest.assign(msg.GetVaildData(), msg.GetVaildData() + msg.GetVaildSize());
    }

    std::vector<int> m_ports;
    Bytes m_rest;
};

class RecordingService : public IService {
public:
    explicit RecordingService(unsigned short port, bool inOrder = false)
        : m_port(port), m_inOrder(inOrder) {}
    unsigned short port() const override { return m_port; }
    bool in_order() const override { return m_inOrder; }
    void serve(Request const& request) override {
        ++m_served;
        m_lastHead = request.head;
        m_lastPort = request.port;
        m_lastData.assign(request.data, request.data + request.size);
    }

    int m_served = 0;
    unsigned short m_lastPort = 0;
    Bytes m_lastData;
    _msg_request m_lastHead = {};

private:
    unsigned short m_port;
    bool m_inOrder;
};

class PortTableTest : public testing::Test {
protected:
    PortTableTest() { SetLogLevel(LOG_LEVEL_ERROR); }

    void receive(Bytes const& frame) {
        CMsgHeader msg(MSG_MODE_RECV, MSG_TYPE_STREAM);
        msg.setpBuf(utility::instance<server_bufpool>().get_one_buf(128), 48);
        memcpy(msg.GetVaildData(), frame.data(), frame.size());
        msg.addRecvBufSize(static_cast<int>(frame.size()));
        msg.m_pConn = &m_conn;
        _KypHeader head;
        memcpy(&head, frame.data(), sizeof head);
        m_strands.expect(&msg, head);
        m_routes->call(&msg);
    }

    CSocketConnection m_conn;
    RecordingHandler m_handler;
    std::unique_ptr<RouteManage> m_routes = std::make_unique<RouteManage>();
    CHeldBytes m_held{1000000};
    CStrands m_strands;
    CPortTable m_table{*m_routes, m_held, m_strands};
};

TEST_F(PortTableTest, GivesRequestsToTheServiceOfTheirPort) {
    RecordingService service(600);
    ASSERT_TRUE(m_table.serve(service));

    receive(request_frame(600, 9, 1, 0, 0, text("AB")));

    EXPECT_EQ(1, service.m_served);
    EXPECT_EQ(600, service.m_lastPort);
    EXPECT_EQ("AB", as_text(service.m_lastData));
}

TEST_F(PortTableTest, AServiceInOrderIsGivenTheSame) {
    RecordingService service(600, true);
    ASSERT_TRUE(m_table.serve(service));

    receive(join({kyp_head(600, 23, 5), aoe_head(9, 7, 8, 0), address_head(1, 2), text("AB")}));

    EXPECT_EQ(1, service.m_served);
    EXPECT_EQ(600, service.m_lastPort);
    EXPECT_EQ("AB", as_text(service.m_lastData));
    EXPECT_EQ(5, service.m_lastHead.version);
    EXPECT_EQ(8, service.m_lastHead.cmd);
    EXPECT_EQ(7U, service.m_lastHead.invokeId);
    EXPECT_EQ(1U, service.m_lastHead.indexGroup);
    EXPECT_EQ(2U, service.m_lastHead.indexOffset);
    EXPECT_EQ(9U, service.m_lastHead.error);
    EXPECT_EQ(&m_conn, service.m_lastHead.conn);
}

TEST_F(PortTableTest, AServiceInOrderReadsAShortFrameAsZeros) {
    RecordingService service(600, true);
    m_table.serve(service);

    receive(join({kyp_head(600, 20), aoe_head(0, 7, 9, 0), Bytes(7, 0xff)}));
    EXPECT_EQ(7U, service.m_lastHead.invokeId);
    EXPECT_EQ(0U, service.m_lastHead.indexGroup);
    EXPECT_EQ("", as_text(service.m_lastData));

    receive(join({kyp_head(600, 3), Bytes(3, 0xff)}));
    EXPECT_EQ(2, service.m_served);
    EXPECT_EQ(0U, service.m_lastHead.invokeId);
    EXPECT_EQ("", as_text(service.m_lastData));
}

TEST_F(PortTableTest, APortHasOneService) {
    RecordingService first(600);
    RecordingService second(600);
    RecordingService third(600, true);
    RecordingService outside(4097);
    RecordingService alsoOutside(4097, true);
    m_table.serve(first);

    EXPECT_FALSE(m_table.serve(second));
    EXPECT_FALSE(m_table.serve(third));
    EXPECT_FALSE(m_table.serve(outside));
    EXPECT_FALSE(m_table.serve(alsoOutside));
}

TEST_F(PortTableTest, EveryOtherPortIsTheHandlers) {
    RecordingService service(600);
    m_table.serve(service);
    m_table.give_the_rest_to(m_handler);

    for (uint16_t port : {1, 599, 600, 601, 4096}) receive(request_frame(port, 9, 7, 1, 2));
    receive(response_frame(601, 9, 7));

    EXPECT_EQ(1, service.m_served);
    EXPECT_THAT(m_handler.m_ports, testing::ElementsAre(1, 599, 601, 4096, 601));
}

TEST_F(PortTableTest, TheHandlerStandsBehindTheHeadsOfAMessageInItsTurn) {
    m_table.give_the_rest_to(m_handler);

    receive(request_frame(601, 9, 7, 0x10, 0x20, text("AB")));

    EXPECT_EQ("00 00 00 10 00 00 00 20 41 42", hex(m_handler.m_rest));
    EXPECT_EQ(0U, m_strands.waiting(&m_conn));
}

TEST_F(PortTableTest, ARequestThatIsServedIsNoLongerHeld) {
    RecordingService service(600);
    RecordingService inOrder(602, true);
    m_table.serve(service);
    m_table.serve(inOrder);
    for (Bytes const& frame :
         {request_frame(600, 9, 1, 0, 0, text("AB")), request_frame(602, 9, 1, 0, 0, text("AB")),
          join({kyp_head(600, 3), Bytes(3)}), join({kyp_head(602, 15), Bytes(15)})}) {
        SCOPED_TRACE(hex(frame));
        _KypHeader head;
        memcpy(&head, frame.data(), sizeof head);
        ASSERT_TRUE(m_held.take(&m_conn, head));

        receive(frame);

        EXPECT_EQ(0U, m_held.held(&m_conn));
    }
}

}  // namespace
}  // namespace kypserver
