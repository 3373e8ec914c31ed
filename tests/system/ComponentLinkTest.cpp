// The component's receive thread through losses of its server: which connect events come, in which
// order, and that nothing else is lost or left behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "compmodule/business_data_layer.h"
#include "compmodule/net_channel.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "support/Eventually.h"
#include "support/RawPeer.h"
#include "support/ServerProcess.h"
#include "utils/Log.h"

namespace {

using testing::AnyOf;
using testing::ElementsAre;

using Clock = std::chrono::steady_clock;

constexpr char const* kPath = "/var/tmp/kyp/kypserver";
constexpr int64_t kFourSeconds = 4000000000;

// Longer than any test of these needs on a slow machine.
constexpr std::chrono::milliseconds kDeadline = std::chrono::seconds(60);

size_t open_descriptors() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                             std::filesystem::directory_iterator()));
}

// The part of a component that keeps its link, run as a component runs it: registered in the
// connect callback, ended by nothing but the flag.
class Component {
public:
    // PATIENT tries again every 3 seconds as in life, EAGER at every look at the link.
    enum Pace { PATIENT, EAGER };

    explicit Component(Pace pace) : m_pace(pace) {
        SetLogLevel(LOG_LEVEL_ERROR);
        ::mkdir("/var/tmp/kyp", 0755);
        m_layer.register_connect_callback(on_event, this);
        m_layer.register_message_callback(on_frame, this);
    }

    ~Component() {
        m_layer.stopFlag = true;
        if (m_layer.netThread.joinable()) m_layer.netThread.join();
    }

    void start() {
        m_layer.init_connect_channel();
        m_layer.start();
    }

    std::vector<int> events() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    long count(int event) {
        std::vector<int> const all = events();
        return std::count(all.begin(), all.end(), event);
    }

    // What the registrations gave, one behind each event 1.
    std::vector<int> registrations() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_registrations;
    }

    size_t frames() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_frames.size();
    }

    bool has_frame(std::string const& part) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (Bytes const& frame : m_frames) {
            if (as_text(frame).find(part) != std::string::npos) return true;
        }
        return false;
    }

    BusinessDataLayer& layer() { return m_layer; }

    bool m_subscribes = false;  // behind each registration; set before start()

private:
    static int on_event(int code, void* self) {
        auto& component = *static_cast<Component*>(self);
        int status = -1;
        {
            std::lock_guard<std::mutex> lock(component.m_mutex);
            component.m_events.push_back(code);
        }
        if (code == KYP_CONNECT_SUCCESS) status = component.m_layer.register_component();
        if (code == KYP_CONNECT_SUCCESS && component.m_subscribes) {
            component.m_layer.subscribe("speed");
        }
        // Behind the registration: a link that is lost in it has no event of its own.
        if (component.m_pace == EAGER) {
            component.m_layer.reconnectTimer.update();
            component.m_layer.reconnectTimer.m_nanoseconds -= kFourSeconds;
        }
        std::lock_guard<std::mutex> lock(component.m_mutex);
        if (code == KYP_CONNECT_SUCCESS) component.m_registrations.push_back(status);
        return 0;
    }

    static int on_frame(RecvBuf* frame, void* self) {
        auto& component = *static_cast<Component*>(self);
        std::lock_guard<std::mutex> lock(component.m_mutex);
        component.m_frames.emplace_back(frame->GetVaildData(),
                                        frame->GetVaildData() + frame->GetVaildSize());
        return 0;
    }

    const Pace m_pace;
    tagCmpDrvInfo m_info{1, 2, "drive0"};
    CNetChannel m_channel{"drive0"};
    BusinessDataLayer m_layer{&m_info, &m_channel};
    std::mutex m_mutex;  // guards the three collections
    std::vector<int> m_events;
    std::vector<int> m_registrations;
    std::vector<Bytes> m_frames;
};

// A server of raw bytes that is killed and started again.
class RawServer {
public:
    RawServer() { start(); }

    void start() { m_listener = RawListener::unix_path(kPath); }

    // As a killed process leaves it: its file stays, nobody listens, the link is gone.
    void kill() {
        m_listener.close();
        m_peer.close();
    }

    void accept() {
        m_peer = m_listener.accept(kDeadline);
        ASSERT_TRUE(m_peer.connected());
    }

    // Serves the next registration.
    void accept_registration() {
        accept();
        ASSERT_EQ(102, take_apart(m_peer.receive_frame(kDeadline)).port);
        m_peer.send(response_frame(102, 9, 1));
    }

    RawPeer& peer() { return m_peer; }

private:
    RawListener m_listener;
    RawPeer m_peer;
};

// "1 5 6 6 1": what came, with each run of the same failed attempts as it was.
std::string story(std::vector<int> const& events) {
    std::string text;
    for (int event : events) text += (text.empty() ? "" : " ") + std::to_string(event);
    return text;
}

// One 1 first; behind every 5 any number of 6, then one 1.
bool is_exact(std::vector<int> const& events) {
    int previous = 0;
    for (int event : events) {
        const bool fits = event == 1   ? previous == 0 || previous == 5 || previous == 6
                          : event == 5 ? previous == 1
                                       : event == 6 && (previous == 5 || previous == 6);
        if (!fits) return false;
        previous = event;
    }
    return true;
}

