#include "kypclient/CFileTransfer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <filesystem>
#include <fstream>

#include "kypclient/KypCreateFactory.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/filesys/CFile.h"
#include "libkyp/libkyp.h"
#include "support/FileDevice.h"
#include "support/FileReports.h"
#include "support/LogCapture.h"
#include "utils/Log.h"

namespace {

namespace fs = std::filesystem;

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint16_t kPort = 105;

class CFileTransferTest : public ::testing::Test {
protected:
    CFileTransferTest() : m_dir(::testing::TempDir() + "CFileTransferTest." + own_id()) {
        SetLogLevel(LOG_LEVEL_TRACE);
        fs::create_directory(m_dir);
        tlsErrno = KYP_OK;
    }
    ~CFileTransferTest() override { fs::remove_all(m_dir); }

    static std::string own_id() { return std::to_string(getpid()); }

    std::string make_file(size_t size, std::string const& name = "image.bin") {
        Bytes const content = pattern(size);
        std::string const path = m_dir + "/" + name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<char const*>(content.data()),
                   static_cast<std::streamsize>(size));
        return path;
    }

    CFileTransfer& make(std::string const& localPath, std::string const& remotePath = "target") {
        m_transfer = std::make_unique<CFileTransfer>(m_address, localPath.c_str(),
                                                     remotePath.c_str(), 1, 2, 77);
        return *m_transfer;
    }

    Bytes packet(int length) const { return {m_packet, m_packet + length}; }

    _KypDeviceAddr m_address{{{127, 0, 0, 1, 2, 3}}, kPort};
    std::string m_dir;
    std::unique_ptr<CFileTransfer> m_transfer;
    char m_packet[10240] = {};
};

// ---- the object --------------------------------------------------------------------------------

TEST_F(CFileTransferTest, NewTransferHasItsFileOpenAndSentNothing) {
    CFileTransfer const& transfer = make(make_file(10));

    EXPECT_TRUE(transfer.m_sendInfo);
    EXPECT_FALSE(transfer.m_abort);
    EXPECT_EQ(0, transfer.m_state);
    EXPECT_EQ(77U, transfer.m_transferId);
    EXPECT_EQ(0U, transfer.m_chunkSeq);
    EXPECT_EQ(1U, transfer.m_chunkNum);
    EXPECT_EQ(0U, transfer.m_ssrc);
    EXPECT_EQ(0U, transfer.m_error);
    EXPECT_EQ(nullptr, transfer.m_userData);
    EXPECT_EQ(nullptr, transfer.m_handler);
    EXPECT_TRUE(transfer.m_callback == nullptr);
    EXPECT_EQ(kPort, transfer.m_deviceAddr.port);
    ASSERT_NE(nullptr, transfer.m_file);
    EXPECT_TRUE(transfer.m_file->IsOpen());
}

TEST_F(CFileTransferTest, RemotePathIsZeroBehindItsEnd) {
    CFileTransfer const& transfer = make(make_file(1), "a/b");

    EXPECT_STREQ("a/b", transfer.m_remotePath);
    EXPECT_THAT(std::string(transfer.m_remotePath + 3, sizeof(transfer.m_remotePath) - 3),
                Each('\0'));
}

TEST_F(CFileTransferTest, FileThatCannotBeOpenedIsAnErrorAndHasNoChunks) {
    CFileTransfer const& transfer = make(m_dir + "/none");

    EXPECT_EQ(12289U, transfer.m_error);
    EXPECT_EQ(0U, transfer.m_chunkNum);
    EXPECT_EQ(0, transfer.m_state);
    EXPECT_FALSE(transfer.m_file->IsOpen());
}

TEST_F(CFileTransferTest, MissingPathsAreEmptyOnes) {
    CFileTransfer transfer(m_address, nullptr, nullptr, 0, 0, 0);

    EXPECT_EQ(12289U, transfer.m_error);
    EXPECT_STREQ("", transfer.m_remotePath);
}

TEST_F(CFileTransferTest, PathsOf255BytesFit) {
    std::string const name(255 - m_dir.size() - 1, 'n');
    LogCapture log;

    CFileTransfer const& transfer = make(make_file(10, name), std::string(255, 'r'));

    EXPECT_EQ(0U, transfer.m_error);
    EXPECT_EQ(std::string(255, 'r'), transfer.m_remotePath);
    EXPECT_EQ(1U, transfer.m_chunkNum);
    EXPECT_EQ(0, log.count_containing("too long"));
}

