#include "kypclient/Ivshmclient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

#include "kypclient/IvshmGroup.h"
#include "kypclient/KypRequest.h"
#include "kypcomm/KypStatus.h"
#include "support/FakeTopics.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint16_t kPort = 600;
constexpr int kRead = 0;
constexpr int kWrite = 1;

// One client of a group whose handles are set.
class CIvshmClientTest : public ::testing::Test {
protected:
    CIvshmClientTest() : m_group(IvshmGroup::makeIvshmGroup(1, 0, 4096)) {
        m_group->m_hRead = m_topics.handle(kRead);
        m_group->m_hWrite = m_topics.handle(kWrite);
        EXPECT_TRUE(m_group->init_ivshm_topic());
        EXPECT_EQ(0, m_group->start());
        (void)m_group->openVClient();
        (void)m_group->openVClient();
        m_client = m_group->makeIvshmClient();
        tlsErrno = 0;
    }

    ~CIvshmClientTest() override {
        m_topics.end_waits();
        m_group->destoryIvshmClient(m_client);
        IvshmGroup::destoryIvshmGroup(m_group);
    }

    // What a message of this client looks like.
    static Bytes message(Bytes const& frame) {
        return shm_message(3, static_cast<uint32_t>(getpid()), frame);
    }

    void take(Bytes const& frame) {
        m_topics.put(kRead, message(frame));
        ASSERT_TRUE(m_topics.wait_consumed(kRead));
    }

    // A request of the split way that has been sent under `id`, set up by hand: the client's own
    // send gives each request up.
    void await_answer(uint32_t id) {
        m_client->m_pLatestRequest = new KypRequest{
            false, Frame(8, nullptr), {},      kPort, 9,
            0,     nullptr,           nullptr, 0,     std::numeric_limits<int64_t>::max()};
        m_client->m_pLatestResponse =
            m_client->GetFreeResponse(m_client->m_pLatestRequest, {0, utils_htonl(id), 0, 0, 0});
        ASSERT_NE(nullptr, m_client->m_pLatestResponse);
        m_client->m_pLatestResponse->invokeId = id;
    }

    int fetch(std::string& data, int timeoutMs = 20000) {
        unsigned short port = 0;
        char buf[64] = {};
        int const n = m_client->raw_recv(&port, buf, 5, timeoutMs);
        data.assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
        return n;
    }

    FakeTopics m_topics;
    LogCapture m_log;
    IvshmGroup* m_group;
    CIvshmClient* m_client;
};

TEST_F(CIvshmClientTest, IsMadeByItsGroup) {
    EXPECT_EQ(3, m_client->m_clientId);
    EXPECT_EQ(m_group, m_client->m_pGroup);
}

TEST_F(CIvshmClientTest, ConnectsAtOnce) {
    EXPECT_EQ(1, m_client->connect(0));
    EXPECT_EQ(1, m_client->reconnect(-1));
    EXPECT_EQ(0, m_client->start());
    EXPECT_EQ(0, m_client->stop());
    m_client->disconnect();
    EXPECT_EQ(1, m_client->connect(1000));
}

TEST_F(CIvshmClientTest, KeepsSayingThatItIsNotConnected) {
    m_client->connect(1000);

    EXPECT_FALSE(m_client->isconnected());
    EXPECT_FALSE(m_client->m_connected);
    m_client->m_connected = true;
    EXPECT_TRUE(m_client->isconnected());
}

TEST_F(CIvshmClientTest, IsWithoutAGroupByTheOtherConstructor) {
    CIvshmClient client(_KypDeviceId{{1, 2, 3, 4, 5, 6}}, "groupIndex=0");
    Frame frame(4, "abcd");

    EXPECT_EQ(nullptr, client.m_pGroup);
    EXPECT_EQ(0, client.m_clientId);
    EXPECT_EQ("groupIndex=0", client.m_param);
    EXPECT_EQ(4, client.m_deviceId.bytes[3]);
    EXPECT_EQ(-1, client.raw_send("abcd", 4, 100));
    EXPECT_EQ(0x2001, tlsErrno);
    tlsErrno = 0;
    EXPECT_EQ(-1, client.raw_send(frame, 100));
    EXPECT_EQ(0x2001, tlsErrno);
    EXPECT_EQ(4u, frame.size());
    delete[] frame.rawData();
}

TEST_F(CIvshmClientTest, KeepsReportingAFailureForAFrameThatItSent) {
    Frame frame(29, nullptr);
    Bytes const bytesOfFrame = request_frame(kPort, 9, 7, 0x10, 0x20);
    frame.prepend(bytesOfFrame.data(), 29);

    EXPECT_EQ(-1, m_client->raw_send(frame, 120));

    EXPECT_EQ(0x101e, tlsErrno);
    EXPECT_EQ(120, m_topics.send_timeout());
    EXPECT_THAT(m_topics.sent(kWrite), ElementsAre(message(bytesOfFrame)));
    EXPECT_EQ(join({bytes("50 59 4B FF 01 00 02 00 03 00 00 00"),
                    u32_le(static_cast<uint32_t>(getpid())), bytes("1D 00 00 00"), bytesOfFrame}),
              m_topics.sent(kWrite)[0]);
    delete[] frame.rawData();
}

