// Files on their way from the library to kypserver, and what a hostile peer can do to it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

#include "kypcomm/KypStatus.h"
#include "libkyp/libkyp.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/FileReports.h"
#include "support/FrameBytes.h"
#include "support/RawPeer.h"
#include "support/ServerProcess.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint16_t kFilePort = 105;

class FileTest : public testing::Test {
protected:
    FileTest() : m_dir(testing::TempDir() + "FileTest." + std::to_string(getpid())) {
        fs::create_directories(m_spool);
        libkyp_init();
    }
    ~FileTest() override {
        libkyp_destory();
        m_server.reset();  // it may still be removing something
        fs::remove_all(m_dir);
    }

    void start(std::vector<std::string> options = {}) {
        options.insert(options.begin(), {"--receive-files", "--spool-dir", m_spool});
        m_server = std::make_unique<ServerProcess>(options);
    }

    std::string make_file(size_t size, std::string const& name) {
        Bytes const content = pattern(size);
        std::string const path = m_dir + "/" + name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<char const*>(content.data()),
                   static_cast<std::streamsize>(size));
        return path;
    }

    // Sends a file to its end and gives the last report.
    FileReport send(std::string const& path, std::string const& remotePath = "",
                    uint16_t port = kFilePort) {
        size_t const before = m_reports.count();
        _KypDeviceAddr const address{{{127, 0, 0, 1, 1, 1}}, port};
        KypFileTransfer(address, 0, 0, path.c_str(), remotePath.c_str(), take, this);
        EXPECT_TRUE(eventually([&] { return m_reports.count() > before + 1 && m_isOver; },
                               std::chrono::seconds(60)));
        m_isOver = false;
        return m_reports.all().back();
    }

    static int take(_KypDeviceId id, int transferId, float progress, int error, int state,
                    void* self) {
        auto& test = *static_cast<FileTest*>(self);
        FileReports::take(id, transferId, progress, error, state, &test.m_reports);
        bool const isOver = state == KYP_FILE_FINISHED || error != KYP_OK;
        test.m_isOver = isOver;
        return error != KYP_OK ? -1 : 0;
    }

    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (auto const& entry : fs::directory_iterator(m_spool)) {
            all.push_back(entry.path().filename());
        }
        std::sort(all.begin(), all.end());
        return all;
    }

    static Bytes content_of(std::string const& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    static Bytes packet(uint32_t invokeId, Bytes const& payload) {
        return request_frame(kFilePort, 9, invokeId, 4098, 1, payload);
    }

    static Bytes info(std::string const& name, uint32_t size, std::string const& path = "") {
        return join({{1, static_cast<uint8_t>(name.size()), static_cast<uint8_t>(path.size())},
                     u32_be(size),
                     u32_be(8192),
                     u32_be(size / 8192 + (size % 8192 == 0 ? 0 : 1)),
                     text(name),
                     text(path)});
    }

    // The payload of the answer to `payload`.
    static Bytes ask(RawPeer& peer, Bytes const& payload) {
        peer.send(packet(3, payload));
        return take_apart(peer.receive_frame()).rest;
    }

    // Opens a session by raw bytes and gives its number as it stands on the wire.
    static Bytes open(RawPeer& peer, std::string const& name, uint32_t size) {
        Bytes const answer = ask(peer, info(name, size));
        EXPECT_EQ(9U, answer.size());
        return answer.size() < 5 ? Bytes(4) : Bytes(answer.begin() + 1, answer.begin() + 5);
    }

    std::string m_dir;
    std::string m_spool = m_dir + "/spool";
    FileReports m_reports;
    std::atomic<bool> m_isOver{false};
    std::unique_ptr<ServerProcess> m_server;
};

TEST_F(FileTest, FilesArriveIdentical) {
    start();
    for (size_t size : {0U, 1U, 8191U, 8192U, 8193U, 5U << 20}) {
        SCOPED_TRACE(size);
        std::string const name = "file" + std::to_string(size);

        FileReport const last = send(make_file(size, name), "/somewhere/else");

        EXPECT_EQ(0, last.error);
        EXPECT_EQ(KYP_FILE_FINISHED, last.state);
        ASSERT_TRUE(fs::exists(m_spool + "/" + name));
        EXPECT_TRUE(pattern(size) == content_of(m_spool + "/" + name));
    }
    EXPECT_EQ(6U, names().size());
    EXPECT_THAT(m_server->process().errors(), HasSubstr("the file file5242880 of 127.0.0.1"));
}

