#include "kypclient/CFileThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>

#include "kypclient/CFileTransfer.h"
#include "kypclient/KypCreateFactory.h"
#include "kypclient/KypTcpclient.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/filesys/CFile.h"
#include "support/CallGate.h"
#include "support/Eventually.h"
#include "support/FileDevice.h"
#include "support/FileReports.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CFileThreadTest : public ::testing::Test {
protected:
    CFileThreadTest()
        : m_dir(::testing::TempDir() + "CFileThreadTest." + std::to_string(getpid())) {
        SetLogLevel(LOG_LEVEL_TRACE);
        fs::create_directory(m_dir);
        tlsErrno = KYP_OK;
    }
    ~CFileThreadTest() override {
        m_worker.stop();
        manager().ClearPeerConnection();
        fs::remove_all(m_dir);
    }

    static CPeerConnMgr& manager() { return utility::instance<CPeerConnMgr>(); }

    std::string make_file(size_t size) {
        Bytes const content = pattern(size);
        std::string const path = m_dir + "/file" + std::to_string(size);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<char const*>(content.data()),
                   static_cast<std::streamsize>(size));
        return path;
    }

    // A transfer that is ready to be listed; the test keeps it.
    std::unique_ptr<CFileTransfer> make_transfer(std::string const& path, FileReports* reports,
                                                 unsigned int number = 0) {
        auto transfer =
            std::make_unique<CFileTransfer>(m_address, path.c_str(), "target", 0, 0, number);
        transfer->SetNotifyCallback(FileReports::take, reports);
        return transfer;
    }

    void list(CFileTransfer* transfer) {
        transfer->SetTransferHandler(m_worker.GetHandlerFromDeviceid(m_address.deviceId));
        m_worker.AddTransferList(transfer);
    }

    bool is_idle() { return m_worker.GetFileTransferObject() == nullptr; }

    // What the worker has computed so far.
    double worker_seconds() {
        clockid_t clock{};
        timespec used{};
        pthread_getcpuclockid(m_worker.m_thread.native_handle(), &clock);
        clock_gettime(clock, &used);
        return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
    }

    _KypDeviceAddr m_address{{{127, 0, 0, 1, 2, 3}}, 105};
    std::string m_dir;
    FileReports m_reports;
    CFileThread m_worker;
};

// ---- the list ----------------------------------------------------------------------------------

TEST_F(CFileThreadTest, ListIsServedFromItsHead) {
    auto const first = make_transfer(make_file(1), &m_reports);
    auto const second = make_transfer(make_file(2), &m_reports);
    EXPECT_EQ(nullptr, m_worker.GetFileTransferObject());

    EXPECT_EQ(0, m_worker.AddTransferList(first.get()));
    EXPECT_EQ(0, m_worker.AddTransferList(second.get()));

    EXPECT_EQ(first.get(), m_worker.GetFileTransferObject());
    m_worker.EraseFileTransferObject(first.get());
    EXPECT_EQ(second.get(), m_worker.GetFileTransferObject());
}

TEST_F(CFileThreadTest, OnlyTheFirstEntryThatMatchesIsTakenOff) {
    auto const one = make_transfer(make_file(1), &m_reports);
    auto const other = make_transfer(make_file(2), &m_reports);
    for (CFileTransfer* entry : {one.get(), other.get(), one.get()}) {
        m_worker.AddTransferList(entry);
    }

    m_worker.EraseFileTransferObject(one.get());
    EXPECT_THAT(m_worker.m_transfers, ElementsAre(other.get(), one.get()));
    m_worker.EraseFileTransferObject(nullptr);
    EXPECT_THAT(m_worker.m_transfers, ElementsAre(other.get(), one.get()));
}

// ---- connections -------------------------------------------------------------------------------

TEST_F(CFileThreadTest, FirstUseConnectsToTheDevice) {
    FileDevice device;

    void* const handler = m_worker.GetHandlerFromDeviceid(m_address.deviceId);

    ASSERT_NE(nullptr, handler);
    EXPECT_TRUE(eventually([&] { return device.links() == 1; }));
    auto* const conn = static_cast<IKypPeerConnection*>(manager().GetPeerConnection(handler));
    ASSERT_NE(nullptr, conn);
    EXPECT_TRUE(static_cast<CTcpclient*>(conn)->m_thread.joinable());
    EXPECT_THAT(m_worker.m_handlers, ElementsAre(std::make_pair("127.0.0.1.2.3", handler)));
}

