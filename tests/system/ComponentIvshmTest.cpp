// A component as a process of its own that serves the shared memory of another virtual machine,
// played by this process over the stand-in, beside the clients of its server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ivshmAPI.h"
#include "kypclient/IvshmGroup.h"
#include "kypclient/Ivshmclient.h"
#include "kypcomm/KypPacket.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/ivshm/IvshmExtFunDef.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/FakeTopics.h"
#include "support/IvshmLibrary.h"
#include "support/KypClient.h"
#include "support/LogCapture.h"
#include "support/ServerProcess.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr uint16_t kNow = 600;    // answers at once
constexpr uint16_t kLater = 601;  // answers later, from a thread of its own
constexpr uint16_t kEcho = 100;
constexpr long kSurely = 20000;  // ms
constexpr int kMaxSize = 200000;

Bytes ask(uint16_t port, uint32_t invokeId, Bytes const& payload = {}) {
    return request_frame(port, 9, invokeId, 0, 0, payload);
}

// The clients' side of the topics of one group, on raw bytes.
class Machine {
public:
    explicit Machine(int group = 0)
        : m_read(open_topic(2 * group)), m_write(open_topic(2 * group + 1)), m_buffer(8 << 20) {}
    ~Machine() {
        libivshmapi_uninit(m_read);
        libivshmapi_uninit(m_write);
    }
    Machine(Machine const&) = delete;
    Machine& operator=(Machine const&) = delete;

    bool send(Bytes message) {
        return libivshmapi_send(m_write, message.size(), message.data(), kSurely);
    }
    bool send(uint32_t client, Bytes const& frame) {
        return send(shm_message(client, static_cast<uint32_t>(getpid()), frame));
    }

    // The next message, empty when none comes.
    Bytes receive(long timeoutMs = kSurely) {
        unsigned long size = m_buffer.size();
        if (!libivshmapi_recv(m_read, &size, m_buffer.data(), timeoutMs)) return {};
        return Bytes(m_buffer.begin(), m_buffer.begin() + static_cast<long>(size));
    }

    // Asks as `client` and gives the answer's payload, or the reason why it is none.
    std::string exchange(uint16_t port, Bytes const& payload, uint32_t client = 1) {
        uint32_t const id = ++m_invokeId;
        if (!send(client, ask(port, id, payload))) return "not sent";
        Bytes const message = receive();
        if (message.size() < 20) return "no answer";
        Bytes const frame(message.begin() + 20, message.end());
        if (message != shm_message(client, static_cast<uint32_t>(getpid()), frame)) {
            return "another header: " + hex(message);
        }
        FrameParts const parts = take_apart(frame);
        if (!parts.whole || parts.port != port || parts.invokeId != id || parts.state != 1) {
            return "another answer: " + hex(frame);
        }
        return parts.error == 0 ? as_text(parts.rest) : "status " + std::to_string(parts.error);
    }

private:
    static void* open_topic(int topic) {
        void* const handle = libivshmapi_init(topic, 1);
        EXPECT_NE(nullptr, handle);
        return handle;
    }

    void* m_read;
    void* m_write;
    Bytes m_buffer;
    uint32_t m_invokeId = 0;
};

class ComponentIvshmTest : public testing::Test {
protected:
    ComponentIvshmTest() {
        offer_ivshm_library(KYP_IVSHM_STANDIN);
        settings(0);
    }

    static void settings(int group, int maxSize = kMaxSize) {
        std::string const number = std::to_string(group);
        std::ofstream("/opt/kyp/libkyp.ini")
            << "[example]\nivshm_enable=true\nivshm_group=" << number << "\n[ivshm]\ngroup"
            << number << "_maxsize=" << maxSize << "\n";
    }

    void start_server() { m_server = std::make_unique<ServerProcess>(); }

    void start_component() {
        m_component = std::make_unique<ChildProcess>(std::vector<std::string>{"example_component"});
        ASSERT_TRUE(m_component->wait_for_output("example serves")) << m_component->all_output();
    }

    void start_both() {
        start_server();
        start_component();
    }

    std::unique_ptr<ServerProcess> m_server;
    std::unique_ptr<ChildProcess> m_component;
};

