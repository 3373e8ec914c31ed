// The transfer of files through the C interface, against a device that speaks raw bytes and against
// the server core.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "LibkypFixture.h"
#include "kypclient/CFileThread.h"
#include "kypclient/CFileTransfer.h"
#include "kypcomm/filesys/CFile.h"
#include "support/CoreServer.h"
#include "support/FileDevice.h"
#include "support/FileReports.h"

namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class KypFileTransferTest : public LibkypTest {
protected:
    KypFileTransferTest()
        : m_dir(::testing::TempDir() + "KypFileTransferTest." + std::to_string(getpid())) {
        fs::create_directory(m_dir);
    }
    ~KypFileTransferTest() override {
        worker().m_handlers.clear();
        fs::remove_all(m_dir);
    }

    static CFileThread& worker() { return utility::instance<CFileThread>(); }

    void start(FileDevice::Answer answer = FileDevice::takes_all) {
        m_device = std::make_unique<FileDevice>(std::move(answer));
    }

    std::string make_file(size_t size, std::string const& name = "image.bin") {
        Bytes const content = pattern(size);
        std::string const path = m_dir + "/" + name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<char const*>(content.data()),
                   static_cast<std::streamsize>(size));
        return path;
    }

    unsigned int send(std::string const& path, std::string const& remotePath = "target") {
        return KypFileTransfer(m_address, 0x11, 0x22, path.c_str(), remotePath.c_str(),
                               FileReports::take, &m_reports);
    }

    static bool wait_until_idle() {
        return eventually([] { return worker().GetFileTransferObject() == nullptr; },
                          std::chrono::seconds(60));
    }

    _KypDeviceAddr m_address{m_loopback, 105};
    std::string m_dir;
    FileReports m_reports;
    std::unique_ptr<FileDevice> m_device;
};

// Stands first: the numbers are those of the process.
TEST_F(KypFileTransferTest, NumbersCountUpFromZero) {
    FileReports refusing([](FileReport const&) { return -1; });
    std::string const path = m_dir + "/none";
    unsigned int const first =
        KypFileTransfer(m_address, 0, 0, path.c_str(), "", FileReports::take, &refusing);
    unsigned int const second =
        KypFileTransfer(m_address, 0, 0, path.c_str(), "", FileReports::take, &refusing);

    EXPECT_EQ(0U, first);
    EXPECT_EQ(1U, second);
    EXPECT_EQ(static_cast<int>(first), refusing.all()[0].transferId);
    EXPECT_EQ(static_cast<int>(second), refusing.all()[1].transferId);
    ASSERT_TRUE(wait_until_idle());
}

TEST_F(KypFileTransferTest, FilesOfEverySizeArriveWhole) {
    struct Row {
        size_t size;
        size_t packets;
        size_t reports;
    };
    start();
    for (Row const& row : {Row{0, 2, 3}, Row{1, 2, 3}, Row{8191, 2, 3}, Row{8192, 3, 4},
                           Row{8193, 3, 4}, Row{5 << 20, 642, 643}}) {
        SCOPED_TRACE(row.size);
        size_t const packetsBefore = m_device->packet_count();
        size_t const contentBefore = m_device->content().size();
        size_t const reportsBefore = m_reports.count();

        unsigned int const number = send(make_file(row.size));
        ASSERT_TRUE(wait_until_idle());

        EXPECT_EQ(row.packets, m_device->packet_count() - packetsBefore);
        EXPECT_EQ(row.reports, m_reports.count() - reportsBefore);
        Bytes const content = m_device->content();
        EXPECT_TRUE(
            pattern(row.size) ==
            Bytes(content.begin() + static_cast<std::ptrdiff_t>(contentBefore), content.end()));
        float const end = row.size == 0 ? 0.0F : 1.0F;
        EXPECT_EQ((FileReport{static_cast<int>(number), end, 0, 2}), m_reports.all().back());
    }
    EXPECT_EQ(1, m_device->links());
}

