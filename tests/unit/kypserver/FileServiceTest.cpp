#include "kypserver/FileService.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>

#include "kypcomm/KypStatus.h"
#include "kypcore/IConnection.h"
#include "kypserver/Connections.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"

namespace kypserver {
namespace {

namespace fs = std::filesystem;

using testing::IsEmpty;

// A connection whose answers may be asked for while another thread sends them.
class AnswerConn : public IConnection {
public:
    int send_message(char const*, int) override { return 0; }
    int send_message(pbuf*, _AoEHeader const&) override { return 0; }
    int get_fd() override { return 7; }

    int send_message(_AoEHeader const& aoe, unsigned short /*port*/, char const* data, int size,
                     int /*timeout*/) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_answers.push_back(join({u32_be(utils_ntohl(aoe.error)), u32_be(utils_ntohl(aoe.invokeId)),
                                  Bytes(data, data + size)}));
        return 0;
    }

    // Error word, invoke id, payload.
    std::vector<Bytes> answers() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_answers;
    }

    // The answer number `index`, once it is there.
    Bytes answer(size_t index) {
        EXPECT_TRUE(eventually([&] { return answers().size() > index; }));
        auto const all = answers();
        return index < all.size() ? all[index] : Bytes(17);
    }

private:
    std::mutex m_mutex;  // guards m_answers
    std::vector<Bytes> m_answers;
};

// What an answer carries.
Bytes payload(Bytes const& answer) {
    return {answer.begin() + 8, answer.end()};
}

std::string error_word(Bytes const& answer) {
    return hex(Bytes(answer.begin(), answer.begin() + 4));
}

std::string invoke_id(Bytes const& answer) {
    return hex(Bytes(answer.begin() + 4, answer.begin() + 8));
}

// Holds up whoever writes to standard error, until it is drained.
class FullStderr {
public:
    FullStderr() : m_saved(dup(STDERR_FILENO)) {
        EXPECT_EQ(0, pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK));
        Bytes const block(4096);
        while (write(m_pipe[1], block.data(), block.size()) > 0) continue;
        fcntl(m_pipe[1], F_SETFL, 0);
        dup2(m_pipe[1], STDERR_FILENO);
    }
    ~FullStderr() {
        drain();
        close(m_saved);
        for (int const fd : m_pipe) close(fd);
    }
    FullStderr(FullStderr const&) = delete;
    FullStderr& operator=(FullStderr const&) = delete;

    void drain() {
        dup2(m_saved, STDERR_FILENO);
        Bytes block(4096);
        while (read(m_pipe[0], block.data(), block.size()) > 0) continue;
    }

private:
    int m_saved;
    int m_pipe[2] = {-1, -1};
};

class FileServiceTest : public testing::Test {
protected:
    FileServiceTest() : m_dir(testing::TempDir() + "FileServiceTest." + std::to_string(getpid())) {
        fs::create_directory(m_dir);
        testing::internal::CaptureStderr();
        m_connections.on_end([this](IConnection* conn) { m_service->end(conn); });
        m_connections.begin(&m_conn);
        m_connections.begin(&m_other);
    }
    ~FileServiceTest() override {
        if (m_service != nullptr) m_service->stop();
        testing::internal::GetCapturedStderr();
        fs::remove_all(m_dir);
    }

    void start(std::chrono::seconds pause = std::chrono::seconds(30)) {
        FileOptions options;
        options.receive = true;
        options.spoolDir = m_dir;
        options.longestPause = pause;
        m_service = std::make_unique<CFileService>(options, m_connections);
        ASSERT_EQ("", m_service->open());
    }

    void serve(Bytes const& packet, IConnection* conn, uint16_t cmd = 9, uint32_t group = 4098,
               uint32_t offset = 1) {
        _msg_request const head = {1, cmd, m_nextId++, group, offset, 0, conn};
        m_service->serve({105, reinterpret_cast<char const*>(packet.data()),
                          static_cast<unsigned int>(packet.size()), head});
    }
    void serve(Bytes const& packet) { serve(packet, &m_conn); }