TEST_F(CFileTransferTest, LongerRemotePathIsCutAndReported) {
    for (size_t length : {256U, 300U, 100000U}) {
        SCOPED_TRACE(length);
        LogCapture log;

        CFileTransfer const& transfer = make(make_file(10), std::string(length, 'r'));

        EXPECT_EQ(std::string(255, 'r'), transfer.m_remotePath);
        EXPECT_EQ(0x2004U, transfer.m_error);
        EXPECT_EQ(1, log.count("ERROR", "remote path length:" + std::to_string(length) +
                                            " too long,cut to:" + std::string(255, 'r')));
    }
}

TEST_F(CFileTransferTest, LongerLocalPathIsCutAndReportedEvenWhenNothingIsThere) {
    LogCapture log;

    CFileTransfer const& transfer = make(std::string(300, 'l'));

    EXPECT_EQ(0x2004U, transfer.m_error);
    EXPECT_EQ(std::string(255, 'l'), transfer.m_file->GetFileFullPath());
    EXPECT_EQ(0U, transfer.m_chunkNum);
    EXPECT_EQ(1,
              log.count("ERROR", "file path length:300 too long,cut to:" + std::string(255, 'l')));
}

TEST_F(CFileTransferTest, StatusOfAnEarlierCallDoesNotCountAsACutPath) {
    tlsErrno = KYP_ERR_INPUT_PARAM;

    EXPECT_EQ(0U, make(make_file(1)).m_error);
}

TEST_F(CFileTransferTest, RemoteDeviceIdIsAText) {
    EXPECT_EQ("127.0.0.1.2.3", make(make_file(1)).GetRemoteDeviceId());
}

TEST_F(CFileTransferTest, SessionNumberIsKept) {
    CFileTransfer& transfer = make(make_file(1));

    transfer.SetSSRC(0x89abcdef);

    EXPECT_EQ(0x89abcdefU, transfer.GetSSRC());
    EXPECT_EQ(0x89abcdefU, transfer.m_ssrc);
}

TEST_F(CFileTransferTest, HandlerIsKept) {
    CFileTransfer& transfer = make(make_file(1));

    transfer.SetTransferHandler(&transfer);

    EXPECT_EQ(&transfer, transfer.m_handler);
}

// ---- chunks ------------------------------------------------------------------------------------

TEST_F(CFileTransferTest, ChunksAreCountedFromTheSize) {
    struct Row {
        size_t size;
        uint32_t chunks;
    };
    for (Row const& row : {Row{0, 0}, Row{1, 1}, Row{8191, 1}, Row{8192, 1}, Row{8193, 2},
                           Row{16384, 2}, Row{16385, 3}, Row{5 << 20, 640}}) {
        SCOPED_TRACE(row.size);
        LogCapture log;

        CFileTransfer& transfer = make(make_file(row.size));

        EXPECT_EQ(row.chunks, transfer.m_chunkNum);
        EXPECT_EQ(1, log.count("TRACE", "file Size:" + std::to_string(row.size) +
                                            ",chunk num:" + std::to_string(row.chunks)));
        EXPECT_EQ(0, transfer.CalcChunkNum());
    }
}

TEST_F(CFileTransferTest, ChunksOfTheLargestSizeAreCountedWithoutASign) {
    std::string const path = make_file(0);
    if (truncate(path.c_str(), (int64_t{1} << 32) - 1) != 0) GTEST_SKIP() << "no large files here";
    LogCapture log;

    EXPECT_EQ(524288U, make(path).m_chunkNum);
    EXPECT_EQ(1, log.count("TRACE", "file Size:4294967295,chunk num:524288"));
}

TEST_F(CFileTransferTest, WithoutAnOpenFileNoChunksAreCounted) {
    CFileTransfer& transfer = make(m_dir + "/none");
    transfer.m_chunkNum = 5;
    LogCapture log;

    EXPECT_EQ(0, transfer.CalcChunkNum());
    transfer.m_file = nullptr;
    EXPECT_EQ(0, transfer.CalcChunkNum());
    EXPECT_EQ(5U, transfer.m_chunkNum);
    EXPECT_EQ("", log.text());
}

// ---- packets -----------------------------------------------------------------------------------

TEST_F(CFileTransferTest, InfoHeadHasLengthsSizeAndChunks) {
    CFileTransfer& transfer = make(make_file(8193, "abc"), "to/xy");

    EXPECT_EQ(15, transfer.MakeFileInfoHeader(m_packet));
    EXPECT_EQ("01 03 05 00 00 20 01 00 00 20 00 00 00 00 02", hex(packet(15)));
}

TEST_F(CFileTransferTest, NameAndRemotePathFollowWithoutTerminators) {
    CFileTransfer& transfer = make(make_file(1, "abc"), "to/xy");
    m_packet[8] = '?';

    EXPECT_EQ(8, transfer.MakeFileInfoPacket(m_packet, 10225));
    EXPECT_EQ("abcto/xy?", as_text(packet(9)));
}

