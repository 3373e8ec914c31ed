// The stand-in for the shared-memory transport, alone: between threads and between processes, some
// of which die in the middle.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ivshmAPI.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"

namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;
using Clock = std::chrono::steady_clock;

constexpr int kTopic = 5;
constexpr long kSoon = 20;       // ms; for what does not come
constexpr long kSurely = 20000;  // ms; for what comes
constexpr char const* kFile = "/dev/shm/kyp-ivshm-standin-0-5";

// One side's hold on a topic.
class Side {
public:
    explicit Side(int topic = kTopic, int mode = 0) : m_handle(libivshmapi_init(topic, mode)) {}
    ~Side() { close(); }
    Side(Side const&) = delete;
    Side& operator=(Side const&) = delete;

    void* handle() const { return m_handle; }

    void close() { libivshmapi_uninit(m_handle); }

    bool send(Bytes message, long timeoutMs = kSurely) {
        return libivshmapi_send(m_handle, message.size(), message.data(), timeoutMs);
    }

    // The next message, or "nothing" when none came.
    Bytes receive(long timeoutMs = kSurely) {
        unsigned long size = m_buffer.size();
        if (!libivshmapi_recv(m_handle, &size, m_buffer.data(), timeoutMs)) return text("nothing");
        return Bytes(m_buffer.begin(), m_buffer.begin() + static_cast<long>(size));
    }

private:
    void* m_handle;
    Bytes m_buffer = Bytes(1 << 20);
};

// Runs `body` as another process, killed with this object unless it has ended.
class Process {
public:
    explicit Process(std::function<void()> const& body) : m_pid(fork()) {
        if (m_pid != 0) return;
        rlimit const none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        body();
        _exit(0);
    }
    ~Process() {
        if (m_pid > 0) end(SIGKILL);
    }
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;

    void signal(int sig) { kill(m_pid, sig); }

    void end(int sig) {
        kill(m_pid, sig);
        wait();
    }

    // The wait status.
    int wait() {
        int status = -1;
        waitpid(m_pid, &status, 0);
        m_pid = 0;
        return status;
    }

private:
    pid_t m_pid;
};

// `size` bytes of which the second half can be neither read nor written: who copies them dies half
// way.
class Pitfall {
public:
    explicit Pitfall(size_t size) : m_size(size) {
        m_bytes = static_cast<unsigned char*>(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        memset(m_bytes, 0x55, size);
        mprotect(m_bytes + size / 2, size / 2, PROT_NONE);
    }
    ~Pitfall() { munmap(m_bytes, m_size); }
    Pitfall(Pitfall const&) = delete;
    Pitfall& operator=(Pitfall const&) = delete;

    unsigned char* bytes() const { return m_bytes; }
    size_t size() const { return m_size; }

private:
    unsigned char* m_bytes;
    size_t m_size;
};

// A message that tells its number and can be checked.
Bytes numbered(uint32_t number, size_t size) {
    Bytes message = join({u32_le(number), pattern(size)});
    for (size_t i = 4; i < message.size(); ++i) {
        message[i] = static_cast<uint8_t>(message[i] ^ number);
    }
    return message;
}

uint32_t number_of(Bytes const& message) {
    uint32_t number = 0;
    if (message.size() >= sizeof number) memcpy(&number, message.data(), sizeof number);
    return number;
}

class IvshmStandinTest : public ::testing::Test {
protected:
    static void of_bytes(size_t bytes) {
        setenv("KYP_IVSHM_STANDIN_BYTES", std::to_string(bytes).c_str(), 1);
    }
};

// ---- opening and closing

TEST_F(IvshmStandinTest, SaysWhatItIs) {
    testing::internal::CaptureStderr();
    Side const side(kTopic, 1);

    EXPECT_NE(nullptr, side.handle());
    EXPECT_EQ(
        "ivshm stand-in: topic 5 opened, mode 1, 8388608 bytes; shared memory of this machine, for "
        "development and tests only\n",
        testing::internal::GetCapturedStderr());
}

TEST_F(IvshmStandinTest, RefusesANumberThatIsNoTopic) {
    EXPECT_EQ(nullptr, libivshmapi_init(-1, 0));
}

TEST_F(IvshmStandinTest, RefusesATopicForWhichThereIsNoMemory) {
    ASSERT_EQ(0, mount("small", "/dev/shm", "tmpfs", 0, "size=64k"));
    testing::internal::CaptureStderr();

    EXPECT_EQ(nullptr, libivshmapi_init(kTopic, 0));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("topic 5 at /dev/shm/kyp-ivshm-standin-0-5 cannot be opened: No space"));
    EXPECT_FALSE(std::filesystem::exists(kFile));
    of_bytes(4096);
    EXPECT_NE(nullptr, Side().handle());
}