TEST_F(ComponentIvshmTest, ServesAnotherMachineAsItServesASocket) {
    start_both();
    Machine machine;
    KypClient client(KypClient::UNIX);

    for (size_t size : {0u, 1u, 32u, 8192u, 100000u}) {
        SCOPED_TRACE(size);
        Bytes const payload = pattern(size);
        EXPECT_EQ(as_text(payload), machine.exchange(kNow, payload));
        KypClient::Answer const answer = client.exchange(kNow, payload);
        EXPECT_EQ(0, answer.status);
        EXPECT_EQ(as_text(payload), as_text(answer.payload));
    }
    EXPECT_THAT(m_component->output(), HasSubstr("init read topic:1,write topic:0"));
    EXPECT_THAT(m_component->errors(), HasSubstr("ivshm stand-in: topic 1 opened, mode 0"));
}

TEST_F(ComponentIvshmTest, AnswersLaterFromAThreadOfItsOwn) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer does not know the threads of <threads.h>";
#endif
    start_both();
    Machine machine;

    EXPECT_EQ("later", machine.exchange(kLater, text("x")));
}

TEST_F(ComponentIvshmTest, AnswersEchoAndPortsThatAreNone) {
    start_both();
    Machine machine;

    EXPECT_EQ("hello", machine.exchange(kEcho, text("hello")));
    EXPECT_EQ("status " + std::to_string(KYP_ERR_PORT_RANGE), machine.exchange(0, {}));
    EXPECT_EQ("status " + std::to_string(KYP_ERR_PORT_RANGE), machine.exchange(4097, {}));
}

TEST_F(ComponentIvshmTest, ServesWithoutAServer) {
    start_component();
    Machine machine;

    EXPECT_EQ("alone", machine.exchange(kNow, text("alone")));
}

TEST_F(ComponentIvshmTest, HasTheTopicsOfItsGroup) {
    settings(1);
    start_component();
    Machine machine(1);

    EXPECT_EQ("two", machine.exchange(kNow, text("two")));
    EXPECT_THAT(m_component->output(), HasSubstr("init read topic:3,write topic:2"));
}