TEST_F(CFileTransferTest, RemotePathWithoutATerminatorEndsWithItsField) {
    CFileTransfer& transfer = make(make_file(1, "abc"));
    std::fill(std::begin(transfer.m_remotePath), std::end(transfer.m_remotePath), 'r');

    EXPECT_EQ(259, transfer.MakeFileInfoPacket(m_packet, 10225));
    EXPECT_EQ("abc" + std::string(256, 'r'), as_text(packet(259)));
}

TEST_F(CFileTransferTest, KeepsLowEightBitsOfALongNamesLength) {
    CFileTransfer& transfer = make(make_file(1), "target");
    transfer.m_file->m_fileName = std::string(300, 'n');

    EXPECT_EQ(15, transfer.MakeFileInfoHeader(m_packet));
    EXPECT_EQ("01 2C 06", hex(packet(3)));
    EXPECT_EQ(306, transfer.MakeFileInfoPacket(m_packet, 10225));
    EXPECT_EQ(std::string(300, 'n') + "target", as_text(packet(306)));
}

TEST_F(CFileTransferTest, NameThatExceedsThePacketIsRefused) {
    CFileTransfer& transfer = make(make_file(1), "target");
    transfer.m_file->m_fileName = std::string(94, 'n');
    LogCapture log;

    EXPECT_EQ(100, transfer.MakeFileInfoPacket(m_packet, 100));
    EXPECT_EQ("", log.text());
    m_packet[0] = '?';
    for (int size : {99, 0, -1, INT_MIN}) {
        SCOPED_TRACE(size);
        tlsErrno = KYP_OK;

        EXPECT_EQ(-1, transfer.MakeFileInfoPacket(m_packet, size));
        EXPECT_EQ(0x2004, tlsErrno);
        EXPECT_EQ('?', m_packet[0]);
        EXPECT_EQ(1,
                  log.count("ERROR", "file name and remote path of 100 byte exceed the packet's " +
                                         std::to_string(size)));
    }
}

TEST_F(CFileTransferTest, WithoutAFileTheInfoHasNoName) {
    CFileTransfer& transfer = make(make_file(1), "xy");
    transfer.m_file = nullptr;

    EXPECT_EQ(15, transfer.MakeFileInfoHeader(m_packet));
    EXPECT_EQ("01 00 02 00 00 00 00 00 00 20 00 00 00 00 01", hex(packet(15)));
    EXPECT_EQ(2, transfer.MakeFileInfoPacket(m_packet, 100));
}

TEST_F(CFileTransferTest, ChunkHeadHasTheCountedNumberAndTheSession) {
    CFileTransfer& transfer = make(make_file(1));
    transfer.SetSSRC(0x0a0b0c0d);

    EXPECT_EQ(9, transfer.MakeFileChunkHeader(m_packet, 0));
    EXPECT_EQ("02 00 00 00 01 0A 0B 0C 0D", hex(packet(9)));
    transfer.m_chunkSeq = 0x01020303;
    EXPECT_EQ(9, transfer.MakeFileChunkHeader(m_packet, 1));
    EXPECT_EQ("82 01 02 03 04 0A 0B 0C 0D", hex(packet(9)));
    EXPECT_EQ(0x01020304U, transfer.m_chunkSeq);
}

TEST_F(CFileTransferTest, ShortChunkIsTheLast) {
    CFileTransfer& transfer = make(make_file(8191));
    transfer.m_state = 1;

    EXPECT_EQ(8200, transfer.MakeFileChunkPacket(m_packet, sizeof(m_packet)));
    EXPECT_EQ("82 00 00 00 01 00 00 00 00", hex(packet(9)));
    EXPECT_EQ(pattern(8191), Bytes(m_packet + 9, m_packet + 8200));
    EXPECT_EQ(2, transfer.m_state);
    EXPECT_TRUE(transfer.IsTransferEnd());
}

TEST_F(CFileTransferTest, WholeChunkIsNotTheLastAndNothingFollowsIt) {
    CFileTransfer& transfer = make(make_file(8192));
    transfer.m_state = 1;

    EXPECT_EQ(8201, transfer.MakeFileChunkPacket(m_packet, sizeof(m_packet)));
    EXPECT_EQ("02 00 00 00 01 00 00 00 00", hex(packet(9)));
    EXPECT_FALSE(transfer.IsTransferEnd());
    EXPECT_EQ(1, transfer.m_state);

    m_packet[0] = '?';
    EXPECT_EQ(0, transfer.MakeFileChunkPacket(m_packet, sizeof(m_packet)));
    EXPECT_EQ('?', m_packet[0]);
    EXPECT_EQ(1U, transfer.m_chunkSeq);
    EXPECT_EQ(1, transfer.m_state);
    EXPECT_TRUE(transfer.IsTransferEnd());
}