TEST_F(IvshmStandinTest, RefusesHandlesThatAreNone) {
    char data[8] = {};
    unsigned long size = sizeof data;
    Side side;
    side.close();

    for (void* const handle :
         {side.handle(), static_cast<void*>(nullptr), static_cast<void*>(data)}) {
        EXPECT_FALSE(libivshmapi_send(handle, 1, data, kSoon));
        EXPECT_FALSE(libivshmapi_recv(handle, &size, data, kSoon));
        libivshmapi_uninit(handle);
    }
    EXPECT_EQ(sizeof data, size);
}

TEST_F(IvshmStandinTest, GivesEachHandleANumberOfItsOwn) {
    Side first;
    void* const handle = first.handle();
    first.close();
    Side const second;

    EXPECT_NE(handle, second.handle());
}

TEST_F(IvshmStandinTest, TakesTheMemoryAlongWithTheLastUser) {
    Side first;
    {
        Side const second;
        EXPECT_TRUE(std::filesystem::exists(kFile));
    }
    EXPECT_TRUE(std::filesystem::exists(kFile));

    first.close();

    EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(IvshmStandinTest, HoldsWhatItHeldForWhoComesLater) {
    Side sender;
    sender.send(text("early"));

    EXPECT_EQ(text("early"), Side().receive());
}

TEST_F(IvshmStandinTest, IsEmptyForTheFirstUser) {
    { Side().send(text("stale")); }

    EXPECT_EQ(text("nothing"), Side().receive(kSoon));
}

TEST_F(IvshmStandinTest, IsEmptyAfterAllItsUsersWereKilled) {
    Process killed([] {
        Side side;
        side.send(text("stale"));
        std::ofstream("/opt/kyp/sent").close();
        pause();
    });
    ASSERT_TRUE(eventually([] { return std::filesystem::exists("/opt/kyp/sent"); }));
    killed.end(SIGKILL);
    ASSERT_TRUE(std::filesystem::exists(kFile));

    EXPECT_EQ(text("nothing"), Side().receive(kSoon));
}

TEST_F(IvshmStandinTest, IsMadeAnewWhereAnotherFileLay) {
    std::ofstream(kFile) << "what is this";
    Side sender;

    EXPECT_TRUE(sender.send(text("x")));
    EXPECT_EQ(text("x"), Side().receive());
}

TEST_F(IvshmStandinTest, HasTheSizeThatItsFirstUserAskedFor) {
    of_bytes(4096);
    Side first;
    of_bytes(1 << 20);
    Side second;

    EXPECT_TRUE(second.send(Bytes(4088)));
    EXPECT_FALSE(second.send(Bytes(4089)));
}

TEST_F(IvshmStandinTest, OpensOnceForManyThatComeTogether) {
    for (int round = 0; round < 20; ++round) {
        std::vector<std::thread> threads;
        std::atomic<int> open{0};
        std::atomic<bool> done{false};
        for (int i = 0; i < 6; ++i) {
            threads.emplace_back([&] {
                Side side;
                if (side.send(text("here"))) ++open;
                while (!done) std::this_thread::yield();
            });
        }
        EXPECT_TRUE(eventually([&] { return open == 6; }));
        {
            Side reader;
            for (int i = 0; i < 6; ++i) EXPECT_EQ(text("here"), reader.receive());
        }
        done = true;
        for (std::thread& thread : threads) thread.join();
        EXPECT_FALSE(std::filesystem::exists(kFile));
    }
}

// ---- messages

TEST_F(IvshmStandinTest, MovesMessagesWholeAndInOrder) {
    of_bytes(4096);
    Side sender(kTopic, 0);
    Side receiver(kTopic, 1);

    // Far more than the ring holds, so that every length meets its end somewhere.
    for (uint32_t i = 0; i < 3000; ++i) {
        Bytes const first = pattern(i % 700);
        Bytes const second = numbered(i, i % 13);
        ASSERT_TRUE(sender.send(first));
        ASSERT_TRUE(sender.send(second));
        ASSERT_EQ(first, receiver.receive());
        ASSERT_EQ(second, receiver.receive());
    }
}

TEST_F(IvshmStandinTest, HoldsTopicsApart) {
    Side five(5);
    Side six(6);
    five.send(text("five"));

    EXPECT_EQ(text("nothing"), six.receive(kSoon));
    EXPECT_EQ(text("five"), five.receive());
}

TEST_F(IvshmStandinTest, MovesTheLargestMessageAndRefusesOneMore) {
    of_bytes(8192);
    Side side;
    Bytes const largest = pattern(8184);

    EXPECT_TRUE(side.send(largest));
    EXPECT_EQ(largest, side.receive());
    auto const begin = Clock::now();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(side.send(pattern(8185)));
    EXPECT_FALSE(libivshmapi_send(side.handle(), ~0UL, nullptr, kSurely));
    EXPECT_FALSE(libivshmapi_send(side.handle(), ~0UL - 7, nullptr, kSurely));
    EXPECT_GT(std::chrono::milliseconds(kSurely), Clock::now() - begin);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("topic 5 refused a message of 8185 bytes, it holds 8192"));
    EXPECT_TRUE(side.send(text("next")));
    EXPECT_EQ(text("next"), side.receive());
}

