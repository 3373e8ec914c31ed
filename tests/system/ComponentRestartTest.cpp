// Server, component and client, each a process of its own, killed and started again: everything
// comes back by itself, what was acknowledged has been done, and who lives on gathers nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kypcomm/KypStatus.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/ProcessUse.h"
#include "support/RoadComponent.h"
#include "support/ServerProcess.h"

namespace {

using testing::IsSubsetOf;

using testing::IsSupersetOf;

constexpr uint16_t kPort = 600;
constexpr char const* kStore = "/tmp/motor.store";

// A component connects again every three seconds; the rest is for slow machines.
constexpr std::chrono::milliseconds kDeadline = std::chrono::seconds(60);

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsMeasured = false;  // what is freed stays in memory for a while
#else
constexpr bool kMemoryIsMeasured = true;
#endif

// Less than one of the client's largest requests for each round of the longest test.
constexpr size_t kMemoryAllowed = 4096;  // KiB

char const* const kRoads[] = {"tcp-now", "tcp-later", "unix-now", "unix-later", "topic"};

// What a client program has printed, see road_client.cpp.
struct Story {
    std::map<std::string, int> acknowledged;  // by road
    std::vector<uint32_t> numbers;            // of acknowledged calls
    std::set<int> failures;                   // their codes; 0 where a link took a part only
    std::vector<std::string> faults;          // wrong and late answers
};

Story read_story(std::string const& output) {
    Story story;
    std::istringstream in(output.substr(0, output.rfind('\n') + 1));  // whole lines
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string what, road, number;
        words >> what >> road >> number;
        if (what == "ack") {
            ++story.acknowledged[road];
            if (road != "topic") story.numbers.push_back(std::stoul(number));
        } else if (what == "fail") {
            story.failures.insert(static_cast<int>(std::stoul(number, nullptr, 16)));
        } else if (what == "wrong" || what == "late") {
            story.faults.push_back(line);
        }
    }
    return story;
}

std::vector<uint32_t> stored() {
    std::ifstream in(kStore);
    std::vector<uint32_t> all;
    uint32_t number;
    while (in >> number) all.push_back(number);
    return all;
}

enum Part { SERVER, COMPONENT, CLIENT };
using Order = std::array<Part, 3>;

class ComponentRestartTest : public testing::Test {
protected:
    void TearDown() override {
        kill(CLIENT);
        for (std::string const& output : m_past) judge(output);
    }

    void start_all() {
        for (Part part : {SERVER, COMPONENT, CLIENT}) start(part);
        EXPECT_TRUE(works());
    }

    void start(Part part) {
        if (part == SERVER) m_server = std::make_unique<ServerProcess>();
        if (part == COMPONENT)
            m_component = std::make_unique<RoadComponent>("motor", kPort, kStore);
        if (part != CLIENT) return;
        // No number is used twice, so what a client leaves behind is told from the next one's.
        std::string const first = std::to_string(1000000 * ++m_clients);
        m_client = std::make_unique<ChildProcess>(
            std::vector<std::string>{"road_client", std::to_string(kPort), first});
    }

    void kill(Part part) {
        if (part == SERVER && m_server != nullptr) m_server->kill();
        if (part == COMPONENT) m_component.reset();
        if (part != CLIENT || m_client == nullptr) return;
        m_client->signal(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, m_client->wait_exit());
        m_past.push_back(m_client->output());
        m_client.reset();
    }

    // True when calls that begin from now on are answered on every road.
    bool works() {
        auto const before = read_story(m_client->output()).acknowledged;
        auto const on_each_road = [&] {
            auto const now = read_story(m_client->output()).acknowledged;
            return std::all_of(std::begin(kRoads), std::end(kRoads), [&](std::string const& road) {
                // The first of them may have begun before.
                return count(now, road) >= count(before, road) + 2;
            });
        };
        return eventually(on_each_road, kDeadline);
    }

    pid_t pid(Part part) {
        if (part == SERVER) return m_server->process().pid();
        return part == COMPONENT ? m_component->process().pid() : m_client->pid();
    }