TEST_F(KypFileTransferTest, FileOfOneWholeChunkEndsWithAnEmptyExchange) {
    start();

    send(make_file(8192));
    ASSERT_TRUE(wait_until_idle());

    std::vector<FilePacket> const packets = m_device->packets();
    ASSERT_EQ(3U, packets.size());
    EXPECT_EQ("01 09 06 00 00 20 00 00 00 20 00 00 00 00 01 " + hex(text("image.bintarget")),
              hex(packets[0].bytes));
    EXPECT_EQ(8201U, packets[1].bytes.size());
    EXPECT_EQ(0x02, packets[1].bytes[0]);
    EXPECT_THAT(packets[2].bytes, IsEmpty());
}

TEST_F(KypFileTransferTest, OneByteMoreHasTheTopBitInItsSecondChunk) {
    start();

    send(make_file(8193));
    ASSERT_TRUE(wait_until_idle());

    std::vector<FilePacket> const packets = m_device->packets();
    ASSERT_EQ(3U, packets.size());
    EXPECT_EQ(0x02, packets[1].bytes[0]);
    EXPECT_EQ(0x82, packets[2].bytes[0]);
    EXPECT_EQ(10U, packets[2].bytes.size());
}

TEST_F(KypFileTransferTest, KeepsTheOneAddressWhateverTheCallerAsksFor) {
    start();

    send(make_file(10));
    ASSERT_TRUE(wait_until_idle());

    for (FilePacket const& packet : m_device->packets()) {
        EXPECT_EQ(4098U, packet.indexGroup);
        EXPECT_EQ(1U, packet.indexOffset);
        EXPECT_EQ(105, packet.request.port);
        EXPECT_EQ(9, packet.request.cmd);
    }
}

TEST_F(KypFileTransferTest, FirstReportComesOnTheCallersThreadBeforeTheDeviceIsReached) {
    std::thread::id thread;
    size_t connections = 99;
    FileReports refusing([&](FileReport const&) {
        thread = std::this_thread::get_id();
        connections = manager().m_connections.size();
        return -1;
    });

    KypFileTransfer(m_address, 0, 0, (m_dir + "/none").c_str(), "", FileReports::take, &refusing);

    EXPECT_EQ(std::this_thread::get_id(), thread);
    EXPECT_EQ(0U, connections);
    EXPECT_EQ(1U, manager().m_connections.size());
    ASSERT_TRUE(wait_until_idle());
    EXPECT_EQ(1U, refusing.count());
    EXPECT_EQ(12289, refusing.all()[0].error);
}

TEST_F(KypFileTransferTest, LaterReportsComeOnTheWorkersThread) {
    std::mutex mutex;
    std::vector<std::thread::id> threads;
    FileReports watching([&](FileReport const&) {
        std::lock_guard<std::mutex> lock(mutex);
        threads.push_back(std::this_thread::get_id());
        return 0;
    });
    start();

    KypFileTransfer(m_address, 0, 0, make_file(10).c_str(), "", FileReports::take, &watching);
    ASSERT_TRUE(wait_until_idle());

    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(3U, threads.size());
    EXPECT_EQ(std::this_thread::get_id(), threads[0]);
    EXPECT_EQ(worker().m_thread.get_id(), threads[1]);
    EXPECT_EQ(worker().m_thread.get_id(), threads[2]);
}

TEST_F(KypFileTransferTest, FileWithoutACallbackArrivesAllTheSame) {
    start();

    KypFileTransfer(m_address, 0, 0, make_file(100).c_str(), "", nullptr, nullptr);
    ASSERT_TRUE(wait_until_idle());

    EXPECT_EQ(pattern(100), m_device->content());
}

TEST_F(KypFileTransferTest, TwoTransfersToOneDeviceShareAConnectionAndGoInOrder) {
    start();

    unsigned int const first = send(make_file(8192 * 20, "first"));
    unsigned int const second = send(make_file(100, "second"));
    ASSERT_TRUE(wait_until_idle());

    EXPECT_EQ(1, m_device->links());
    EXPECT_EQ(1U, manager().m_connections.size());
    EXPECT_EQ(join({pattern(8192 * 20), pattern(100)}), m_device->content());
    size_t ended = 0;
    for (FileReport const& report : m_reports.all()) {
        if (report.transferId == static_cast<int>(first) && report.progress == 1.0F) ++ended;
        if (report.transferId == static_cast<int>(second) && report.state == 1) {
            EXPECT_EQ(2U, ended);
        }
    }
}

