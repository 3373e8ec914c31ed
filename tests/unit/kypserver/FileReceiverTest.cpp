#include "kypserver/FileReceiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "support/FrameBytes.h"

namespace kypserver {
namespace {

namespace fs = std::filesystem;

using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr CFileReceiver::Link kLink = 1;
constexpr CFileReceiver::Link kOther = 2;

// An answer as it goes out.
struct Answer {
    uint8_t type;
    uint32_t number;
    uint32_t status;
};

class FileReceiverTest : public testing::Test {
protected:
    FileReceiverTest()
        : m_dir(testing::TempDir() + "FileReceiverTest." + std::to_string(getpid())) {
        fs::create_directory(m_dir);
        EXPECT_EQ("", m_spool.open(m_dir));
        testing::internal::CaptureStderr();
    }
    ~FileReceiverTest() override {
        (void)said();
        fs::remove_all(m_dir);
    }

    // What was reported since the last time.
    std::string said() {
        std::string const all = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return all;
    }

    static Bytes info(std::string const& name, uint32_t size, std::string const& path = "") {
        uint32_t const chunks = size / 8192 + (size % 8192 == 0 ? 0 : 1);
        return info(name, path, size, 8192, chunks);
    }

    static Bytes info(std::string const& name, std::string const& path, uint32_t size,
                      uint32_t chunkSize, uint32_t chunks) {
        return join({{1, static_cast<uint8_t>(name.size()), static_cast<uint8_t>(path.size())},
                     u32_be(size),
                     u32_be(chunkSize),
                     u32_be(chunks),
                     text(name),
                     text(path)});
    }

    static Bytes chunk(uint32_t number, uint32_t session, Bytes const& data, bool isLast) {
        return join(
            {{static_cast<uint8_t>(isLast ? 0x82 : 0x02)}, u32_be(number), u32_be(session), data});
    }

    Answer take(Bytes const& packet, CFileReceiver::Link link = kLink) {
        return take(m_receiver, packet, link);
    }

    Answer take(CFileReceiver& receiver, Bytes const& packet, CFileReceiver::Link link = kLink) {
        KypFileAnswer const answer = receiver.take(link, "peer", as_text(packet), m_now);
        return {answer.type, utils_ntohl(answer.number), utils_ntohl(answer.status)};
    }

    // Opens a session for a file "name" and gives its number.
    uint32_t open(uint32_t size, CFileReceiver::Link link = kLink,
                  std::string const& name = "name") {
        Answer const answer = take(info(name, size), link);
        EXPECT_EQ(1, answer.type);
        EXPECT_EQ(0U, answer.status);
        return answer.number;
    }

    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (auto const& entry : fs::directory_iterator(m_dir)) {
            all.push_back(entry.path().filename());
        }
        std::sort(all.begin(), all.end());
        return all;
    }