TEST_F(CFileThreadTest, LaterUsesGetTheSameConnection) {
    FileDevice device;
    void* const handler = m_worker.GetHandlerFromDeviceid(m_address.deviceId);

    EXPECT_EQ(handler, m_worker.GetHandlerFromDeviceid(m_address.deviceId));
    EXPECT_EQ(handler, m_worker.GetHandlerFromDeviceId("127.0.0.1.2.3"));
    EXPECT_EQ(1U, manager().m_connections.size());
}

TEST_F(CFileThreadTest, EachDeviceHasItsOwnConnection) {
    FileDevice device;

    void* const first = m_worker.GetHandlerFromDeviceid({{127, 0, 0, 1, 2, 3}});
    void* const second = m_worker.GetHandlerFromDeviceid({{127, 0, 0, 1, 2, 4}});

    EXPECT_NE(first, second);
    EXPECT_EQ(2U, m_worker.m_handlers.size());
}

TEST_F(CFileThreadTest, UnknownTextHasNoConnectionAndMakesNone) {
    EXPECT_EQ(nullptr, m_worker.GetHandlerFromDeviceId("127.0.0.1.2.3"));
    EXPECT_THAT(m_worker.m_handlers, IsEmpty());
}

TEST_F(CFileThreadTest, DeviceThatCannotBeReachedHasAConnectionAllTheSame) {
    EXPECT_NE(nullptr, m_worker.GetHandlerFromDeviceid(m_address.deviceId));
}

TEST_F(CFileThreadTest, KeepsANullHandle) {
    m_worker.m_handlers["127.0.0.1.2.3"] = nullptr;

    EXPECT_EQ(nullptr, m_worker.GetHandlerFromDeviceid(m_address.deviceId));
    EXPECT_EQ(1U, m_worker.m_handlers.size());
}

TEST_F(CFileThreadTest, KeepsAHandleThatWasReleased) {
    void* const handler = m_worker.GetHandlerFromDeviceid(m_address.deviceId);
    manager().ClearPeerConnection();

    EXPECT_EQ(handler, m_worker.GetHandlerFromDeviceid(m_address.deviceId));

    auto const transfer = make_transfer(make_file(1), &m_reports);
    list(transfer.get());
    m_worker.start();
    ASSERT_TRUE(eventually([this] { return is_idle(); }));
    EXPECT_EQ((FileReport{0, 0.0F, 12294, 3}), m_reports.all().back());
}

// ---- the worker --------------------------------------------------------------------------------

TEST_F(CFileThreadTest, OneWorkerIsEnough) {
    EXPECT_EQ(0, m_worker.start());
    std::thread::id const worker = m_worker.m_thread.get_id();

    EXPECT_EQ(0, m_worker.start());
    EXPECT_EQ(worker, m_worker.m_thread.get_id());
}

TEST_F(CFileThreadTest, WorkerThatHasNothingToDoSleeps30Ms) {
    CallGate gate;

    m_worker.start();

    EXPECT_TRUE(eventually([&] { return gate.count("nanosleep(0,30000000)") >= 3; }));
}

TEST_F(CFileThreadTest, StopWaitsForTheWorkerAndMayBeRepeated) {
    m_worker.start();

    EXPECT_EQ(0, m_worker.stop());
    EXPECT_FALSE(m_worker.m_thread.joinable());
    EXPECT_EQ(0, m_worker.stop());
}

TEST_F(CFileThreadTest, StopWithoutAWorkerDoesNotWait) {
    EXPECT_EQ(0, m_worker.stop());
}

TEST_F(CFileThreadTest, KeepsAStoppedWorkerFromStartingAgain) {
    auto const transfer = make_transfer(make_file(1), &m_reports);
    m_worker.AddTransferList(transfer.get());
    m_worker.stop();

    EXPECT_EQ(0, m_worker.start());

    m_worker.m_thread.join();
    EXPECT_EQ(transfer.get(), m_worker.GetFileTransferObject());
    EXPECT_EQ(1U, m_reports.count());
}

TEST_F(CFileThreadTest, TransferIsTakenOffTheListWhenItHasEnded) {
    FileDevice device;
    LogCapture log;
    auto const transfer = make_transfer(make_file(8193), &m_reports);
    list(transfer.get());

    m_worker.start();

    ASSERT_TRUE(eventually([this] { return is_idle(); }));
    EXPECT_EQ(1, log.count("INFO", "transfer over"));
    EXPECT_EQ(pattern(8193), device.content());
    EXPECT_EQ((FileReport{0, 1.0F, 0, 2}), m_reports.all().back());
}