TEST_F(CFileTransferTest, ChunkThatCannotBeReadTakesTheThreadsStatus) {
    // A directory opens like a file and cannot be read.
    CFileTransfer& transfer = make(m_dir);

    EXPECT_EQ(0, transfer.MakeFileChunkPacket(m_packet, sizeof(m_packet)));
    EXPECT_EQ(12291U, transfer.m_error);
    EXPECT_EQ(0U, transfer.m_chunkSeq);
}

TEST_F(CFileTransferTest, ChunkIsNotLargerThanItsBuffer) {
    CFileTransfer& transfer = make(make_file(100));
    std::vector<char> small(50, '?');

    EXPECT_EQ(49, transfer.MakeFileChunkPacket(small.data(), 49));
    EXPECT_EQ('?', small[49]);
    EXPECT_EQ(50, transfer.MakeFileChunkPacket(small.data(), 50));
    EXPECT_EQ(28, transfer.MakeFileChunkPacket(small.data(), 50));
    EXPECT_EQ(pattern(100)[99], static_cast<uint8_t>(small[27]));
}

TEST_F(CFileTransferTest, BufferWithoutRoomForAByteIsRefusedAndLosesNothing) {
    CFileTransfer& transfer = make(make_file(100));

    for (int size : {9, 0, -1, INT_MIN + 9}) {
        SCOPED_TRACE(size);
        transfer.m_error = 0;
        EXPECT_EQ(0, transfer.MakeFileChunkPacket(m_packet, size));
        EXPECT_EQ(0x2004U, transfer.m_error);
    }
    EXPECT_EQ(109, transfer.MakeFileChunkPacket(m_packet, sizeof(m_packet)));
}

// ---- reports -----------------------------------------------------------------------------------

TEST_F(CFileTransferTest, FirstReportComesAtOnce) {
    CFileTransfer& transfer = make(make_file(10));
    FileReports reports;

    EXPECT_EQ(0, transfer.SetNotifyCallback(FileReports::take, &reports));

    EXPECT_THAT(reports.all(), ElementsAre(FileReport{77, 0.0F, 0, 0}));
    ASSERT_EQ(1U, reports.devices().size());
    EXPECT_THAT(reports.devices()[0].bytes, ElementsAre(127, 0, 0, 1, 2, 3));
    EXPECT_EQ(&reports, transfer.m_userData);
    EXPECT_FALSE(transfer.IsTransferEnd());
}

TEST_F(CFileTransferTest, NobodyNeedsToListen) {
    CFileTransfer& transfer = make(make_file(10));

    EXPECT_EQ(0, transfer.SetNotifyCallback(nullptr, nullptr));
    transfer.NotifyProgress();
    EXPECT_FALSE(transfer.m_abort);
}

TEST_F(CFileTransferTest, ProgressIsThePartOfTheChunks) {
    CFileTransfer& transfer = make(make_file(8192 * 3));
    FileReports reports;
    transfer.SetNotifyCallback(FileReports::take, &reports);
    transfer.m_chunkSeq = 1;
    transfer.m_state = 1;
    transfer.m_error = 0x2009;

    transfer.NotifyProgress();

    EXPECT_EQ((FileReport{77, static_cast<float>(1.0 / 3.0), 0x2009, 1}), reports.all()[1]);
}

TEST_F(CFileTransferTest, EmptyFileStaysAtNoProgress) {
    CFileTransfer& transfer = make(make_file(0));
    FileReports reports;
    transfer.m_chunkSeq = 7;

    transfer.SetNotifyCallback(FileReports::take, &reports);

    EXPECT_EQ(0.0F, reports.all()[0].progress);
}

TEST_F(CFileTransferTest, OnlyMinusOneGivesATransferUp) {
    CFileTransfer& transfer = make(make_file(10));
    int verdict = 0;
    FileReports reports([&verdict](FileReport const&) { return verdict; });
    for (int other : {0, 1, -2, INT_MAX, INT_MIN}) {
        verdict = other;
        transfer.SetNotifyCallback(FileReports::take, &reports);
        EXPECT_FALSE(transfer.m_abort) << other;
    }

    verdict = -1;
    transfer.SetNotifyCallback(FileReports::take, &reports);

    EXPECT_TRUE(transfer.m_abort);
    EXPECT_TRUE(transfer.IsTransferEnd());
}