TEST_F(FileTest, ServerTakesNoFilesUnlessToldTo) {
    m_server = std::make_unique<ServerProcess>();

    EXPECT_EQ(KYP_ERR_TRANSFER, send(make_file(10, "file")).error);
}

TEST_F(FileTest, ServerSaysWhereFilesGo) {
    start({"--no-udp", "--no-domain"});

    EXPECT_EQ("kypserver ready: tcp 0.0.0.0:9999, files on port 105 into " + m_spool + "\n",
              m_server->process().output());
}

TEST_F(FileTest, PortIsAMatterOfChoice) {
    start({"--file-port", "4096"});

    EXPECT_EQ(KYP_FILE_FINISHED, send(make_file(10, "file"), "", 4096).state);
    EXPECT_THAT(names(), ElementsAre("file"));
}

TEST_F(FileTest, PortWithAnotherServiceIsNotTaken) {
    for (char const* port : {"100", "101", "102", "103", "104"}) {
        ChildProcess server(
            {"kypserver", "--receive-files", "--spool-dir", m_spool, "--file-port", port});
        EXPECT_EQ(1, server.wait_exit());
        EXPECT_EQ(std::string("kypserver: port ") + port +
                      " has another service; choose another --file-port\n",
                  server.errors());
    }
}

TEST_F(FileTest, ServerWithoutASpoolDoesNotStart) {
    ChildProcess server({"kypserver", "--receive-files", "--spool-dir", m_dir + "/none"});

    EXPECT_EQ(1, server.wait_exit());
    EXPECT_THAT(server.errors(), HasSubstr("cannot use the directory " + m_dir + "/none: No such"));
}

TEST_F(FileTest, SpoolServesOneServer) {
    start();
    ChildProcess second({"kypserver", "--receive-files", "--spool-dir", m_spool, "--domain-path",
                         m_dir + "/second", "--no-tcp", "--no-udp"});

    EXPECT_EQ(1, second.wait_exit());
    EXPECT_THAT(second.errors(), HasSubstr(m_spool + " is used by another server"));
}

TEST_F(FileTest, TooLargeAFileIsRefusedWithItsReason) {
    start({"--max-file-size", "8kb"});

    EXPECT_EQ(KYP_ERR_PACKET_TOO_LONG, send(make_file(8193, "large")).error);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileTest, CancelledFileIsGoneWhenTheNextOneCame) {
    start();
    FileReports cancelling(
        [](FileReport const& report) { return report.progress > 0.2F ? -1 : 0; });
    _KypDeviceAddr const address{{{127, 0, 0, 1, 1, 1}}, kFilePort};
    KypFileTransfer(address, 0, 0, make_file(8192 * 10, "cancelled").c_str(), "", FileReports::take,
                    &cancelling);

    EXPECT_EQ(KYP_FILE_FINISHED, send(make_file(10, "next")).state);

    EXPECT_THAT(names(), ElementsAre("next"));
    EXPECT_THAT(m_server->process().errors(),
                HasSubstr("is given up: its sender has begun another"));
}

TEST_F(FileTest, LostSenderLeavesNothing) {
    start();
    RawPeer peer = RawPeer::connect_tcp(9999);
    Bytes const session = open(peer, "half", 8193);
    ask(peer, join({{0x02}, u32_be(1), session, pattern(8192)}));
    ASSERT_EQ(1U, names().size());
    ASSERT_NE("half", names()[0]);

    peer.reset();

    EXPECT_TRUE(eventually([this] { return names().empty(); }));
    EXPECT_TRUE(m_server->process().wait_for_output("is given up: its connection has ended"));
}

TEST_F(FileTest, EndOfTheServerLeavesNothing) {
    start();
    RawPeer peer = RawPeer::connect_tcp(9999);
    open(peer, "half", 8193);
    ASSERT_EQ(1U, names().size());

    m_server->stop();

    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileTest, DeathOfTheServerLeavesNothingBehindTheNextStart) {
    start();
    RawPeer peer = RawPeer::connect_tcp(9999);
    open(peer, "half", 8193);
    m_server->kill();
    ASSERT_EQ(1U, names().size());

    start();

    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileTest, NoNameLeadsOutOfTheSpool) {
    start();
    fs::create_symlink(m_dir + "/outside", m_spool + "/link");
    RawPeer peer = RawPeer::connect_tcp(9999);
    for (std::string const& name :
         {std::string("../outside"), std::string("/") + m_dir + "/outside",
          std::string("a/../../outside"), std::string("link")}) {
        Bytes const session = open(peer, name, 1);
        EXPECT_EQ(0x82, ask(peer, join({{0x82}, u32_be(1), session, {0x41}})).at(0)) << name;
    }
    for (std::string const& name : {std::string(".."), std::string("."), std::string("x/.."),
                                    std::string("a\0/../../outside\0", 17), std::string("")}) {
        EXPECT_EQ("00 00 20 04", hex(ask(peer, info(name, 1))).substr(15)) << name;
    }

    EXPECT_FALSE(fs::exists(m_dir + "/outside"));
    EXPECT_THAT(names(), ElementsAre("link", "outside"));
    EXPECT_FALSE(fs::is_symlink(m_spool + "/link"));
}

