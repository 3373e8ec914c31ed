#include "support/ChildProcess.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <linux/securebits.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>

#include "support/Eventually.h"

namespace {

std::string read_all(int fd) {
    std::string all;
    char piece[4096];
    ssize_t n;
    while ((n = pread(fd, piece, sizeof piece, static_cast<off_t>(all.size()))) > 0) {
        all.append(piece, static_cast<size_t>(n));
    }
    return all;
}

int caught_output(char const* name) {
    int const fd = memfd_create(name, MFD_CLOEXEC);
    fcntl(fd, F_SETFL, O_APPEND);
    return fd;
}

[[noreturn]] void run(std::vector<char*> const& arguments, ChildProcess::Rights rights, int out,
                      int err) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // User 0 gets all capabilities back when it starts a program, unless told that it is no root.
    if (rights == ChildProcess::WITHOUT_CAPABILITIES &&
        prctl(PR_SET_SECUREBITS, SECBIT_NOROOT | SECBIT_NOROOT_LOCKED) != 0) {
        _exit(126);
    }
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    // Else the program would keep the test's own connections open.
    (void)close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    execv(arguments[0], arguments.data());
    perror(arguments[0]);
    _exit(127);
}

}  // namespace

std::string program_path(std::string const& name) {
    char self[PATH_MAX];
    ssize_t const n = readlink("/proc/self/exe", self, sizeof self);
    std::string const path(self, n > 0 ? static_cast<size_t>(n) : 0);
    return path.substr(0, path.rfind('/') + 1) + name;
}

ChildProcess::ChildProcess(std::vector<std::string> command, Rights rights)
    : m_status(-1), m_out(caught_output("stdout")), m_err(caught_output("stderr")) {
    if (command[0].find('/') == std::string::npos) command[0] = program_path(command[0]);
    std::vector<char*> arguments;
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    fflush(nullptr);  // else the child could print what waits in this process's buffers
    m_pid = fork();
    if (m_pid == 0) run(arguments, rights, m_out, m_err);
}

ChildProcess::~ChildProcess() {
    if (m_status == -1) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_out);
    close(m_err);
}

pid_t ChildProcess::pid() const {
    return m_pid;
}

std::string ChildProcess::output() const {
    return read_all(m_out);
}

std::string ChildProcess::errors() const {
    return read_all(m_err);
}

std::string ChildProcess::all_output() const {
    return output() + errors();
}

bool ChildProcess::wait_for_output(std::string const& part, std::chrono::milliseconds deadline) {
    auto const found = [&] { return all_output().find(part) != std::string::npos; };
    eventually([&] { return found() || wait_exit(std::chrono::milliseconds(0)) != -1; }, deadline);
    return found();
}

void ChildProcess::signal(int sig) {
    if (m_status == -1) kill(m_pid, sig);
}

int ChildProcess::wait_exit(std::chrono::milliseconds deadline) {
    auto const ended = [this] {
        int status;
        if (m_status == -1 && waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return m_status != -1;
    };
    eventually(ended, deadline);
    return m_status;
}