TEST_F(IvshmStandinTest, DropsAMessageForWhichTheReceiverHasNoRoom) {
    Side side;
    side.send(pattern(101));
    side.send(pattern(100));
    Bytes data(100);
    unsigned long size = data.size();
    testing::internal::CaptureStderr();

    EXPECT_FALSE(libivshmapi_recv(side.handle(), &size, data.data(), kSurely));
    EXPECT_EQ(100u, size);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("dropped a message of 101 bytes, the receiver has room for 100"));
    EXPECT_TRUE(libivshmapi_recv(side.handle(), &size, data.data(), kSurely));
    EXPECT_EQ(pattern(100), data);
}

TEST_F(IvshmStandinTest, WaitsForAMessageAsLongAsItWasTold) {
    Side side;
    auto const begin = Clock::now();

    EXPECT_EQ(text("nothing"), side.receive(120));

    EXPECT_LE(std::chrono::milliseconds(120), Clock::now() - begin);
}

TEST_F(IvshmStandinTest, DoesNotWaitWithoutTime) {
    Side side;

    EXPECT_EQ(text("nothing"), side.receive(0));
    EXPECT_EQ(text("nothing"), side.receive(-5));
    side.send(text("x"), 0);
    EXPECT_EQ(text("x"), side.receive(0));
}

TEST_F(IvshmStandinTest, WakesAReceiverThatWaits) {
    Side side;
    Bytes got;
    std::thread receiver([&] { got = side.receive(); });

    side.send(text("wake"));

    receiver.join();
    EXPECT_EQ(text("wake"), got);
}

TEST_F(IvshmStandinTest, MakesASenderWaitWhileItIsFull) {
    of_bytes(4096);
    Side side;
    ASSERT_TRUE(side.send(Bytes(4000)));
    auto const begin = Clock::now();

    EXPECT_FALSE(side.send(Bytes(200), 120));
    EXPECT_LE(std::chrono::milliseconds(120), Clock::now() - begin);

    std::thread sender([&] { EXPECT_TRUE(side.send(pattern(200))); });
    EXPECT_THAT(side.receive(), SizeIs(4000));
    sender.join();
    EXPECT_EQ(pattern(200), side.receive());
}

TEST_F(IvshmStandinTest, EndsTheWaitsOnAHandleThatIsClosed) {
    of_bytes(4096);
    Side reading(5);
    Side writing(6);
    writing.send(Bytes(4000));
    std::thread receiver([&] { EXPECT_EQ(text("nothing"), reading.receive()); });
    std::thread sender([&] { EXPECT_FALSE(writing.send(Bytes(4000))); });
    auto const begin = Clock::now();

    reading.close();
    writing.close();

    receiver.join();
    sender.join();
    EXPECT_GT(std::chrono::milliseconds(kSurely), Clock::now() - begin);
}

TEST_F(IvshmStandinTest, TakesMessagesFromManyThreadsOnOneHandle) {
    of_bytes(4096);
    constexpr uint32_t kSenders = 8;
    constexpr uint32_t kEach = 300;
    Side sending;
    Side receiving;
    std::vector<std::thread> senders;
    for (uint32_t s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (uint32_t i = 0; i < kEach; ++i) {
                EXPECT_TRUE(sending.send(numbered(s << 16 | i, i % 500)));
            }
        });
    }

    std::vector<uint32_t> next(kSenders, 0);
    for (uint32_t i = 0; i < kSenders * kEach; ++i) {
        Bytes const message = receiving.receive();
        uint32_t const number = number_of(message);
        ASSERT_EQ(numbered(number, message.size() - 4), message);
        ASSERT_EQ(next.at(number >> 16)++, number & 0xffff);
    }
    for (std::thread& thread : senders) thread.join();
}

// ---- processes