TEST_F(ComponentIvshmTest, Serves32ClientsOfTheOtherMachineBesideThoseOfItsServer) {
    constexpr uint32_t kEach = 50;
    start_both();
    Machine machine;
    std::vector<std::thread> threads;
    for (uint32_t id = 1; id <= 32; ++id) {
        threads.emplace_back([&machine, id] {
            for (uint32_t n = 0; n < kEach; ++n) {
                Bytes const payload = join({u32_le(id), pattern((id * 31 + n * 17) % 2000)});
                EXPECT_TRUE(machine.send(id, ask(kNow, id << 16 | n, payload)));
            }
        });
    }
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([] {
            KypClient client(KypClient::UNIX);
            for (size_t n = 0; n < kEach; ++n) {
                EXPECT_EQ(pattern(n * 7), client.exchange(kNow, pattern(n * 7)).payload);
            }
        });
    }

    // Answers of one client come in the order of its requests.
    std::map<uint32_t, uint32_t> next;
    for (uint32_t i = 0; i < 32 * kEach; ++i) {
        Bytes const message = machine.receive();
        ASSERT_LT(20u, message.size());
        FrameParts const parts = take_apart(Bytes(message.begin() + 20, message.end()));
        ASSERT_TRUE(parts.whole);
        uint32_t const id = parts.invokeId >> 16;
        uint32_t const n = parts.invokeId & 0xffff;
        EXPECT_EQ(next[id]++, n);
        EXPECT_EQ(id, message[8]);
        EXPECT_EQ(join({u32_le(id), pattern((id * 31 + n * 17) % 2000)}), parts.rest);
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_F(ComponentIvshmTest, TakesTheLargestFrameAndGoesOnBehindOneThatIsTooLarge) {
    start_component();
    Machine machine;
    size_t const heads = 29;

    for (size_t size : {kMaxSize - heads, kMaxSize - heads + 1, kMaxSize - heads + 1004}) {
        SCOPED_TRACE(size);
        Bytes const payload = pattern(size);
        EXPECT_TRUE(as_text(payload) == machine.exchange(kNow, payload));
    }
    EXPECT_TRUE(machine.send(1, ask(kNow, 77, pattern(kMaxSize - heads + 1005))));
    EXPECT_EQ("next", machine.exchange(kNow, text("next")));
    EXPECT_THAT(m_component->errors(), HasSubstr("dropped a message of 201025 bytes"));
}

TEST_F(ComponentIvshmTest, IsNotDisturbedByWhatIsNoMessage) {
    start_both();
    Machine machine;
    KypClient client(KypClient::UNIX);
    Bytes const good = shm_message(1, 1, ask(kNow, 1, text("good")));

    for (size_t length = 0; length < good.size(); ++length) {
        ASSERT_TRUE(machine.send(Bytes(good.begin(), good.begin() + static_cast<long>(length))));
    }
    for (uint32_t id : {0u, 33u, 34u, 40u, 0xffffu, 0x7fffu, 0x80000000u}) {
        ASSERT_TRUE(machine.send(shm_message(id, 1, ask(kNow, 1))));
    }
    for (uint32_t size : {0x7fffffffu, 0xffffffffu, 0x80000000u}) {
        ASSERT_TRUE(machine.send(join({shm_head(0xFF4B5950, 1, 1, size), ask(kNow, 1)})));
        ASSERT_TRUE(
            machine.send(shm_message(1, 1, join({kyp_head(kNow, size), Bytes(21), text("lies")}))));
    }
    for (size_t size : {20u, 49u, 1000u, 200000u}) ASSERT_TRUE(machine.send(pattern(size)));

    EXPECT_EQ("still", machine.exchange(kNow, text("still")));
    EXPECT_EQ(text("here"), client.exchange(kNow, text("here")).payload);
}

TEST_F(ComponentIvshmTest, ServesTheNextPeerAfterOneWasKilled) {
    start_component();
    for (int round = 0; round < 10; ++round) {
        pid_t const peer = fork();
        if (peer == 0) {
            Machine dying;
            for (;;) dying.exchange(kNow, pattern(20000), 2);
        }
        // Until it is at it; then it dies wherever it is.
        Machine watching;
        EXPECT_TRUE(watching.send(3, ask(kNow, 1)));
        EXPECT_NE(Bytes(), watching.receive());
        kill(peer, SIGKILL);
        waitpid(peer, nullptr, 0);
    }
    Machine machine;
    EXPECT_TRUE(machine.send(1, ask(kNow, 4711, text("mine"))));

    // Answers to the dead come first.
    Bytes const wanted = shm_message(1, static_cast<uint32_t>(getpid()),
                                     response_frame(kNow, 9, 4711, text("mine")));
    Bytes got;
    do {
        got = machine.receive();
    } while (!got.empty() && got != wanted);
    EXPECT_EQ(wanted, got);
}

TEST_F(ComponentIvshmTest, IsReplacedWhileItsPeerWaits) {
    start_component();
    Machine machine;
    ASSERT_EQ("one", machine.exchange(kNow, text("one")));

    m_component->signal(SIGKILL);
    m_component->wait_exit();
    ASSERT_TRUE(machine.send(1, ask(kEcho, 99, text("two"))));
    start_component();

    EXPECT_EQ(
        shm_message(1, static_cast<uint32_t>(getpid()), response_frame(kEcho, 9, 99, text("two"))),
        machine.receive());
    EXPECT_EQ("three", machine.exchange(kNow, text("three")));
}

TEST_F(ComponentIvshmTest, ServesItsServersClientsWithoutTheTransport) {
    withdraw_ivshm_library();
    start_both();
    KypClient client(KypClient::UNIX);

    EXPECT_EQ(text("fine"), client.exchange(kNow, text("fine")).payload);
    EXPECT_THAT(m_component->output(), HasSubstr("Load /usr/lib/libivshmAPI.so Fail"));
    EXPECT_THAT(m_component->output(),
                HasSubstr("init <rhandle:0,topic:1>,<whandle:0,topic:0> fail"));
}

TEST_F(ComponentIvshmTest, ServesItsServersClientsWithHalfATransport) {
    offer_ivshm_library(KYP_IVSHM_PROBES "recv.so");
    start_both();
    KypClient client(KypClient::UNIX);

    EXPECT_EQ(text("fine"), client.exchange(kNow, text("fine")).payload);
    EXPECT_THAT(m_component->output(), HasSubstr("Load libivshmapi_recv fail"));
}

TEST_F(ComponentIvshmTest, ServesItsServersClientsWithoutAGroup) {
    settings(7);
    start_both();
    KypClient client(KypClient::UNIX);

    EXPECT_EQ(text("fine"), client.exchange(kNow, text("fine")).payload);
    EXPECT_THAT(m_component->output(), HasSubstr("ivshm group idx:7 invaild"));
}

TEST_F(ComponentIvshmTest, OpensNothingWhereItIsNotEnabled) {
    std::ofstream("/opt/kyp/libkyp.ini") << "[example]\nivshm_enable=false\n";
    start_component();

    EXPECT_THAT(m_component->all_output(), Not(HasSubstr("libivshmAPI")));
}

TEST_F(ComponentIvshmTest, IsAskedByThePeerProgram) {
    start_component();
    ChildProcess one({"kyp_ivshm_peer", "600", "hello"});
    EXPECT_EQ(0, one.wait_exit()) << one.errors();
    ChildProcess many({"kyp_ivshm_peer", "--clients", "32", "--count", "20", "600", "x"});
    EXPECT_EQ(0, many.wait_exit()) << many.errors();
    ChildProcess refused({"kyp_ivshm_peer", "--clients", "2", "0"});
    EXPECT_EQ(1, refused.wait_exit()) << refused.errors();
    ChildProcess misused({"kyp_ivshm_peer", "--clients", "33", "600"});
    EXPECT_EQ(2, misused.wait_exit());

    EXPECT_EQ("client 1: hello\n", one.output());
    EXPECT_THAT(many.output(), HasSubstr("32 clients, 20 requests each, all answered"));
    EXPECT_EQ("client 1: status 0x1014\nclient 2: status 0x1014\n", refused.output());
}

// Takes what a route of a library client is given.
struct Inbox {
    static void on_message(unsigned short, char const* data, unsigned int size, void* ctx) {
        auto* const self = static_cast<Inbox*>(ctx);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->messages.emplace_back(data, size);
    }
    std::vector<std::string> get() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages;
    }
    std::mutex mutex;
    std::vector<std::string> messages;
};

