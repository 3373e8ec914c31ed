#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <string>

#include "FakeConn.h"
#include "kypcomm/KypDeviceIdGenerator.h"
#include "kypserver/EchoService.h"
#include "kypserver/Errands.h"
#include "kypserver/IdentityService.h"
#include "support/FrameBytes.h"
#include "utils/Log.h"

namespace kypserver {
namespace {

// Gives a service one request and takes what it answers.
class ServiceTest : public testing::Test {
protected:
    ServiceTest() { SetLogLevel(LOG_LEVEL_COMM); }

    std::string ask(IService& service, uint16_t cmd, uint32_t group, uint32_t offset,
                    Bytes const& data = {}, uint32_t error = 0) {
        m_conn.m_sent.clear();
        _msg_request const head = {1, cmd, 7, group, offset, error, &m_conn};
        service.serve({service.port(), reinterpret_cast<char const*>(data.data()),
                       static_cast<unsigned int>(data.size()), head});
        finish_errands();
        return m_conn.m_sent.empty() ? "" : hex(m_conn.m_sent[0]);
    }

    // The status in the answer; -1 when there is none.
    long status(IService& service, uint16_t cmd, uint32_t group, uint32_t offset,
                Bytes const& data = {}) {
        ask(service, cmd, group, offset, data);
        return m_conn.m_sent.empty() ? -1 : static_cast<long>(take_apart(m_conn.m_sent[0]).error);
    }

    void finish_errands() {
        std::promise<void> done;
        m_errands.after(std::chrono::milliseconds(0), [&done] { done.set_value(); });
        done.get_future().wait();
    }

    FakeConn m_conn;
    CErrands m_errands;
};

class EchoServiceTest : public ServiceTest {
protected:
    CEchoService m_echo;
};

TEST_F(EchoServiceTest, SendsBackWhatCame) {
    EXPECT_EQ(100, m_echo.port());
    EXPECT_EQ("00 01 64 00 0F 00 00 00 00 00 00 00 00 00 00 07 00 09 00 00 01 41 42",
              ask(m_echo, 9, 1, 2, text("AB")));
}

TEST_F(EchoServiceTest, AnEmptyRequestGetsAnEmptyAnswer) {
    EXPECT_EQ("00 01 64 00 0D 00 00 00 00 00 00 00 00 00 00 07 00 02 00 00 01",
              ask(m_echo, 2, 1, 2));
}

TEST_F(EchoServiceTest, RepeatsTheErrorWord) {
    EXPECT_EQ("00 01 64 00 0D 00 00 00 00 00 10 08 00 00 00 07 00 09 00 00 01",
              ask(m_echo, 9, 0, 0, {}, 0x1008));
}

class IdentityServiceTest : public ServiceTest {
protected:
    IdentityServiceTest() {
        mkdir("/opt/kyp", 0755);
        unlink("/opt/kyp/kypdevice.xml");
        utility::instance<CKypDeviceIdGenerator>().SetLocalDeviceId({{192, 168, 1, 10, 1, 1}});
    }

    ~IdentityServiceTest() override { unlink("/opt/kyp/kypdevice.xml"); }

    Bytes local_id() {
        _KypDeviceId const id = utility::instance<CKypDeviceIdGenerator>().GetLocalDeviceId();
        return Bytes(id.bytes, id.bytes + sizeof id.bytes);
    }

