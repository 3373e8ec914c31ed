#include "support/TerminalProcess.h"

#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "support/ChildProcess.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kStep{10};
constexpr char kCtrlC = 3;

}  // namespace

TerminalProcess::TerminalProcess(std::vector<std::string> command) : m_status(-1), m_terminal(-1) {
    if (command[0].find('/') == std::string::npos) command[0] = program_path(command[0]);
    std::vector<char*> arguments;
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    winsize size{};
    size.ws_row = 24;
    size.ws_col = 80;
    fflush(nullptr);
    m_pid = forkpty(&m_terminal, nullptr, nullptr, &size);
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execv(arguments[0], arguments.data());
        perror(arguments[0]);
        _exit(127);
    }
}

TerminalProcess::~TerminalProcess() {
    if (m_status == -1) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_terminal);
}

std::string const& TerminalProcess::output() const {
    return m_output;
}

bool TerminalProcess::wait_for_output(std::string const& part, milliseconds deadline) {
    auto const end = Clock::now() + deadline;
    while (m_output.find(part) == std::string::npos) {
        if (!read_more(kStep) && wait_exit(milliseconds(0)) != -1) break;
        if (Clock::now() > end) break;
    }
    return m_output.find(part) != std::string::npos;
}

void TerminalProcess::interrupt() {
    (void)!write(m_terminal, &kCtrlC, 1);
}

int TerminalProcess::wait_exit(milliseconds deadline) {
    auto const end = Clock::now() + deadline;
    while (m_status == -1) {
        int status;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            while (read_more(milliseconds(0))) {
            }
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (Clock::now() >= end) {
            break;
        } else {
            read_more(kStep);
        }
    }
    return m_status;
}

bool TerminalProcess::read_more(milliseconds wait) {
    pollfd readable{m_terminal, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(wait.count())) <= 0) return false;
    char piece[4096];
    ssize_t const n = read(m_terminal, piece, sizeof piece);
    if (n <= 0) return false;  // the far end is closed
    m_output.append(piece, static_cast<size_t>(n));
    return true;
}