TEST_F(FileTest, LimitOfTransfersHoldsAcrossConnections) {
    start({"--max-transfers", "2"});
    RawPeer first = RawPeer::connect_tcp(9999);
    RawPeer second = RawPeer::connect_unix("/var/tmp/kyp/kypserver");
    open(first, "first", 10);
    open(second, "second", 10);

    RawPeer third = RawPeer::connect_tcp(9999);
    EXPECT_EQ("00 00 10 1B", hex(ask(third, info("third", 10))).substr(15));
    first.close();
    EXPECT_TRUE(
        eventually([&] { return hex(ask(third, info("third", 10))).substr(15) == "00 00 00 00"; }));
}

TEST_F(FileTest, HostilePacketsHurtNobody) {
    start({"--max-file-size", "100kb"});
    std::mt19937 random(7);
    RawPeer hostile = RawPeer::connect_tcp(9999);
    RawPeer honest = RawPeer::connect_tcp(9999);
    Bytes const session = open(honest, "honest", 8193);
    Bytes const content = pattern(8193);

    for (int round = 0; round < 500; ++round) {
        Bytes payload(random() % (round % 10 == 0 ? 9000 : 30));
        for (uint8_t& byte : payload) byte = static_cast<uint8_t>(random());
        if (!payload.empty() && round % 2 == 0) payload[0] = static_cast<uint8_t>(1 + random() % 2);
        if (round % 5 == 0) payload = join({info("bad", 50000)});
        if (round % 7 == 0) payload = join({{0x02}, u32_be(1), session, pattern(8192)});
        ASSERT_TRUE(hostile.send(packet(static_cast<uint32_t>(round), payload)));
        if (round % 50 == 0) {
            EXPECT_FALSE(hostile.receive_frame().empty());
        }
    }

    EXPECT_EQ(
        9U, ask(honest,
                join({{0x02}, u32_be(1), session, Bytes(content.begin(), content.begin() + 8192)}))
                .size());
    EXPECT_EQ(0x82, ask(honest, join({{0x82}, u32_be(2), session, {content[8192]}})).at(0));
    hostile.close();
    EXPECT_TRUE(eventually([this] { return names() == std::vector<std::string>{"honest"}; }));
    EXPECT_TRUE(content == content_of(m_spool + "/honest"));
}

TEST_F(FileTest, ManySendersAtOnce) {
    start({"--max-transfers", "16"});
    std::vector<std::thread> senders;
    std::atomic<int> complete{0};
    for (int number = 0; number < 16; ++number) {
        senders.emplace_back([&, number] {
            RawPeer peer = RawPeer::connect_tcp(9999);
            uint32_t const size = 8192 * 20 + static_cast<uint32_t>(number);
            Bytes const content = pattern(size);
            Bytes const session = open(peer, "file" + std::to_string(number), size);
            Bytes answer;
            for (uint32_t at = 0, chunk = 0; at < size; at += 8192) {
                uint32_t const end = std::min(at + 8192, size);
                bool const isLast = end - at < 8192;
                answer = ask(peer, join({{static_cast<uint8_t>(isLast ? 0x82 : 0x02)},
                                         u32_be(++chunk),
                                         session,
                                         Bytes(content.begin() + at, content.begin() + end)}));
            }
            if (size % 8192 == 0) answer = ask(peer, {});
            if (!answer.empty() && answer[0] == 0x82 &&
                content_of(m_spool + "/file" + std::to_string(number)) == content) {
                ++complete;
            }
        });
    }
    for (std::thread& sender : senders) sender.join();

    EXPECT_EQ(16, complete);
    EXPECT_EQ(16U, names().size());
}

}  // namespace