    CIdentityService m_closed{false, m_errands};
    CIdentityService m_open{true, m_errands};
};

TEST_F(IdentityServiceTest, TellsTheId) {
    EXPECT_EQ(101, m_closed.port());
    EXPECT_EQ("00 01 65 00 13 00 00 00 00 00 00 00 00 00 00 07 00 01 00 00 01 C0 A8 01 0A 01 01",
              ask(m_closed, 1, 0x1000, 0x1001));
}

TEST_F(IdentityServiceTest, SaysWhatIsWrongWithAQuestion) {
    EXPECT_EQ(0x1002, status(m_closed, 1, 0x1001, 0x1001));
    EXPECT_EQ(0x1003, status(m_closed, 1, 0x1000, 0x1002));
    EXPECT_EQ(0x1004, status(m_closed, 1, 0x1000, 0x1001, text("A")));
    EXPECT_EQ(0x1009, status(m_closed, 9, 0x1000, 0x1001));
}

TEST_F(IdentityServiceTest, CommandsThatAwaitNoAnswerGetNone) {
    for (uint16_t cmd : {6, 7, 8}) EXPECT_EQ(-1, status(m_closed, cmd, 0x1000, 0x1001));
}

TEST_F(IdentityServiceTest, RefusesANewIdUnlessThatIsAllowed) {
    testing::internal::CaptureStderr();

    EXPECT_EQ(0x1018, status(m_closed, 5, 0x1001, 0x1002, bytes("0A 00 00 01 02 03")));

    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find("--allow-set-id would take it"));
    EXPECT_EQ("C0 A8 01 0A 01 01", hex(local_id()));
}

TEST_F(IdentityServiceTest, TakesANewIdWhereThatIsAllowed) {
    EXPECT_EQ("00 01 65 00 0D 00 00 00 00 00 00 00 00 00 00 07 00 05 00 00 01",
              ask(m_open, 5, 0x1001, 0x1002, bytes("0A 00 00 01 02 03")));

    EXPECT_EQ("0A 00 00 01 02 03", hex(local_id()));
    EXPECT_EQ(0, access("/opt/kyp/kypdevice.xml", R_OK));
}

TEST_F(IdentityServiceTest, SaysWhatIsWrongWithANewId) {
    Bytes const id = bytes("0A 00 00 01 02 03");
    EXPECT_EQ(0x1002, status(m_open, 5, 0x1000, 0x1002, id));
    EXPECT_EQ(0x1003, status(m_open, 5, 0x1001, 0x1001, id));
    EXPECT_EQ(0x1004, status(m_open, 5, 0x1001, 0x1002, bytes("0A 00 00 01 02")));
    EXPECT_EQ(0x1004, status(m_open, 5, 0x1001, 0x1002, bytes("0A 00 00 01 02 03 04")));
    EXPECT_EQ(0x1001, status(m_open, 5, 0x1001, 0x1002, bytes("00 00 00 00 00 00")));
    EXPECT_EQ("C0 A8 01 0A 01 01", hex(local_id()));
}

TEST_F(IdentityServiceTest, DoesNotTakeAnIdThatItCannotKeep) {
    unlink("/opt/kyp/kypdevice.xml");
    ASSERT_EQ(0, symlink("/nowhere/kypdevice.xml", "/opt/kyp/kypdevice.xml"));  // cannot be written
    testing::internal::CaptureStderr();

    EXPECT_EQ(0x3004, status(m_open, 5, 0x1001, 0x1002, bytes("0A 00 00 01 02 03")));

    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find("make that directory writable"));
}

TEST_F(IdentityServiceTest, OnlySoManyNewIdsWaitToBeWritten) {
    testing::internal::CaptureStderr();
    Bytes const id = bytes("0A 00 00 01 02 03");
    _msg_request const head = {1, 5, 7, 0x1001, 0x1002, 0, &m_conn};
    std::promise<void> go;
    m_errands.after(std::chrono::milliseconds(0), [&go] { go.get_future().wait(); });

    for (int i = 0; i <= CIdentityService::kMostWaiting; ++i) {
        m_open.serve({101, reinterpret_cast<char const*>(id.data()), 6, head});
    }

    ASSERT_EQ(1U, m_conn.m_sent.size());
    EXPECT_EQ(0x3004U, take_apart(m_conn.m_sent[0]).error);
    go.set_value();
    finish_errands();
    EXPECT_EQ(1U + CIdentityService::kMostWaiting, m_conn.m_sent.size());
    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find("as many as may wait to be written"));
}

}  // namespace
}  // namespace kypserver