TEST_F(CFileTransferTest, CutPathStandsInTheFirstReport) {
    FileReports reports;

    make(make_file(10), std::string(256, 'r')).SetNotifyCallback(FileReports::take, &reports);
    make(std::string(256, 'l')).SetNotifyCallback(FileReports::take, &reports);

    EXPECT_THAT(reports.all(),
                ElementsAre(FileReport{77, 0.0F, 0x2004, 0}, FileReport{77, 0.0F, 0x2004, 0}));
}

TEST_F(CFileTransferTest, TransferWithoutAFileIsAtItsEnd) {
    CFileTransfer& transfer = make(make_file(10));
    EXPECT_FALSE(transfer.IsTransferEnd());

    transfer.m_file = nullptr;

    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_EQ(-1, transfer.SendFile());
}

TEST_F(CFileTransferTest, KeepsAnUnopenableFileFromEverEnding) {
    CFileTransfer& transfer = make(m_dir + "/none");
    FileReports reports;
    transfer.SetNotifyCallback(FileReports::take, &reports);

    EXPECT_EQ(-1, transfer.SendFile());
    EXPECT_FALSE(transfer.IsTransferEnd());
    EXPECT_TRUE(transfer.m_sendInfo);
    EXPECT_THAT(reports.all(), ElementsAre(FileReport{77, 0.0F, 12289, 0}));
}

TEST_F(CFileTransferTest, NameThatExceedsAPacketEndsTheTransfer) {
    CFileTransfer& transfer = make(make_file(10), "");
    FileReports reports;
    transfer.SetNotifyCallback(FileReports::take, &reports);
    transfer.m_file->m_fileName = std::string(10226, 'n');

    EXPECT_EQ(-1, transfer.SendFile());
    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_EQ((FileReport{77, 0.0F, 0x2004, 3}), reports.all().back());
}

TEST_F(CFileTransferTest, WithoutAConnectionTheFirstExchangeFails) {
    CFileTransfer& transfer = make(make_file(10));
    FileReports reports;
    transfer.SetNotifyCallback(FileReports::take, &reports);

    EXPECT_EQ(0, transfer.SendFile());
    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_FALSE(transfer.m_sendInfo);
    EXPECT_EQ((FileReport{77, 0.0F, 12294, 3}), reports.all().back());
}

// ---- exchanges ---------------------------------------------------------------------------------

// A transfer that is connected to a device.
class CFileTransferLinkTest : public CFileTransferTest {
protected:
    ~CFileTransferLinkTest() override { utility::instance<CPeerConnMgr>().ClearPeerConnection(); }

    CFileTransfer& connect(FileDevice::Answer answer, size_t size = 10) {
        m_device = std::make_unique<FileDevice>(std::move(answer));
        CFileTransfer& transfer = make(make_file(size));
        transfer.SetTransferHandler(libkyp_createInstance(&m_address.deviceId, KYP_CONN_TCP));
        transfer.SetNotifyCallback(FileReports::take, &m_reports);
        return transfer;
    }

    // A device that answers everything with `payload`.
    static FileDevice::Answer says(std::string const& payload) {
        return [payload](FilePacket const& packet) {
            return FileDevice::reply(packet, bytes(payload));
        };
    }

    int exchange(int len) { return m_transfer->ReadWriteReq(m_transfer->m_handler, m_packet, len); }

    std::unique_ptr<FileDevice> m_device;
    FileReports m_reports;
};

TEST_F(CFileTransferLinkTest, ExchangeGoesToThePortOfTheDeviceAndTheFileService) {
    connect(says("01 00 00 00 09 00 00 00 00"));
    std::copy_n("packet", 6, m_packet);

    EXPECT_EQ(0, exchange(6));

    ASSERT_EQ(1U, m_device->packet_count());
    FilePacket const packet = m_device->packets()[0];
    EXPECT_EQ(kPort, packet.request.port);
    EXPECT_EQ(9, packet.request.cmd);
    EXPECT_EQ(4098U, packet.indexGroup);
    EXPECT_EQ(1U, packet.indexOffset);
    EXPECT_EQ("packet", as_text(packet.bytes));
    EXPECT_EQ(9U, m_transfer->m_ssrc);
    EXPECT_EQ((FileReport{77, 0.0F, 0, 1}), m_reports.all().back());
}

