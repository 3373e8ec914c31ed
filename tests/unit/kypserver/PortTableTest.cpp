#include "kypserver/PortTable.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/HeldBytes.h"
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
    explicit RecordingService(unsigned short port) : m_port(port) {}
    unsigned short port() const override { return m_port; }
    void serve(Request const& request) override {
        ++m_served;
        m_lastPort = request.port;
        m_lastData.assign(request.data, request.data + request.size);
    }

    int m_served = 0;
    unsigned short m_lastPort = 0;
    Bytes m_lastData;

private:
    unsigned short m_port;
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
        m_routes->call(&msg);
    }

    RecordingConn m_conn;
    std::unique_ptr<RouteManage> m_routes = std::make_unique<RouteManage>();
    CHeldBytes m_held{1000000};
    CPortTable m_table{*m_routes, m_held};
};

TEST_F(PortTableTest, GivesRequestsToTheServiceOfTheirPort) {
    RecordingService service(600);
    ASSERT_TRUE(m_table.serve(service));

    receive(request_frame(600, 9, 1, 0, 0, text("AB")));

    EXPECT_EQ(1, service.m_served);
    EXPECT_EQ(600, service.m_lastPort);
    EXPECT_EQ("AB", as_text(service.m_lastData));
}

TEST_F(PortTableTest, APortHasOneService) {
    RecordingService first(600);
    RecordingService second(600);
    RecordingService outside(4097);
    m_table.serve(first);

    EXPECT_FALSE(m_table.serve(second));
    EXPECT_FALSE(m_table.serve(outside));
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
    m_table.serve(service);
    m_table.refuse_the_rest();
    for (Bytes const& frame :
         {request_frame(600, 9, 1, 0, 0, text("AB")), request_frame(601, 6, 1, 0, 0, text("AB")),
          join({kyp_head(600, 3), Bytes(3)}), join({kyp_head(601, 15), Bytes(15)})}) {
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