    static Bytes info(std::string const& name, uint32_t size) {
        return join({{1, static_cast<uint8_t>(name.size()), 0},
                     u32_be(size),
                     u32_be(8192),
                     u32_be(size / 8192 + (size % 8192 == 0 ? 0 : 1)),
                     text(name)});
    }

    // The session that the answer to an info packet gave.
    static Bytes session_of(Bytes const& answer) {
        return answer.size() < 13 ? Bytes(4) : Bytes(answer.begin() + 9, answer.begin() + 13);
    }

    size_t files_in_spool() const {
        auto const all = fs::directory_iterator(m_dir);
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    std::string m_dir;
    CConnections m_connections{10};
    AnswerConn m_conn;
    AnswerConn m_other;
    uint32_t m_nextId = 7;
    std::unique_ptr<CFileService> m_service;
};

TEST_F(FileServiceTest, TakesAFile) {
    start();
    serve(info("name", 2));
    Bytes const opened = m_conn.answer(0);
    ASSERT_EQ(17U, opened.size());
    EXPECT_EQ("00 00 00 00 00 00 00 07 01", hex(Bytes(opened.begin(), opened.begin() + 9)));
    EXPECT_EQ("00 00 00 00", hex(Bytes(opened.begin() + 13, opened.end())));

    serve(join({{0x82}, u32_be(1), session_of(opened), text("AB")}));

    EXPECT_EQ("00 00 00 00 00 00 00 08 82 00 00 00 01 00 00 00 00", hex(m_conn.answer(1)));
    EXPECT_TRUE(fs::exists(m_dir + "/name"));
}

TEST_F(FileServiceTest, RequestsThatCarryNoPacketOfAFileGetACode) {
    start();
    struct Row {
        uint16_t cmd;
        uint32_t group;
        uint32_t offset;
        size_t size;
        uint32_t error;
    };
    size_t number = 0;
    for (Row const& row :
         {Row{2, 4098, 1, 10, 0x1009}, Row{4, 4098, 1, 10, 0x1009}, Row{0, 4098, 1, 10, 0x1009},
          Row{9, 4097, 1, 10, 0x1002}, Row{9, 4098, 2, 10, 0x1003}, Row{9, 0, 0, 0, 0x1002},
          Row{9, 4098, 1, 8202, 0x100d}}) {
        serve(Bytes(row.size, 2), &m_conn, row.cmd, row.group, row.offset);
        Bytes const answer = m_conn.answer(number++);
        ASSERT_EQ(8U, answer.size());
        EXPECT_EQ(hex(u32_be(row.error)), error_word(answer));
    }
}

TEST_F(FileServiceTest, LargestPacketIsTaken) {
    start();
    serve(info("name", 8192));
    Bytes const session = session_of(m_conn.answer(0));

    serve(join({{0x82}, u32_be(1), session, pattern(8192)}));

    EXPECT_EQ("82 00 00 00 01 00 00 00 00", hex(payload(m_conn.answer(1))));
}

TEST_F(FileServiceTest, CommandsThatAwaitNoAnswerGetNone) {
    start();
    for (uint16_t cmd : {6, 7, 8}) serve(info("name", 2), &m_conn, cmd);
    serve({}, &m_conn);

    m_conn.answer(0);
    EXPECT_EQ(1U, m_conn.answers().size());
    EXPECT_EQ(0U, files_in_spool());
}

TEST_F(FileServiceTest, DatagramsCarryNoFiles) {
    start();
    AnswerConn datagram;

    serve(info("name", 2), &datagram);

    EXPECT_EQ("00 00 10 0B 00 00 00 07", hex(datagram.answer(0)));
    EXPECT_EQ(0U, files_in_spool());
}

TEST_F(FileServiceTest, SessionOfOneConnectionIsNoneOfAnother) {
    start();
    serve(info("name", 2));
    Bytes const session = session_of(m_conn.answer(0));

    serve(join({{0x82}, u32_be(1), session, text("XX")}), &m_other);

    EXPECT_EQ("02 00 00 00 01 00 00 30 05", hex(payload(m_other.answer(0))));
}

TEST_F(FileServiceTest, EndOfAConnectionRemovesItsFile) {
    start();
    serve(info("name", 2));
    m_conn.answer(0);
    ASSERT_EQ(1U, files_in_spool());

    m_connections.end(&m_conn);

    EXPECT_TRUE(eventually([this] { return files_in_spool() == 0; }));
}

TEST_F(FileServiceTest, NextClientOfARecordHasASessionOfItsOwn) {
    start();
    serve(info("name", 2));
    Bytes const session = session_of(m_conn.answer(0));
    m_connections.end(&m_conn);
    m_connections.begin(&m_conn);

    serve(join({{0x82}, u32_be(1), session, text("AB")}));

    EXPECT_EQ("02 00 00 00 01 00 00 30 05", hex(payload(m_conn.answer(1))));
    EXPECT_TRUE(eventually([this] { return files_in_spool() == 0; }));
}

TEST_F(FileServiceTest, SenderThatStallsLosesItsFile) {
    start(std::chrono::seconds(0));
    serve(info("name", 2));
    Bytes const session = session_of(m_conn.answer(0));

    EXPECT_TRUE(eventually([this] { return files_in_spool() == 0; }));
    serve(join({{0x82}, u32_be(1), session, text("AB")}));
    EXPECT_EQ("02 00 00 00 01 00 00 30 06", hex(payload(m_conn.answer(1))));
}

TEST_F(FileServiceTest, QueueOfOneConnectionIsBounded) {
    start();
    FullStderr full;
    serve(info(".", 2), &m_other);  // the thread stands in the report of it

    for (int i = 0; i < 20; ++i) serve({});
    ASSERT_EQ(12U, m_conn.answers().size());
    for (Bytes const& answer : m_conn.answers()) {
        EXPECT_EQ("00 00 20 08", error_word(answer));
        EXPECT_EQ(8U, answer.size());
    }
    full.drain();

    ASSERT_TRUE(eventually([this] { return m_conn.answers().size() == 20; }));
    serve({});
    EXPECT_EQ("00 00 00 00", error_word(m_conn.answer(20)));
}

TEST_F(FileServiceTest, AnswerIsNotSentToAConnectionThatHasEnded) {
    start();
    FullStderr full;
    serve(info(".", 2), &m_other);
    serve({});

    m_connections.end(&m_conn);
    m_connections.end(&m_other);
    m_connections.begin(&m_conn);
    full.drain();

    serve({});
    EXPECT_EQ("00 00 00 09", invoke_id(m_conn.answer(0)));
    EXPECT_THAT(m_other.answers(), IsEmpty());
}

TEST_F(FileServiceTest, StopGivesUpWhatIsHalfReceivedAndTakesNothingMore) {
    start();
    serve(info("name", 2));
    m_conn.answer(0);

    m_service->stop();

    EXPECT_EQ(0U, files_in_spool());
    serve(info("name", 2));
    EXPECT_EQ("00 00 40 07", error_word(m_conn.answer(1)));
    m_service->stop();
}

TEST_F(FileServiceTest, SwitchedOffTakesNoDirectory) {
    FileOptions options;
    options.spoolDir = m_dir + "/none";
    m_service = std::make_unique<CFileService>(options, m_connections);

    EXPECT_EQ("", m_service->open());
    EXPECT_EQ("", m_service->describe());
}

TEST_F(FileServiceTest, BadSpoolIsTold) {
    FileOptions options;
    options.receive = true;
    options.spoolDir = m_dir + "/none";
    m_service = std::make_unique<CFileService>(options, m_connections);

    EXPECT_THAT(m_service->open(), testing::HasSubstr("cannot use the directory"));
}

}  // namespace
}  // namespace kypserver