TEST_F(CFileTransferLinkTest, AnswersAreTakenByTheirType) {
    struct Row {
        char const* answer;
        uint32_t ssrc;
        uint32_t error;
        int state;
    };
    std::atomic<char const*> now{""};
    connect(
        [&now](FilePacket const& packet) { return FileDevice::reply(packet, bytes(now.load())); });
    for (Row const& row : {
             Row{"01 0A 0B 0C 0D 00 00 00 00", 0x0a0b0c0d, 0, 1},
             Row{"81 0A 0B 0C 0D 00 00 00 00", 0x0a0b0c0d, 0, 2},
             Row{"01 0A 0B 0C 0D 00 00 20 09", 0x0a0b0c0d, 0x2009, 3},
             Row{"81 0A 0B 0C 0D 80 00 00 00", 0x0a0b0c0d, 0x80000000, 3},
             Row{"02 0A 0B 0C 0D 00 00 00 00", 5, 0, 1},
             Row{"82 0A 0B 0C 0D 00 00 00 00", 5, 0, 2},
             Row{"02 0A 0B 0C 0D 00 00 30 04", 5, 0x3004, 3},
             Row{"82 0A 0B 0C 0D 00 00 30 04", 5, 0x3004, 3},
             // no type that is known: only the top bit counts
             Row{"00 0A 0B 0C 0D 00 00 20 09", 5, 0, 1},
             Row{"03 0A 0B 0C 0D 00 00 20 09", 5, 0, 1},
             Row{"7F FF FF FF FF FF FF FF FF", 5, 0, 1},
             Row{"83 0A 0B 0C 0D 00 00 20 09", 5, 0, 2},
             Row{"FF FF FF FF FF FF FF FF FF FF FF", 5, 0, 2},
             // what is missing is zero
             Row{"01", 0, 0, 1},
             Row{"81", 0, 0, 2},
             Row{"01 0A 0B", 0x0a0b0000, 0, 1},
             Row{"01 0A 0B 0C 0D", 0x0a0b0c0d, 0, 1},
             Row{"02 0A 0B 0C 0D 00 01", 5, 0x00010000, 3},
         }) {
        SCOPED_TRACE(row.answer);
        now = row.answer;
        m_transfer->m_ssrc = 5;
        m_transfer->m_error = 99;

        EXPECT_EQ(0, exchange(15));
        EXPECT_EQ(row.ssrc, m_transfer->m_ssrc);
        EXPECT_EQ(row.error, m_transfer->m_error);
        EXPECT_EQ(row.state, m_transfer->m_state);
        EXPECT_FALSE(m_transfer->m_abort);
        EXPECT_EQ((FileReport{77, 0.0F, static_cast<int>(row.error), row.state}),
                  m_reports.all().back());
    }
}

TEST_F(CFileTransferLinkTest, KeepsToTheLengthOfTheRequestWhenItReadsAnAnswer) {
    struct Row {
        int len;
        uint32_t ssrc;
        uint32_t error;
        int state;
    };
    connect(says("01 00 00 00 09 00 00 20 09"));
    for (Row const& row : {Row{0, 5, 0, 1}, Row{1, 5, 0, 1}, Row{2, 9, 0, 1}, Row{5, 9, 0, 1},
                           Row{6, 9, 0x2009, 3}}) {
        SCOPED_TRACE(row.len);
        m_transfer->m_ssrc = 5;

        EXPECT_EQ(0, exchange(row.len));
        EXPECT_EQ(row.ssrc, m_transfer->m_ssrc);
        EXPECT_EQ(row.error, m_transfer->m_error);
        EXPECT_EQ(row.state, m_transfer->m_state);
    }
}

TEST_F(CFileTransferLinkTest, LongAnswerDoesNotReachIntoTheNext) {
    int number = 0;
    connect([&number](FilePacket const& packet) {
        Bytes payload(3000, 0xff);
        payload[0] = ++number == 1 ? 0x02 : 0x01;
        if (number > 1) std::fill(payload.begin() + 1, payload.end(), uint8_t{0});
        std::fill_n(payload.begin() + 5, 4, uint8_t{0});
        return FileDevice::reply(packet, payload);
    });

    EXPECT_EQ(0, exchange(15));
    EXPECT_EQ(1, m_transfer->m_state);
    m_transfer->m_ssrc = 5;
    EXPECT_EQ(0, exchange(15));
    EXPECT_EQ(0U, m_transfer->m_ssrc);
    EXPECT_EQ(1, m_transfer->m_state);
}

TEST_F(CFileTransferLinkTest, ErrorInTheHeadOfAResponseFailsTheTransfer) {
    connect([](FilePacket const& packet) {
        return FileDevice::reply(packet, bytes("02 00 00 00 01 00 00 00 00"), 0x1006);
    });

    EXPECT_EQ(0, exchange(15));
    EXPECT_EQ(12294U, m_transfer->m_error);
    EXPECT_TRUE(m_transfer->m_abort);
    EXPECT_EQ((FileReport{77, 0.0F, 12294, 3}), m_reports.all().back());
}

