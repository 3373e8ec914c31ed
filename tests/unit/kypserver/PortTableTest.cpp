#include "kypserver/PortTable.h"

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

class RecordingConn : public CSocketConnection {
public:
    int send_message(_AoEHeader const& aoe, unsigned short port, char const* /*data*/, int size,
                     int /*timeout*/) override {
        auto const* const head = reinterpret_cast<uint8_t const*>(&aoe);
        m_sent.push_back(
            join({kyp_head(port, static_cast<uint32_t>(size) + 13), Bytes(head, head + 13)}));
        return 0;
    }

    std::vector<Bytes> m_sent;
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

    RecordingConn m_conn;
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

TEST_F(PortTableTest, RefusesRequestsForPortsThatNobodyServes) {
    RecordingService service(600);
    m_table.serve(service);
    m_table.refuse_the_rest();

    receive(request_frame(601, 9, 7, 1, 2, text("AB")));
    receive(request_frame(1, 2, 8, 0, 0));
    receive(request_frame(4096, 4, 9, 0, 0));

    ASSERT_EQ(3U, m_conn.m_sent.size());
    EXPECT_EQ("00 01 59 02 0D 00 00 00 00 00 10 06 00 00 00 07 00 09 00 00 01",
              hex(m_conn.m_sent[0]));
    EXPECT_EQ(0x1006U, take_apart(m_conn.m_sent[1]).error);
    EXPECT_EQ(0x1006U, take_apart(m_conn.m_sent[2]).error);
    EXPECT_EQ(0, service.m_served);
}

TEST_F(PortTableTest, ARequestThatIsServedIsNoLongerHeld) {
    RecordingService service(600);
    RecordingService inOrder(602, true);
    m_table.serve(service);
    m_table.serve(inOrder);
    m_table.refuse_the_rest();
    for (Bytes const& frame :
         {request_frame(600, 9, 1, 0, 0, text("AB")), request_frame(601, 6, 1, 0, 0, text("AB")),
          request_frame(602, 9, 1, 0, 0, text("AB")), join({kyp_head(600, 3), Bytes(3)}),
          join({kyp_head(601, 15), Bytes(15)}), join({kyp_head(602, 15), Bytes(15)})}) {
        SCOPED_TRACE(hex(frame));
        _KypHeader head;
        memcpy(&head, frame.data(), sizeof head);
        ASSERT_TRUE(m_held.take(&m_conn, head));

        receive(frame);

        size_t const answers = m_conn.m_sent.size();
        EXPECT_EQ(answers * (21 + CHeldBytes::kPerMessage), m_held.held(&m_conn));
    }
}

TEST_F(PortTableTest, ARefusalIsHeldUntilItHasLeft) {
    m_table.refuse_the_rest();
    ASSERT_TRUE(m_held.take(&m_conn, {0, 1, 601, 23}));

    receive(request_frame(601, 9, 7, 0, 0, text("AB")));

    EXPECT_EQ(21 + CHeldBytes::kPerMessage, m_held.held(&m_conn));
}

TEST_F(PortTableTest, DoesNotAnswerWhereNobodyWaits) {
    m_table.refuse_the_rest();

    for (uint16_t cmd : {6, 7, 8}) receive(request_frame(600, cmd, 7, 0, 0));
    receive(response_frame(600, 9, 7));

    EXPECT_TRUE(m_conn.m_sent.empty());
}

}  // namespace
}  // namespace kypserver