TEST_F(CIvshmClientTest, KeepsSendingBytesWithoutAHeader) {
    EXPECT_EQ(0, m_client->raw_send("abcd", 4, 130));

    EXPECT_THAT(m_topics.sent(kWrite), ElementsAre(text("abcd")));
    EXPECT_EQ(0x101e, tlsErrno);
    EXPECT_EQ(130, m_topics.send_timeout());
}

TEST_F(CIvshmClientTest, KeepsReportingBytesAsSentThatWereNot) {
    m_topics.refuse_send();

    EXPECT_EQ(0, m_client->raw_send("abcd", 4, 100));
    EXPECT_EQ(0x101e, tlsErrno);
}

TEST_F(CIvshmClientTest, SendsNothingBeyondTwoGibibytes) {
    EXPECT_EQ(0, m_client->raw_send("abcd", 0x80000000U, 100));

    EXPECT_EQ(0x101e, tlsErrno);
    EXPECT_THAT(m_topics.sent(kWrite), IsEmpty());
    EXPECT_EQ(-1, m_topics.send_timeout());
}

TEST_F(CIvshmClientTest, KeepsGivingARequestUpThatItSent) {
    char data[] = "AB";

    EXPECT_EQ(-1, m_client->send_request_packet(kPort, {9, 0x10, 0x20, 2, data}, 100));

    EXPECT_EQ(0x101e, tlsErrno);
    uint32_t const id = m_client->m_lastInvokeId;
    EXPECT_THAT(m_topics.sent(kWrite),
                ElementsAre(message(request_frame(kPort, 9, id, 0x10, 0x20, text("AB")))));
    EXPECT_EQ(nullptr, m_client->m_pLatestResponse);
}

TEST_F(CIvshmClientTest, KeepsPublishingWithoutAHeader) {
    char data[] = "42";

    EXPECT_EQ(0x101e, m_client->publish("topic", {8, 1, 2, 2, data}));

    uint32_t const id = m_client->m_lastInvokeId;
    EXPECT_THAT(m_topics.sent(kWrite), ElementsAre(publish_frame(id, "topic", text("42"), 1, 2)));
}

TEST_F(CIvshmClientTest, GivesATopicToItsSubscription) {
    std::vector<std::string> got;
    m_client->subscribe(
        "topic",
        [](unsigned int, unsigned int, char const* topic, char const* data, unsigned int size,
           void* ctx) {
            static_cast<std::vector<std::string>*>(ctx)->push_back(std::string(topic) + "=" +
                                                                   std::string(data, size));
        },
        &got);

    take(delivery_frame(1, "topic", text("42")));

    EXPECT_THAT(got, ElementsAre("topic=42"));
}

TEST_F(CIvshmClientTest, FetchesAnAnswer) {
    await_answer(7);
    take(response_frame(kPort, 9, 7, text("hello!!")));
    std::string data;

    EXPECT_EQ(5, fetch(data));
    EXPECT_EQ("hello", data);
    EXPECT_EQ(0, tlsErrno);
    EXPECT_EQ(5u, m_client->m_pLatestRequest->copied);
    EXPECT_EQ(5u, m_client->m_pLatestRequest->capacity);
    EXPECT_EQ(nullptr, m_client->m_pLatestResponse);
    EXPECT_EQ(2, fetch(data)) << "the rest of it, without waiting";
    EXPECT_EQ("!!", data);
    EXPECT_EQ(0, fetch(data));
}

TEST_F(CIvshmClientTest, FetchesThePeersError) {
    await_answer(7);
    take(response_frame(kPort, 9, 7, {}, 0x4004));
    std::string data;

    EXPECT_EQ(-1, fetch(data));
    EXPECT_EQ(0x4004, tlsErrno);
}

TEST_F(CIvshmClientTest, FetchesNothingWhenTheTimeIsUp) {
    await_answer(7);
    std::string data;

    EXPECT_EQ(-1, fetch(data, 50));
    EXPECT_EQ(0x1008, tlsErrno);
    EXPECT_EQ(nullptr, m_client->m_pLatestResponse);
}

TEST_F(CIvshmClientTest, FetchesNothingWithoutARequest) {
    std::string data;

    EXPECT_EQ(-1, fetch(data));
    EXPECT_EQ(0x1019, tlsErrno);
    EXPECT_EQ(1, m_log.count("ERROR", "raw_recv m_pLatestRequest nullptr"));
}

TEST_F(CIvshmClientTest, SendsNothingAfterItsTopicsWereClosed) {
    m_group->uninit_ivshm_topic();

    EXPECT_EQ(0, m_client->raw_send("abcd", 4, 100));
    EXPECT_EQ(0x101d, tlsErrno);
    EXPECT_EQ(1, m_log.count("ERROR", "invaild send handle"));
    EXPECT_THAT(m_topics.sent(kWrite), IsEmpty());
}

}  // namespace
