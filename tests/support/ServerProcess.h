// kypserver as a process of its own.
//
// Owns:     the process; the destructor ends it as a service manager does.
// Threads:  one.
#ifndef KYP_TESTS_SUPPORT_SERVERPROCESS_H
#define KYP_TESTS_SUPPORT_SERVERPROCESS_H

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

class ServerProcess {
public:
    // Starts the server and waits until it is ready.
    explicit ServerProcess(std::vector<std::string> const& options = {}) {
        std::vector<std::string> command = {"kypserver"};
        command.insert(command.end(), options.begin(), options.end());
        m_process = std::make_unique<ChildProcess>(command);
        EXPECT_TRUE(m_process->wait_for_output("kypserver ready")) << m_process->all_output();
    }

    // Ends it as a service manager does.
    ~ServerProcess() {
        if (m_process != nullptr) stop();
    }

    void stop(int sig = SIGTERM) {
        m_process->signal(sig);
        EXPECT_EQ(0, m_process->wait_exit()) << m_process->all_output();
        m_process.reset();
    }

    void kill() { m_process.reset(); }

    ChildProcess& process() { return *m_process; }

private:
    std::unique_ptr<ChildProcess> m_process;
};

#endif