TEST_F(ComponentIvshmTest, ServesTheLibrarysOwnClientsOnceTheirHandlesAreSet) {
    start_component();
    LogCapture log;
    IvshmGroup* const group = IvshmGroup::makeIvshmGroup(1, 0, kMaxSize);
    ASSERT_FALSE(group->init_ivshm_topic());
    auto& transport = ExtIvshmApiDef::GetInstance();
    group->m_hRead = transport.InitIvshmTopic(0, 1);
    group->m_hWrite = transport.InitIvshmTopic(1, 1);
    ASSERT_TRUE(group->init_ivshm_topic());
    group->start();
    Inbox inboxes[32];
    std::vector<CIvshmClient*> clients;
    for (Inbox& inbox : inboxes) {
        clients.push_back(group->makeIvshmClient());
        clients.back()->add_router(kNow, Inbox::on_message, &inbox);
    }

    for (size_t i = 0; i < clients.size(); ++i) {
        // The send says that it failed, and the answer, which nobody awaits, reaches the route.
        std::string payload = "client " + std::to_string(i);
        Frame frame = MakeKypRequestPacket(kNow, 9, 4711, 0, 0, payload.data(),
                                           static_cast<unsigned int>(payload.size()), kKypVersion);
        EXPECT_EQ(-1, clients[i]->raw_send(frame, 1000));
        delete[] frame.rawData();
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        ASSERT_TRUE(eventually([&] { return !inboxes[i].get().empty(); }));
        EXPECT_THAT(inboxes[i].get(), ElementsAre("client " + std::to_string(i)));
    }
    for (CIvshmClient* client : clients) group->destoryIvshmClient(client);
    IvshmGroup::destoryIvshmGroup(group);
}

}  // namespace