    Bytes content_of(std::string const& name) const {
        std::ifstream file(m_dir + "/" + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::string m_dir;
    CSpool m_spool;
    CFileReceiver m_receiver{m_spool, {100000, 3, seconds(30)}};
    CFileReceiver::Clock::time_point m_now;
};

// ---- whole files -------------------------------------------------------------------------------

TEST_F(FileReceiverTest, FilesOfEverySizeArriveWhole) {
    for (uint32_t size : {0U, 1U, 8191U, 8192U, 8193U, 16384U, 100000U}) {
        SCOPED_TRACE(size);
        Bytes const content = pattern(size);
        uint32_t const session = open(size);
        uint32_t number = 0;
        Answer answer{};
        for (size_t at = 0; at < size; at += 8192) {
            EXPECT_THAT(names(), testing::Not(testing::Contains("name")));
            size_t const end = std::min<size_t>(at + 8192, size);
            answer = take(chunk(++number, session,
                                Bytes(content.begin() + static_cast<std::ptrdiff_t>(at),
                                      content.begin() + static_cast<std::ptrdiff_t>(end)),
                                end - at < 8192));
            EXPECT_EQ(0U, answer.status);
            EXPECT_EQ(end - at < 8192 ? 0x82 : 0x02, answer.type);
            EXPECT_EQ(number, answer.number);
        }
        if (size % 8192 == 0) {
            EXPECT_THAT(names(), testing::Not(testing::Contains("name")));
            answer = take({});
        }
        EXPECT_EQ(0x82, answer.type);
        EXPECT_EQ(0U, answer.status);
        EXPECT_THAT(names(), ElementsAre("name"));
        EXPECT_TRUE(content == content_of("name"));
        EXPECT_EQ(0U, m_receiver.transfers());
        EXPECT_THAT(said(), HasSubstr("the file name of peer has come, " + std::to_string(size) +
                                      " bytes"));
        fs::remove(m_dir + "/name");
    }
}

TEST_F(FileReceiverTest, TopBitAlsoEndsAFileOfWholeChunks) {
    uint32_t const session = open(8192);

    EXPECT_EQ(0x82, take(chunk(1, session, pattern(8192), true)).type);
    EXPECT_THAT(names(), ElementsAre("name"));
}

TEST_F(FileReceiverTest, EmptyPacketAlsoEndsAFileWithoutTheTopBit) {
    uint32_t const session = open(5);
    EXPECT_EQ(0x02, take(chunk(1, session, pattern(5), false)).type);

    EXPECT_EQ(0x82, take({}).type);
    EXPECT_THAT(names(), ElementsAre("name"));
}

TEST_F(FileReceiverTest, SameNameAgainReplacesTheFile) {
    for (uint32_t size : {10U, 5U}) {
        EXPECT_EQ(0x82, take(chunk(1, open(size), pattern(size), true)).type);
    }

    EXPECT_THAT(names(), ElementsAre("name"));
    EXPECT_EQ(pattern(5), content_of("name"));
}

TEST_F(FileReceiverTest, TargetPathIsNotLookedAt) {
    for (std::string const& path :
         {std::string(), std::string("other"), std::string("/etc/passwd"), std::string("../../x"),
          std::string(255, 'p'), std::string("\0", 1)}) {
        Answer const answer = take(info("name", 1, path));
        EXPECT_EQ(0U, answer.status) << path;
        EXPECT_EQ(0x82, take(chunk(1, answer.number, pattern(1), true)).type);
        EXPECT_THAT(names(), ElementsAre("name"));
    }
}

TEST_F(FileReceiverTest, DirectoriesOfANameAreDropped) {
    Answer const answer = take(info("../../etc/name", 1));

    EXPECT_EQ(0x82, take(chunk(1, answer.number, pattern(1), true)).type);
    EXPECT_THAT(names(), ElementsAre("name"));
}

TEST_F(FileReceiverTest, NameOf255BytesIsWhole) {
    std::string const name(255, 'n');

    EXPECT_EQ(0x82, take(chunk(1, open(1, kLink, name), pattern(1), true)).type);
    EXPECT_THAT(names(), ElementsAre(name));
}

TEST_F(FileReceiverTest, LinksDoNotMeet) {
    uint32_t const first = open(8193, kLink, "first");
    uint32_t const second = open(8193, kOther, "second");
    EXPECT_NE(first, second);
    Bytes const content = pattern(8193);
    Bytes const head(content.begin(), content.begin() + 8192);
    Bytes const tail(content.begin() + 8192, content.end());

    EXPECT_EQ(0U, take(chunk(1, first, head, false), kLink).status);
    EXPECT_EQ(KYP_ERR_FILE_HANDLE, take(chunk(1, first, head, false), kOther).status);
    EXPECT_EQ(0U, take(chunk(1, second, head, false), kOther).status);
    EXPECT_EQ(0x82, take(chunk(2, second, tail, true), kOther).type);
    EXPECT_EQ(0x82, take(chunk(2, first, tail, true), kLink).type);

    EXPECT_THAT(names(), ElementsAre("first", "second"));
    EXPECT_EQ(content, content_of("first"));
}

// ---- refusals ----------------------------------------------------------------------------------

TEST_F(FileReceiverTest, InfoThatIsNotAllowedIsRefusedWithItsReason) {
    struct Row {
        char const* what;
        Bytes packet;
        int status;
    };
    for (Row const& row : {
             Row{"one byte", {1}, 0x100c},
             Row{"no name", info("", 10), 0x2004},
             Row{"dot", info(".", 10), 0x2004},
             Row{"dots", info("a/..", 10), 0x2004},
             Row{"NUL", info(std::string("a\0b", 3), 10), 0x2004},
             Row{"newline", info("a\nb", 10), 0x2004},
             Row{"spool's own", info(".kypserver-part-0", 10), 0x2004},
             Row{"name of 300 bytes", info(std::string(300, 'n'), 10), 0x1004},
             Row{"byte too many", join({info("name", 10), {0}}), 0x1004},
             Row{"chunk size", info("name", "", 10, 4096, 1), 0x2004},
             Row{"too many chunks", info("name", "", 10, 8192, 2), 0x2004},
             Row{"no chunks", info("name", "", 8192, 8192, 0), 0x2004},
             Row{"too large", info("name", 100001), 0x100d},
             Row{"far too large", info("name", 0xffffffff), 0x100d},
         }) {
        SCOPED_TRACE(row.what);

        Answer const answer = take(row.packet);

        EXPECT_EQ(1, answer.type);
        EXPECT_EQ(static_cast<uint32_t>(row.status), answer.status);
        EXPECT_NE(0U, answer.number);
        EXPECT_THAT(names(), IsEmpty());
        EXPECT_EQ(0U, m_receiver.transfers());
        // The sender goes on all the same, and hears the reason each time.
        EXPECT_EQ(answer.status, take(chunk(1, answer.number, pattern(10), true)).status);
        EXPECT_EQ(answer.status, take({}).status);
        EXPECT_EQ(0x02, take({}).type);
        EXPECT_THAT(said(), HasSubstr("of peer is refused: "));
    }
}

TEST_F(FileReceiverTest, ShortInfoIsRefusedAtEveryLength) {
    Bytes const whole = info("name", 10, "path");
    for (size_t length = 1; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        Bytes const packet(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_EQ(length < 15 ? 0x100cU : 0x1004U, take(packet).status);
    }
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileReceiverTest, ReportsShowNoControlCharacters) {
    take(info("a\x1b[2J\n\xC2\x9B", 10));

    std::string const line = said();
    EXPECT_THAT(line, HasSubstr("the file a?[2J??? of peer is refused: this is no name"));
    EXPECT_EQ(std::string::npos, line.find('\x1b'));
}

TEST_F(FileReceiverTest, LimitOfTransfersCountsThoseUnderWay) {
    for (CFileReceiver::Link link : {1U, 2U, 3U}) open(8193, link, std::to_string(link));

    EXPECT_EQ(KYP_ERR_CLIENT_LIMIT, take(info("name", 10), 4).status);
    EXPECT_EQ(3U, m_receiver.transfers());

    m_receiver.end(2);
    EXPECT_EQ(0U, take(info("name", 10), 4).status);
}

TEST_F(FileReceiverTest, FileThatTheDiskHasNoRoomForIsRefusedAtOnce) {
    CFileReceiver receiver(m_spool, {~uint64_t{0}, 3, seconds(30)});
    if (m_spool.room() > 0xffffffff) {
        // Needs a small disk: inside the sandbox one can be had.
        ASSERT_EQ(0, mount("none", m_dir.c_str(), "tmpfs", 0, "size=64k"));
        CSpool small;
        ASSERT_EQ("", small.open(m_dir));
        {
            CFileReceiver onSmall(small, {~uint64_t{0}, 3, seconds(30)});
            EXPECT_EQ(KYP_ERR_DISK_FULL, take(onSmall, info("name", 1 << 20)).status);
            EXPECT_EQ(0U, take(onSmall, info("name", 8192)).status);
        }
        umount2(m_dir.c_str(), MNT_DETACH);
        return;
    }
    EXPECT_EQ(KYP_ERR_DISK_FULL, take(receiver, info("name", 0xffffffff)).status);
}

TEST_F(FileReceiverTest, DiskThatFillsUpOnTheWayEndsTheFile) {
    ASSERT_EQ(0, mount("none", m_dir.c_str(), "tmpfs", 0, "size=64k"));
    CSpool small;
    ASSERT_EQ("", small.open(m_dir));
    {
        CFileReceiver receiver(small, {~uint64_t{0}, 3, seconds(30)});
        uint32_t const session = take(receiver, info("name", 8192 * 7)).number;
        std::ofstream(m_dir + "/other") << std::string(8192 * 5, 'x');
        Answer answer{};
        uint32_t number = 0;
        while (answer.status == 0 && number < 7) {
            answer = take(receiver, chunk(++number, session, pattern(8192), false));
        }

        EXPECT_EQ(KYP_ERR_DISK_FULL, answer.status);
        EXPECT_EQ(0U, receiver.transfers());
        EXPECT_THAT(names(), ElementsAre("other"));
        EXPECT_EQ(KYP_ERR_DISK_FULL,
                  take(receiver, chunk(number + 1, session, pattern(8192), false)).status);
    }
    umount2(m_dir.c_str(), MNT_DETACH);
}

TEST_F(FileReceiverTest, FileThatCannotBeMadeIsRefused) {
    fs::remove_all(m_dir);

    // A removed directory has room and takes no file.
    EXPECT_EQ(KYP_ERR_CREATE_FILE, take(info("name", 10)).status);
    fs::create_directory(m_dir);
}

TEST_F(FileReceiverTest, NameThatIsADirectoryIsRefusedAtTheEnd) {
    fs::create_directory(m_dir + "/name");
    uint32_t const session = open(10);

    Answer const answer = take(chunk(1, session, pattern(10), true));

    EXPECT_EQ(0x02, answer.type);
    EXPECT_EQ(KYP_ERR_CREATE_FILE, answer.status);
    EXPECT_THAT(names(), ElementsAre("name"));
}

// ---- chunks that do not fit --------------------------------------------------------------------

TEST_F(FileReceiverTest, ChunkThatDoesNotFitEndsTheFile) {
    struct Row {
        char const* what;
        uint32_t number;
        size_t size;
        bool isLast;
        int status;
    };
    // Behind the first chunk of 8192 * 2 + 100 bytes.
    for (Row const& row :
         {Row{"number again", 1, 8192, false, 0x2004},
          Row{"number left out", 3, 8192, false, 0x2004}, Row{"number 0", 0, 8192, false, 0x2004},
          Row{"largest number", 0xffffffff, 8192, false, 0x2004},
          Row{"a byte less", 2, 8191, false, 0x1004}, Row{"a byte more", 2, 8193, false, 0x1004},
          Row{"nothing", 2, 0, false, 0x1004}, Row{"nothing, last", 2, 0, true, 0x1004},
          Row{"the rest", 2, 100, true, 0x1004}, Row{"last too early", 2, 8192, true, 0x1004}}) {
        SCOPED_TRACE(row.what);
        uint32_t const session = open(8192 * 2 + 100);
        ASSERT_EQ(0U, take(chunk(1, session, pattern(8192), false)).status);

        Answer const answer = take(chunk(row.number, session, pattern(row.size), row.isLast));

        EXPECT_EQ(0x02, answer.type);
        EXPECT_EQ(row.number, answer.number);
        EXPECT_EQ(static_cast<uint32_t>(row.status), answer.status);
        EXPECT_THAT(names(), IsEmpty());
        EXPECT_EQ(0U, m_receiver.transfers());
        EXPECT_EQ(answer.status, take(chunk(2, session, pattern(8192), false)).status);
    }
}

TEST_F(FileReceiverTest, ChunkBehindTheAnnouncedSizeEndsTheFile) {
    uint32_t const session = open(8192);
    ASSERT_EQ(0U, take(chunk(1, session, pattern(8192), false)).status);

    EXPECT_EQ(KYP_ERR_PACKET_LENGTH, take(chunk(2, session, pattern(1), true)).status);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileReceiverTest, EmptyPacketTooEarlyEndsTheFile) {
    uint32_t const session = open(8192 * 2);
    ASSERT_EQ(0U, take(chunk(1, session, pattern(8192), false)).status);

    Answer const answer = take({});

    EXPECT_EQ(0x02, answer.type);
    EXPECT_EQ(KYP_ERR_PACKET_LENGTH, answer.status);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileReceiverTest, PacketsWithoutASessionAreRefused) {
    Answer answer = take({});
    EXPECT_EQ(0x02, answer.type);
    EXPECT_EQ(KYP_ERR_FILE_HANDLE, answer.status);

    answer = take(chunk(1, 0, pattern(10), true));
    EXPECT_EQ(0x02, answer.type);
    EXPECT_EQ(1U, answer.number);
    EXPECT_EQ(KYP_ERR_FILE_HANDLE, answer.status);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileReceiverTest, SessionIsOverWithItsFile) {
    uint32_t const session = open(1);
    ASSERT_EQ(0x82, take(chunk(1, session, pattern(1), true)).type);

    EXPECT_EQ(KYP_ERR_FILE_HANDLE, take(chunk(1, session, pattern(1), true)).status);
    EXPECT_EQ(KYP_ERR_FILE_HANDLE, take({}).status);
}

TEST_F(FileReceiverTest, GarbageInMidTransferLeavesTheFileAlone) {
    uint32_t const session = open(8193);
    ASSERT_EQ(0U, take(chunk(1, session, pattern(8192), false)).status);

    EXPECT_EQ(0x2006U, take({0}).status);
    EXPECT_EQ(0x2006U, take({0x7f, 1, 2, 3}).status);
    EXPECT_EQ(0x2006U, take(Bytes(8201, 0xff)).status);
    for (size_t length = 1; length < 9; ++length) {
        EXPECT_EQ(0x100cU, take(Bytes(length, 0x02)).status);
    }
    EXPECT_EQ(0x3005U, take(chunk(2, session + 1, pattern(1), true)).status);

    EXPECT_EQ(0x82, take(chunk(2, session, pattern(1), true)).type);
    EXPECT_EQ(8193U, content_of("name").size());
}

TEST_F(FileReceiverTest, RandomPacketsLeaveNothingBehind) {
    std::mt19937 random(1);
    for (int round = 0; round < 3000; ++round) {
        uint32_t const session =
            round % 7 == 0 ? take(info("name", 20000), random() % 4).number : 0;
        Bytes packet(random() % 40);
        for (uint8_t& byte : packet) byte = static_cast<uint8_t>(random());
        if (!packet.empty()) packet[0] = static_cast<uint8_t>(random() % 4 | (random() % 2) << 7);
        take(packet, random() % 4);
        take(chunk(random() % 3, session, pattern(random() % 8193), random() % 2 == 0),
             random() % 4);
        EXPECT_LE(m_receiver.transfers(), 3U);
    }
    for (CFileReceiver::Link link = 0; link < 4; ++link) m_receiver.end(link);

    EXPECT_THAT(names(), IsEmpty());
}

// ---- transfers that end early ------------------------------------------------------------------

TEST_F(FileReceiverTest, EndOfALinkRemovesWhatItLeftHalfReceived) {
    uint32_t const session = open(8193);
    take(chunk(1, session, pattern(8192), false));
    ASSERT_EQ(1U, names().size());

    m_receiver.end(kLink);

    EXPECT_THAT(names(), IsEmpty());
    EXPECT_THAT(said(), HasSubstr("the file name of peer is given up: its connection has ended"));
    EXPECT_EQ(KYP_ERR_FILE_HANDLE, take(chunk(2, session, pattern(1), true)).status);
    m_receiver.end(kLink);
}

TEST_F(FileReceiverTest, EndOfTheServerRemovesWhatIsHalfReceived) {
    {
        CFileReceiver receiver(m_spool, {100, 1, seconds(30)});
        take(receiver, info("name", 10));
        ASSERT_EQ(1U, names().size());
    }

    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileReceiverTest, NextFileOfALinkGivesUpTheOneBefore) {
    uint32_t const first = open(8193, kLink, "first");
    take(chunk(1, first, pattern(8192), false));

    uint32_t const second = open(1, kLink, "second");

    EXPECT_EQ(1U, m_receiver.transfers());
    EXPECT_THAT(said(),
                HasSubstr("the file first of peer is given up: its sender has begun another"));
    EXPECT_EQ(KYP_ERR_FILE_HANDLE, take(chunk(2, first, pattern(1), true)).status);
    EXPECT_EQ(0x82, take(chunk(1, second, pattern(1), true)).type);
    EXPECT_THAT(names(), ElementsAre("second"));
}

TEST_F(FileReceiverTest, SenderThatPausesTooLongLosesItsFile) {
    EXPECT_EQ(CFileReceiver::Clock::time_point::max(), m_receiver.next_deadline());
    uint32_t const session = open(8192 * 3);
    EXPECT_EQ(m_now + seconds(30), m_receiver.next_deadline());
    m_now += seconds(20);
    take(chunk(1, session, pattern(8192), false));
    EXPECT_EQ(m_now + seconds(30), m_receiver.next_deadline());

    m_receiver.give_up_stalled(m_now + seconds(29));
    EXPECT_EQ(1U, m_receiver.transfers());
    m_receiver.give_up_stalled(m_now + seconds(30));

    EXPECT_EQ(0U, m_receiver.transfers());
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_EQ(CFileReceiver::Clock::time_point::max(), m_receiver.next_deadline());
    EXPECT_THAT(said(), HasSubstr("the file name of peer is given up: its sender has paused"));
    EXPECT_EQ(KYP_ERR_TRANSFER, take(chunk(2, session, pattern(8192), false)).status);
}

TEST_F(FileReceiverTest, EarliestPauseCounts) {
    open(10, 1, "first");
    m_now += seconds(10);
    open(10, 2, "second");

    EXPECT_EQ(m_now + seconds(20), m_receiver.next_deadline());
    m_receiver.give_up_stalled(m_now + seconds(20));
    EXPECT_EQ(m_now + seconds(30), m_receiver.next_deadline());
}

}  // namespace
}  // namespace kypserver