TEST_F(CFileTransferLinkTest, ResponseWithoutPayloadFailsTheTransfer) {
    connect(says(""));

    EXPECT_EQ(0, exchange(15));
    EXPECT_EQ(12294U, m_transfer->m_error);
    EXPECT_TRUE(m_transfer->m_abort);
    EXPECT_EQ(3, m_transfer->m_state);
}

TEST_F(CFileTransferLinkTest, SilenceOfASecondFailsTheTransfer) {
    connect([](FilePacket const&) { return FileDevice::Reply{}; });
    auto const begin = std::chrono::steady_clock::now();

    EXPECT_EQ(0, exchange(15));
    EXPECT_LE(std::chrono::milliseconds(990), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(12294U, m_transfer->m_error);
    EXPECT_TRUE(m_transfer->m_abort);
    EXPECT_EQ((FileReport{77, 0.0F, 12294, 3}), m_reports.all().back());
}

TEST_F(CFileTransferLinkTest, InfoIsSentFirstAndOnce) {
    CFileTransfer& transfer = connect(FileDevice::takes_all, 8193);

    EXPECT_EQ(0, transfer.SendFile());

    EXPECT_FALSE(transfer.m_sendInfo);
    EXPECT_EQ(FileDevice::kSession, transfer.GetSSRC());
    EXPECT_EQ(1, transfer.m_state);
    EXPECT_EQ(0U, transfer.m_chunkSeq);
    ASSERT_EQ(1U, m_device->packet_count());
    EXPECT_EQ("01 09 06 00 00 20 01 00 00 20 00 00 00 00 02 " + hex(text("image.bintarget")),
              hex(m_device->packets()[0].bytes));
}

TEST_F(CFileTransferLinkTest, ChunksFollowWithTheSessionOfTheDevice) {
    CFileTransfer& transfer = connect(FileDevice::takes_all, 8193);
    Bytes const content = pattern(8193);

    for (int packet = 0; packet < 3; ++packet) EXPECT_EQ(0, transfer.SendFile());

    std::vector<FilePacket> const packets = m_device->packets();
    ASSERT_EQ(3U, packets.size());
    EXPECT_EQ(
        join({bytes("02 00 00 00 01 01 02 03 04"), Bytes(content.begin(), content.begin() + 8192)}),
        packets[1].bytes);
    EXPECT_EQ(join({bytes("82 00 00 00 02 01 02 03 04"), {content[8192]}}), packets[2].bytes);
    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_EQ(2, transfer.m_state);
    EXPECT_THAT(m_reports.all(),
                ElementsAre(FileReport{77, 0.0F, 0, 0}, FileReport{77, 0.0F, 0, 1},
                            FileReport{77, 0.5F, 0, 1}, FileReport{77, 1.0F, 0, 2}));
}

TEST_F(CFileTransferLinkTest, KeepsAnEmptyExchangeBehindAFileOfWholeChunks) {
    CFileTransfer& transfer = connect(FileDevice::takes_all, 8192);
    for (int packet = 0; packet < 2; ++packet) EXPECT_EQ(0, transfer.SendFile());
    ASSERT_FALSE(transfer.IsTransferEnd());

    EXPECT_EQ(0, transfer.SendFile());

    ASSERT_EQ(3U, m_device->packet_count());
    EXPECT_THAT(m_device->packets()[2].bytes, IsEmpty());
    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_EQ((FileReport{77, 1.0F, 0, 2}), m_reports.all().back());
}

TEST_F(CFileTransferLinkTest, KeepsTheRefusalOfAnEmptyExchangeUnseen) {
    CFileTransfer& transfer = connect(
        [](FilePacket const& packet) {
            if (!packet.bytes.empty()) return FileDevice::takes_all(packet);
            return FileDevice::answer(packet, 2, 0, KYP_ERR_WRITE_FILE);
        },
        8192);
    for (int packet = 0; packet < 3; ++packet) EXPECT_EQ(0, transfer.SendFile());

    EXPECT_EQ((FileReport{77, 1.0F, 0, 1}), m_reports.all().back());
}

TEST_F(CFileTransferLinkTest, KeepsAFailedReadLookingLikeTheEnd) {
    CFileTransfer& transfer = connect(FileDevice::takes_all);
    transfer.m_file = std::make_shared<CFile>(m_dir.c_str());  // opens, and cannot be read
    ASSERT_EQ(0, transfer.m_file->OpenFile());
    EXPECT_EQ(0, transfer.SendFile());
    LogCapture log;

    EXPECT_EQ(0, transfer.SendFile());

    EXPECT_EQ(1, log.count_containing("file read size:0 error:"));
    EXPECT_THAT(m_device->packets()[1].bytes, IsEmpty());
    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_EQ((FileReport{77, 0.0F, 0, 2}), m_reports.all().back());
}

TEST_F(CFileTransferLinkTest, KeepsGoingBehindARefusal) {
    CFileTransfer& transfer = connect(
        [](FilePacket const& packet) {
            return FileDevice::answer(packet, packet.bytes[0] & 0x7f, 1, KYP_ERR_DISK_FULL);
        },
        8193);
    for (int packet = 0; packet < 3; ++packet) {
        EXPECT_FALSE(transfer.IsTransferEnd());
        EXPECT_EQ(0, transfer.SendFile());
    }

    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_FALSE(transfer.m_abort);
    EXPECT_THAT(m_reports.all(),
                ElementsAre(FileReport{77, 0.0F, 0, 0}, FileReport{77, 0.0F, 0x2009, 3},
                            FileReport{77, 0.5F, 0x2009, 3}, FileReport{77, 1.0F, 0x2009, 3}));
}

TEST_F(CFileTransferLinkTest, KeepsGoingBehindAnEarlyConfirmation) {
    CFileTransfer& transfer = connect(
        [](FilePacket const& packet) {
            return FileDevice::answer(packet, packet.bytes[0] | 0x80, 1, 0);
        },
        8193);
    EXPECT_EQ(0, transfer.SendFile());
    EXPECT_EQ(2, transfer.m_state);
    EXPECT_EQ(0, transfer.SendFile());
    EXPECT_EQ(2, transfer.m_state);
    EXPECT_FALSE(transfer.IsTransferEnd());

    EXPECT_EQ(0, transfer.SendFile());
    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_EQ(8193U, m_device->content().size());
}

TEST_F(CFileTransferLinkTest, KeepsATransferRunningWhoseEndIsNotConfirmed) {
    CFileTransfer& transfer = connect([](FilePacket const& packet) {
        return FileDevice::answer(packet, packet.bytes[0] & 0x7f, 1, 0);
    });
    for (int packet = 0; packet < 2; ++packet) EXPECT_EQ(0, transfer.SendFile());

    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_EQ((FileReport{77, 1.0F, 0, 1}), m_reports.all().back());
}

TEST_F(CFileTransferLinkTest, GarbageForAnswersChangesNothingButTheSession) {
    int number = 0;
    CFileTransfer& transfer = connect(
        [&number](FilePacket const& packet) {
            static char const* const answers[] = {"05", "00 FF FF FF FF FF FF FF FF", "7E 00 00 00",
                                                  "01 DE AD BE EF 00 00 00 00"};
            return FileDevice::reply(packet, bytes(answers[number++ % 4]));
        },
        8192 * 3 + 1);
    for (int packet = 0; packet < 5; ++packet) EXPECT_EQ(0, transfer.SendFile());

    EXPECT_TRUE(transfer.IsTransferEnd());
    EXPECT_EQ(0xdeadbeefU, transfer.GetSSRC());
    EXPECT_EQ(pattern(8192 * 3 + 1), m_device->content());
    Bytes const last = m_device->packets().at(4).bytes;
    EXPECT_EQ("82 00 00 00 04 DE AD BE EF", hex(Bytes(last.begin(), last.begin() + 9)));
}

TEST_F(CFileTransferLinkTest, LongestNameAndPathGoOutWhole) {
    m_device = std::make_unique<FileDevice>();
    std::string const name(255 - m_dir.size() - 1, 'n');
    CFileTransfer& transfer = make(make_file(1, name), std::string(255, 'r'));
    transfer.SetTransferHandler(libkyp_createInstance(&m_address.deviceId, KYP_CONN_TCP));

    EXPECT_EQ(0, transfer.SendFile());

    Bytes const packet = m_device->packets().at(0).bytes;
    EXPECT_EQ(name.size(), packet[1]);
    EXPECT_EQ(255, packet[2]);
    EXPECT_EQ(name + std::string(255, 'r'), as_text(Bytes(packet.begin() + 15, packet.end())));
}

TEST_F(CFileTransferLinkTest, LargestNameThatAPacketHoldsGoesOut) {
    CFileTransfer& transfer = connect(FileDevice::takes_all);
    transfer.m_file->m_fileName = std::string(10225 - 6, 'n');

    EXPECT_EQ(0, transfer.SendFile());

    EXPECT_EQ(10240U, m_device->packets().at(0).bytes.size());
    EXPECT_EQ(1, transfer.m_state);
}

}  // namespace