TEST_F(KypFileTransferTest, TransfersFromManyThreadsAllArrive) {
    start();
    std::string const path = make_file(8193);
    // Before the threads: two that miss together would make two connections.
    worker().GetHandlerFromDeviceid(m_address.deviceId);

    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) threads.emplace_back([&] { send(path); });
    for (std::thread& thread : threads) thread.join();
    ASSERT_TRUE(wait_until_idle());

    EXPECT_EQ(8U * 8193U, m_device->content().size());
    EXPECT_EQ(8U * 4U, m_reports.count());
}

TEST_F(KypFileTransferTest, CallbackEndsTheTransferBehindTheExchangeThatIsUnderWay) {
    start();
    FileReports cancelling(
        [](FileReport const& report) { return report.progress >= 0.5F ? -1 : 0; });

    KypFileTransfer(m_address, 0, 0, make_file(8192 * 10).c_str(), "", FileReports::take,
                    &cancelling);
    ASSERT_TRUE(wait_until_idle());

    EXPECT_EQ(8192U * 5U, m_device->content().size());
    EXPECT_EQ((0.5F), cancelling.all().back().progress);
    EXPECT_EQ(6U, m_device->packet_count());
}

TEST_F(KypFileTransferTest, CallbackMayAskForTheNextTransfer) {
    start();
    std::string const next = make_file(20, "next");
    FileReports chaining([&](FileReport const& report) {
        if (report.state == 2 && report.progress == 1.0F) send(next);
        return 0;
    });

    KypFileTransfer(m_address, 0, 0, make_file(10).c_str(), "", FileReports::take, &chaining);

    ASSERT_TRUE(m_reports.wait_for(3));
    ASSERT_TRUE(wait_until_idle());
    EXPECT_EQ(join({pattern(10), pattern(20)}), m_device->content());
}

TEST_F(KypFileTransferTest, RefusalOfTheDeviceIsReportedAndTheFileSentOn) {
    start([](FilePacket const& packet) {
        if (packet.bytes.size() < 9 || packet.bytes[0] == 1) return FileDevice::takes_all(packet);
        return FileDevice::answer(packet, packet.bytes[0] & 0x7f, 0, KYP_ERR_DISK_FULL);
    });

    send(make_file(8192 * 2 + 1));
    ASSERT_TRUE(wait_until_idle());

    EXPECT_EQ(8192U * 2U + 1U, m_device->content().size());
    EXPECT_EQ(0x2009, m_reports.all().back().error);
    EXPECT_EQ(3, m_reports.all().back().state);
}

TEST_F(KypFileTransferTest, LostDeviceEndsTheTransferAndTheNextOneIsServed) {
    start([](FilePacket const& packet) {
        FileDevice::Reply reply = FileDevice::takes_all(packet);
        reply.hangUp = packet.bytes.size() > 9 && packet.bytes[0] == 2 && packet.bytes[4] == 2;
        return reply;
    });

    unsigned int const first = send(make_file(8192 * 5, "first"));
    ASSERT_TRUE(wait_until_idle());

    EXPECT_EQ((FileReport{static_cast<int>(first), 0.4F, 12294, 3}), m_reports.all().back());
    EXPECT_EQ(3U, m_device->packet_count());

    // Another device at the same address: its link is its own.
    m_address.deviceId.bytes[5] = 2;
    send(make_file(10, "second"));
    ASSERT_TRUE(wait_until_idle());
    EXPECT_EQ(0, m_reports.all().back().error);
    EXPECT_EQ(2, m_device->links());
}

