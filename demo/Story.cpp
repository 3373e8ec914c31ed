#include "Story.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "libkyp/libkyp.h"

namespace {

constexpr unsigned short kEcho = 100;

FILE* g_screen;

}  // namespace

bool open_story(bool showLog) {
    g_screen = fdopen(dup(STDOUT_FILENO), "w");
    if (g_screen == nullptr) return false;
    setvbuf(g_screen, nullptr, _IOLBF, 0);
    // The log's lines stand between those of the story also when they go into a pipe or file.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return showLog || freopen("/dev/null", "w", stdout) != nullptr;
}

void say(char const* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vfprintf(g_screen, fmt, args);
    va_end(args);
}

std::string indented(std::string const& text) {
    std::string out;
    bool atStart = true;
    for (char const c : text) {
        if (atStart && c != '\n') out += "   ";
        atStart = c == '\n';
        out += c;
    }
    return out;
}

void fail(std::string const& what) {
    say("\nThe demonstration failed: %s.\n", what.c_str());
    fflush(g_screen);
    _exit(1);  // programs that play along end with this process
}

void fail_with_status(char const* what) {
    int const code = libkyp_get_errno();
    char text[160];
    snprintf(text, sizeof text, "%s: %s (0x%x)", what, libkyp_strerror(code),
             static_cast<unsigned>(code));
    fail(text);
}

Program::Program(std::vector<std::string> command, std::function<void()> prepare)
    : m_command(std::move(command)), m_prepare(std::move(prepare)) {
    start();
}

Program::~Program() {
    stop();
}

void Program::start() {
    int output[2];
    if (pipe(output) != 0) fail("no pipe for " + m_command[0]);
    m_pid = fork();
    if (m_pid < 0) fail("no process for " + m_command[0]);
    if (m_pid == 0) run(output);
    close(output[1]);
    m_output = output[0];
    m_read.clear();
}

void Program::wait_for(std::string const& text) {
    while (m_read.find(text) == std::string::npos) {
        if (!read_on()) fail(m_command[0] + " ended before it said \"" + text + "\"");
    }
}

void Program::stop() {
    end(SIGTERM);
}

void Program::crash() {
    end(SIGKILL);
}

int Program::wait() {
    while (read_on()) {
    }
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = 0;
    close(m_output);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string const& Program::output() const {
    return m_read;
}

void Program::run(int const output[2]) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (m_prepare) m_prepare();
    dup2(output[1], STDOUT_FILENO);
    dup2(output[1], STDERR_FILENO);
    close(output[0]);
    close(output[1]);
    std::vector<char*> argv;
    for (std::string const& word : m_command) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

bool Program::read_on() {
    char bytes[4096];
    ssize_t const n = read(m_output, bytes, sizeof bytes);
    if (n > 0) m_read.append(bytes, static_cast<size_t>(n));
    return n > 0;
}

void Program::end(int signal) {
    if (m_pid <= 0) return;
    kill(m_pid, signal);
    waitpid(m_pid, nullptr, 0);
    m_pid = 0;
    close(m_output);
}

void Mailbox::put(std::string message) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.push_back(std::move(message));
    m_arrived.notify_all();
}

void Mailbox::expect(std::string const& message) {
    if (!got(message, std::chrono::seconds(20))) {
        fail("nothing heard of \"" + message + "\" for 20 seconds");
    }
}

bool Mailbox::got(std::string const& message, std::chrono::milliseconds within) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_arrived.wait_for(lock, within, [&] {
        auto const place = std::find(m_messages.begin(), m_messages.end(), message);
        if (place == m_messages.end()) return false;
        m_messages.erase(m_messages.begin(), place + 1);
        return true;
    });
}

void name_this_device(char const* id) {
    std::ofstream file("/opt/kyp/kypdevice.xml");
    file << "<kyp><deviceInfo deviceId=\"" << id << "\"></deviceInfo></kyp>";
    if (!file.flush()) fail("/opt/kyp is not writable here; run ./demo.sh");
}

int ask(void* handle, unsigned short port, void const* data, std::size_t size, void* answer,
        std::size_t room) {
    char* const request = static_cast<char*>(const_cast<void*>(data));
    if (libkyp_sync_send(handle, port, 0, 0, request, static_cast<unsigned int>(size),
                         kDemoTimeoutMs) < 0) {
        return -1;
    }
    unsigned short answered = 0;
    int const received = libkyp_sync_recv(handle, &answered, static_cast<char*>(answer),
                                          static_cast<int>(room), kDemoTimeoutMs);
    return libkyp_get_errno() == 0 ? received : -1;
}

void publish(void* handle, char const* topic, std::string const& text) {
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (libkyp_publish(handle, 1, 2, topic, text.data(), static_cast<unsigned>(text.size())) ==
            0) {
            return;
        }
        usleep(50000);
    }
    fail_with_status("libkyp_publish");
}

void wait_for_answer(void* handle) {
    char answer;
    if (ask(handle, kEcho, nullptr, 0, &answer, sizeof answer) < 0)
        fail_with_status("a request to the echo port");
}