TEST_F(IvshmStandinTest, MovesMessagesBetweenProcesses) {
    of_bytes(4096);
    Side there(6);
    Side back(7);
    Process echo([] {
        Side in(6, 1);
        Side out(7, 1);
        for (int i = 0; i < 500; ++i) out.send(in.receive());
    });

    for (uint32_t i = 0; i < 500; ++i) {
        Bytes const message = numbered(i, i * 5);
        ASSERT_TRUE(there.send(message));
        ASSERT_EQ(message, back.receive());
    }
    EXPECT_EQ(0, echo.wait());
}

TEST_F(IvshmStandinTest, DeliversNothingOfASenderThatDiesInMidMessage) {
    Side side;
    ASSERT_TRUE(side.send(text("before")));
    Pitfall const pitfall(1 << 20);
    testing::internal::CaptureStderr();
    Process dying(
        [&] { libivshmapi_send(Side().handle(), pitfall.size(), pitfall.bytes(), kSurely); });

    EXPECT_NE(0, dying.wait());
    EXPECT_EQ(text("before"), side.receive());
    EXPECT_EQ(text("nothing"), side.receive(kSoon));
    EXPECT_TRUE(side.send(text("after")));
    EXPECT_EQ(text("after"), side.receive());
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("topic 5 goes on without a process that died in it"));
}

TEST_F(IvshmStandinTest, LeavesTheMessageOfAReceiverThatDiesWithIt) {
    Side side;
    Bytes const message = pattern(1 << 19 | 1);
    side.send(message);
    Pitfall const pitfall(1 << 20);
    Process dying([&] {
        unsigned long size = pitfall.size();
        libivshmapi_recv(Side().handle(), &size, pitfall.bytes(), kSurely);
    });

    EXPECT_NE(0, dying.wait());
    EXPECT_EQ(message, side.receive());
    EXPECT_EQ(text("nothing"), side.receive(kSoon));
}

TEST_F(IvshmStandinTest, GoesOnWhateverASenderWasDoingWhenItWasKilled) {
    of_bytes(1 << 16);
    Side side;
    uint32_t whole = 0;
    for (int round = 0; round < 40; ++round) {
        Process sender([] {
            Side out;
            for (uint32_t i = 0;; ++i) out.send(numbered(i, 20000));
        });
        for (int i = 0; i < 5 + round % 7; ++i) {
            Bytes const message = side.receive();
            ASSERT_EQ(numbered(number_of(message), 20000), message);
            ++whole;
        }
        sender.end(SIGKILL);
        for (Bytes rest; (rest = side.receive(0)) != text("nothing");) {
            ASSERT_EQ(numbered(number_of(rest), 20000), rest);
        }
    }
    EXPECT_LE(200u, whole);
    EXPECT_TRUE(side.send(text("alive")));
    EXPECT_EQ(text("alive"), side.receive());
}

TEST_F(IvshmStandinTest, GoesOnWhateverAReceiverWasDoingWhenItWasKilled) {
    of_bytes(1 << 16);
    Side side;
    for (int round = 0; round < 40; ++round) {
        Process receiver([] {
            Side in;
            for (;;) in.receive();
        });
        for (uint32_t i = 0; i < 20; ++i) ASSERT_TRUE(side.send(numbered(i, 20000)));
        receiver.end(SIGKILL);
        for (Bytes rest; (rest = side.receive(0)) != text("nothing");) {
            ASSERT_EQ(numbered(number_of(rest), 20000), rest);
        }
    }
}

TEST_F(IvshmStandinTest, HoldsToItsTimesBesideAProcessThatIsStopped) {
    of_bytes(1 << 16);
    Side side;
    Process sender([] {
        Side out;
        for (uint32_t i = 0;; ++i) out.send(numbered(i, 30000));
    });
    for (int round = 0; round < 20; ++round) {
        ASSERT_NE(text("nothing"), side.receive());
        sender.signal(SIGSTOP);
        auto const begin = Clock::now();
        while (side.receive(kSoon) != text("nothing")) continue;
        EXPECT_GT(std::chrono::milliseconds(kSurely), Clock::now() - begin);
        sender.signal(SIGCONT);
    }
}

TEST_F(IvshmStandinTest, StartsEmptyAfterItsMemoryWasDamaged) {
    of_bytes(4096);
    Side side;
    ASSERT_TRUE(side.send(pattern(100)));
    {
        std::fstream file(kFile, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(-4096, std::ios::end);
        file << "\xff\xff\xff\xff\xff\xff\xff\xff";
    }
    testing::internal::CaptureStderr();

    EXPECT_EQ(text("nothing"), side.receive(kSoon));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("topic 5 is damaged and starts empty"));
    EXPECT_TRUE(side.send(text("new")));
    EXPECT_EQ(text("new"), side.receive());
}

}  // namespace