TEST_F(KypFileTransferTest, DeviceThatIsNotThereFailsTheTransfer) {
    unsigned int const number = send(make_file(10));
    ASSERT_TRUE(wait_until_idle());

    EXPECT_THAT(m_reports.all(), ElementsAre(FileReport{static_cast<int>(number), 0.0F, 0, 0},
                                             FileReport{static_cast<int>(number), 0.0F, 12294, 3}));
}

TEST_F(KypFileTransferTest, GarbageInMidTransferDoesNotStopTheFile) {
    start([](FilePacket const& packet) {
        if (packet.bytes[0] == 1) return FileDevice::takes_all(packet);
        Bytes garbage = pattern(packet.bytes[4] * 700U % 1500U + 1);
        garbage[0] = static_cast<uint8_t>(packet.bytes[4] * 37U + 3U) | 0x04;  // no known type
        return FileDevice::reply(packet, garbage);
    });

    send(make_file(8192 * 30 + 1));
    ASSERT_TRUE(wait_until_idle());

    EXPECT_EQ(pattern(8192 * 30 + 1), m_device->content());
}

TEST_F(KypFileTransferTest, LongPathsAreReportedFirstAndTheTransferGoesOnIfWanted) {
    start();

    send(make_file(10), std::string(300, 'r'));
    ASSERT_TRUE(wait_until_idle());

    EXPECT_EQ(0x2004, m_reports.all()[0].error);
    EXPECT_EQ(0, m_reports.all()[0].state);
    Bytes const info = m_device->packets().at(0).bytes;
    EXPECT_EQ(255, info[2]);
    EXPECT_EQ(15U + 9U + 255U, info.size());
    EXPECT_EQ(2, m_reports.all().back().state);
}

TEST_F(KypFileTransferTest, LongLocalPathIsReportedFirst) {
    FileReports refusing([](FileReport const&) { return -1; });
    for (size_t length : {256U, 300U, 20000U}) {
        SCOPED_TRACE(length);
        KypFileTransfer(m_address, 0, 0, std::string(length, 'l').c_str(), "", FileReports::take,
                        &refusing);
        EXPECT_EQ(0x2004, refusing.all().back().error);
    }
    ASSERT_TRUE(wait_until_idle());
}

TEST_F(KypFileTransferTest, NameOf255BytesGoesOutWhole) {
    start();
    // A relative path is the name alone.
    ASSERT_EQ(0, chdir(m_dir.c_str()));
    std::string const name(255, 'n');
    make_file(10, name);

    send(name);
    ASSERT_TRUE(wait_until_idle());

    Bytes const info = m_device->packets().at(0).bytes;
    EXPECT_EQ(255, info[1]);
    EXPECT_EQ(name + "target", as_text(Bytes(info.begin() + 15, info.end())));
    EXPECT_EQ(0, m_reports.all()[0].error);
    ASSERT_EQ(0, chdir("/"));
}

TEST_F(KypFileTransferTest, StatusOfTheThreadIsCleared) {
    start();
    tlsErrno = KYP_ERR_TOPIC;

    send(make_file(10));

    EXPECT_EQ(0, libkyp_get_errno());
    ASSERT_TRUE(wait_until_idle());
}

TEST_F(KypFileTransferTest, FileArrivesThroughTheServerCore) {
    CoreServer server;
    ASSERT_TRUE(server.listen_tcp());
    std::mutex mutex;
    Bytes content;
    server.serve(105, [&](_msg_request const& request, uint16_t port, Bytes data) {
        bool const isInfo = !data.empty() && data[0] == 1;
        bool const isEnd = data.empty() || (data[0] & 0x80) != 0;
        if (!isInfo && data.size() > 9) {
            std::lock_guard<std::mutex> lock(mutex);
            content.insert(content.end(), data.begin() + 9, data.end());
        }
        uint8_t const type = isInfo ? 1 : isEnd ? 0x82 : 2;
        CoreServer::answer(request, port, join({{type}, u32_be(7), u32_be(0)}));
    });

    send(make_file(8192 * 25));
    ASSERT_TRUE(wait_until_idle());

    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(pattern(8192 * 25), content);
    EXPECT_EQ(2, m_reports.all().back().state);
}

}  // namespace