TEST_F(CFileThreadTest, KeepsAnEndedTransferAndItsFile) {
    FileDevice device;
    auto const transfer = make_transfer(make_file(10), &m_reports);
    std::weak_ptr<CFile> const file = transfer->m_file;
    list(transfer.get());
    m_worker.start();
    ASSERT_TRUE(eventually([this] { return is_idle(); }));

    m_worker.stop();

    EXPECT_FALSE(file.expired());
    EXPECT_TRUE(transfer->IsTransferEnd());
}

TEST_F(CFileThreadTest, TransfersGoStrictlyInOrder) {
    FileDevice device;
    auto const first = make_transfer(make_file(8192 * 2), &m_reports, 1);
    auto const second = make_transfer(make_file(10), &m_reports, 2);
    list(first.get());
    list(second.get());

    m_worker.start();

    ASSERT_TRUE(eventually([this] { return is_idle(); }));
    std::vector<int> order;
    for (FileReport const& report : m_reports.all()) order.push_back(report.transferId);
    EXPECT_THAT(order, ElementsAre(1, 2, 1, 1, 1, 1, 2, 2));
    EXPECT_EQ(1, device.links());
}

TEST_F(CFileThreadTest, KeepsTurningWithoutAPauseOnAFileThatCannotBeOpened) {
    FileDevice device;
    auto const stuck = make_transfer(m_dir + "/none", &m_reports, 1);
    auto const waiting = make_transfer(make_file(10), &m_reports, 2);
    list(stuck.get());
    list(waiting.get());
    CallGate gate;

    m_worker.start();

    ASSERT_TRUE(eventually([this] { return worker_seconds() > 0.05; }));
    EXPECT_EQ(0, gate.count("nanosleep(0,30000000)"));
    EXPECT_EQ(stuck.get(), m_worker.GetFileTransferObject());
    EXPECT_THAT(m_reports.all(),
                ElementsAre(FileReport{1, 0.0F, 12289, 0}, FileReport{2, 0.0F, 0, 0}));

    m_worker.EraseFileTransferObject(stuck.get());
    EXPECT_TRUE(eventually([this] { return is_idle(); }));
    EXPECT_EQ(pattern(10), device.content());
}

TEST_F(CFileThreadTest, FileThatCannotBeOpenedEndsWhenItsFirstReportSaysSo) {
    FileReports refusing([](FileReport const&) { return -1; });
    auto const transfer = make_transfer(m_dir + "/none", &refusing);
    LogCapture log;
    list(transfer.get());

    m_worker.start();

    ASSERT_TRUE(eventually([this] { return is_idle(); }));
    EXPECT_EQ(1, log.count("INFO", "transfer over"));
    EXPECT_THAT(refusing.all(), ElementsAre(FileReport{0, 0.0F, 12289, 0}));
}

TEST_F(CFileThreadTest, KeepsSendingTheInfoOfATransferThatIsGivenUpAtOnce) {
    FileDevice device;
    FileReports refusing([](FileReport const&) { return -1; });
    auto const transfer = make_transfer(make_file(10), &refusing);
    list(transfer.get());

    m_worker.start();

    ASSERT_TRUE(eventually([this] { return is_idle(); }));
    EXPECT_EQ(1U, device.packet_count());
    EXPECT_THAT(refusing.all(), ElementsAre(FileReport{0, 0.0F, 0, 0}, FileReport{0, 0.0F, 0, 1}));
}

TEST_F(CFileThreadTest, WorkIsNotHeldUpForThoseWhoListAndAsk) {
    std::atomic<bool> inReport{false};
    std::atomic<bool> leave{false};
    FileReports holding([&](FileReport const& report) {
        if (report.state == 0) return 0;
        inReport = true;
        eventually([&] { return leave.load(); }, std::chrono::seconds(20));
        return -1;
    });
    auto const transfer = make_transfer(make_file(10), &holding);
    list(transfer.get());
    m_worker.start();
    ASSERT_TRUE(eventually([&] { return inReport.load(); }));

    auto const other = make_transfer(make_file(11), &m_reports);
    list(other.get());
    EXPECT_EQ(transfer.get(), m_worker.GetFileTransferObject());
    m_worker.EraseFileTransferObject(other.get());
    leave = true;

    EXPECT_TRUE(eventually([this] { return is_idle(); }));
}

}  // namespace