    // Kills and starts `restarted` so many times; those who live on use no more than before.
    void expect_nothing_left_behind(Part restarted, int rounds) {
        start_all();
        kill(restarted);
        start(restarted);
        ASSERT_TRUE(works());
        std::map<Part, size_t> descriptors;
        std::map<Part, size_t> memory;
        for (Part part : {SERVER, COMPONENT, CLIENT}) {
            descriptors[part] = open_descriptors(pid(part));
            memory[part] = resident_kib(pid(part));
        }

        for (int round = 0; round < rounds; ++round) {
            kill(restarted);
            start(restarted);
            ASSERT_TRUE(works()) << "round " << round;
        }

        for (Part part : {SERVER, COMPONENT, CLIENT}) {
            if (part == restarted) continue;
            SCOPED_TRACE(part);
            EXPECT_TRUE(eventually([&] {
                return open_descriptors(pid(part)) <= descriptors[part];
            })) << open_descriptors(pid(part))
                << " instead of " << descriptors[part];
            if (!kMemoryIsMeasured) continue;
            EXPECT_LE(resident_kib(pid(part)), memory[part] + kMemoryAllowed);
        }
    }

private:
    static int count(std::map<std::string, int> const& counts, std::string const& road) {
        auto const found = counts.find(road);
        return found != counts.end() ? found->second : 0;
    }

    static void judge(std::string const& output) {
        Story const story = read_story(output);
        EXPECT_THAT(story.faults, testing::IsEmpty());
        std::vector<uint32_t> done = stored();
        std::vector<uint32_t> acknowledged = story.numbers;
        std::sort(done.begin(), done.end());
        std::sort(acknowledged.begin(), acknowledged.end());
        EXPECT_TRUE(
            std::includes(done.begin(), done.end(), acknowledged.begin(), acknowledged.end()));
        EXPECT_EQ(done.end(), std::adjacent_find(done.begin(), done.end()))
            << "a request was served twice";
        EXPECT_THAT(story.failures,
                    IsSubsetOf({KYP_OK, KYP_ERR_DISCONNECTED, KYP_ERR_ROUTE_NOT_REGISTERED,
                                KYP_ERR_COMPONENT_OFFLINE, KYP_ERR_RECV_TIMEOUT}));
    }

    std::unique_ptr<ServerProcess> m_server;
    std::unique_ptr<RoadComponent> m_component;
    std::unique_ptr<ChildProcess> m_client;
    unsigned int m_clients = 0;
    std::vector<std::string> m_past;  // what clients that were killed have printed
};

TEST_F(ComponentRestartTest, ServersThatComeAndGoLeaveNothingBehind) {
    expect_nothing_left_behind(SERVER, 3);
}

TEST_F(ComponentRestartTest, ComponentsThatComeAndGoLeaveNothingBehind) {
    expect_nothing_left_behind(COMPONENT, 20);
}

TEST_F(ComponentRestartTest, ClientsThatComeAndGoLeaveNothingBehind) {
    expect_nothing_left_behind(CLIENT, 20);
}

// ---- all three

class RestartOrderTest : public ComponentRestartTest, public testing::WithParamInterface<Order> {};

INSTANTIATE_TEST_SUITE_P(
    Orders, RestartOrderTest,
    testing::Values(Order{SERVER, COMPONENT, CLIENT}, Order{SERVER, CLIENT, COMPONENT},
                    Order{COMPONENT, SERVER, CLIENT}, Order{COMPONENT, CLIENT, SERVER},
                    Order{CLIENT, SERVER, COMPONENT}, Order{CLIENT, COMPONENT, SERVER}),
    [](auto const& order) {
        std::string name;
        for (Part part : order.param) {
            name += part == SERVER ? "Server" : part == COMPONENT ? "Component" : "Client";
        }
        return name;
    });

TEST_P(RestartOrderTest, EverythingComesBack) {
    start_all();

    for (Part part : GetParam()) {
        kill(part);
        start(part);
    }
    EXPECT_TRUE(works());

    for (Part part : GetParam()) kill(part);
    for (Part part : GetParam()) start(part);
    EXPECT_TRUE(works());

    Order reversed = GetParam();
    std::reverse(reversed.begin(), reversed.end());
    for (Part part : GetParam()) kill(part);
    for (Part part : reversed) start(part);
    EXPECT_TRUE(works());
}

}  // namespace
