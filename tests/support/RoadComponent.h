// The component program of the system tests, see tests/system/road_component.cpp.
//
// Owns:     the process.
// Threads:  one.
#ifndef KYP_TESTS_SUPPORT_ROADCOMPONENT_H
#define KYP_TESTS_SUPPORT_ROADCOMPONENT_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/Eventually.h"

class RoadComponent {
public:
    // Starts it and waits until it says that it is ready, or has been refused.
    explicit RoadComponent(std::string const& name, uint16_t port, std::string const& store = "")
        : m_port(port) {
        std::vector<std::string> command = {"road_component", name, std::to_string(port)};
        if (!store.empty()) command.push_back(store);
        m_process = std::make_unique<ChildProcess>(command);
        EXPECT_TRUE(eventually([this] { return lines("ready: ") + lines("refused: ") > 0; },
                               std::chrono::seconds(30)))
            << m_process->all_output();
    }

    uint16_t now() const { return m_port; }
    uint16_t later() const { return static_cast<uint16_t>(m_port + 1); }
    uint16_t gate() const { return static_cast<uint16_t>(m_port + 2); }
    uint16_t publisher() const { return static_cast<uint16_t>(m_port + 3); }

    ChildProcess& process() { return *m_process; }

    // Lines that it has printed and that begin with `start`.
    int lines(std::string const& start) const {
        std::string const all = "\n" + m_process->output();
        int count = 0;
        for (size_t at = 0; (at = all.find("\n" + start, at)) != std::string::npos; ++at) ++count;
        return count;
    }

    // Waits until it has seen so many clients come and leave; it must have seen no more.
    testing::AssertionResult has_seen(int came, int left) const {
        eventually([&] { return lines("came") >= came && lines("left") >= left; },
                   std::chrono::seconds(30));
        if (lines("came") == came && lines("left") == left) return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << lines("came") << " came and " << lines("left") << " left";
    }

private:
    uint16_t const m_port;
    std::unique_ptr<ChildProcess> m_process;
};

#endif