TEST(ComponentLinkTest, EveryRestartIsALossAttemptsAndASuccess) {
    RawServer server;
    Component component(Component::EAGER);
    std::thread registrar([&] { server.accept_registration(); });
    component.start();
    registrar.join();
    std::vector<int> expected = {1};

    for (int failures = 1; failures <= 4; ++failures) {
        SCOPED_TRACE(failures);
        const long before = component.count(6);
        server.kill();
        ASSERT_TRUE(eventually([&] { return component.count(6) >= before + failures; }, kDeadline));
        server.start();
        server.accept_registration();
        ASSERT_TRUE(eventually(
            [&] { return component.registrations().size() == static_cast<size_t>(failures) + 1; },
            kDeadline));

        const long attempts = component.count(6) - before;
        expected.push_back(5);
        expected.insert(expected.end(), static_cast<size_t>(attempts), 6);
        expected.push_back(1);
        EXPECT_EQ(story(expected), story(component.events()));
    }
    EXPECT_THAT(component.registrations(), ElementsAre(0, 0, 0, 0, 0));
    server.kill();
}

TEST(ComponentLinkTest, AttemptsComeNoSoonerThanEveryThreeSeconds) {
    RawServer server;
    Component component(Component::PATIENT);
    std::thread registrar([&] { server.accept_registration(); });
    component.start();
    registrar.join();
    const Clock::time_point lost = Clock::now();
    server.kill();

    ASSERT_TRUE(eventually([&] { return component.count(6) > 0; }, kDeadline));
    server.start();
    server.accept_registration();
    ASSERT_TRUE(eventually([&] { return component.registrations().size() == 2; }, kDeadline));

    EXPECT_TRUE(is_exact(component.events())) << story(component.events());
    EXPECT_EQ(1, component.count(5));
    EXPECT_GE(Clock::now() - lost, component.count(6) * std::chrono::milliseconds(2990));
    server.kill();
}

TEST(ComponentLinkTest, ServerThatDiesInARegistrationIsTriedAgain) {
    RawServer server;
    Component component(Component::EAGER);
    std::thread killer([&] {
        server.accept();
        server.peer().receive_frame(kDeadline);
        server.peer().close();
    });
    component.start();
    killer.join();

    server.accept_registration();
    ASSERT_TRUE(eventually([&] { return component.registrations().size() == 2; }, kDeadline));

    EXPECT_EQ("1 1", story(component.events()));
    EXPECT_THAT(component.registrations(), ElementsAre(KYP_ERR_DISCONNECTED, 0));
    server.kill();
}

TEST(ComponentLinkTest, WritersThroughRestartsChangeNothing) {
    constexpr int kRestarts = 10;
    RawServer server;
    Component component(Component::EAGER);
    std::thread registrar([&] { server.accept_registration(); });
    component.start();
    registrar.join();
    const size_t descriptors = open_descriptors();
    std::atomic<bool> isOver{false};
    std::vector<std::thread> writers;
    for (int w = 0; w < 3; ++w) {
        writers.emplace_back([&, w] {
            const std::string data(static_cast<size_t>(w) * 3000 + 1, 'x');
            while (!isOver) {
                const int status = component.layer().publish(
                    "speed", 0, 0, data.data(), static_cast<unsigned int>(data.size()));
                EXPECT_THAT(status, AnyOf(0, KYP_ERR_DISCONNECTED));
                std::this_thread::yield();
            }
        });
    }

    for (int restart = 0; restart < kRestarts; ++restart) {
        for (int n = 0; n < 20; ++n) {
            EXPECT_TRUE(take_apart(server.peer().receive_frame(kDeadline)).whole);
        }
        server.kill();
        server.start();
        server.accept();
        // Writers may come before the registration.
        while (take_apart(server.peer().receive_frame(kDeadline)).port == 103) {
        }
        server.peer().send(response_frame(102, 9, 1));
        ASSERT_TRUE(eventually(
            [&] { return component.registrations().size() == static_cast<size_t>(restart) + 2; },
            kDeadline));
    }
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_TRUE(is_exact(component.events())) << story(component.events());
    EXPECT_EQ(kRestarts + 1, component.count(1)) << story(component.events());
    EXPECT_EQ(kRestarts, component.count(5)) << story(component.events());
    for (int status : component.registrations()) EXPECT_EQ(0, status);
    isOver = true;
    server.kill();
    for (std::thread& writer : writers) writer.join();
}

TEST(ComponentLinkTest, KilledServerProcessIsFoundAgain) {
    auto server = std::make_unique<ServerProcess>();
    Component component(Component::EAGER);
    component.m_subscribes = true;
    component.start();

    for (int restart = 1; restart <= 3; ++restart) {
        SCOPED_TRACE(restart);
        const std::string word = "message " + std::to_string(restart);
        EXPECT_TRUE(eventually(
            [&] {
                component.layer().publish("speed", 0, 0, word.data(),
                                          static_cast<unsigned int>(word.size()));
                return component.has_frame(word);
            },
            kDeadline));

        const long before = component.count(6);
        server->kill();
        ASSERT_TRUE(eventually([&] { return component.count(6) > before; }, kDeadline));
        server = std::make_unique<ServerProcess>();
        ASSERT_TRUE(eventually(
            [&] { return component.registrations().size() == static_cast<size_t>(restart) + 1; },
            kDeadline));
        EXPECT_TRUE(is_exact(component.events())) << story(component.events());
        EXPECT_EQ(restart + 1, component.count(1)) << story(component.events());
        EXPECT_EQ(restart, component.count(5)) << story(component.events());
    }
    EXPECT_THAT(component.registrations(), ElementsAre(0, 0, 0, 0));
}

}  // namespace
