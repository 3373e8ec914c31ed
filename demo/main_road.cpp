// The main road, told while it is driven: a client works with a kypserver that is restarted on the
// way. Run it through demo.sh, which gives it private namespaces.
//   kyp_demo KYPSERVER [--verbose]
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "libkyp/libkyp.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned short kEcho = 100;
constexpr int kTimeoutMs = 5000;
constexpr int kTcp = 0;
constexpr int kDomain = 2;
constexpr char const* kTopic = "line1/temperature";

FILE* g_story;  // the screen; the library's log has standard output

[[noreturn]] void fail(std::string const& what) {
    fprintf(g_story, "\nThe demonstration failed: %s.\n", what.c_str());
    exit(1);
}

[[noreturn]] void fail_with_status(char const* what) {
    int const code = libkyp_get_errno();
    char text[160];
    snprintf(text, sizeof text, "%s: %s (0x%x)", what, libkyp_strerror(code),
             static_cast<unsigned>(code));
    fail(text);
}

// A kypserver in a process of its own.
class Server {
public:
    explicit Server(char const* program) : m_program(program) { start(); }
    ~Server() { stop(); }
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    // Returns when the server takes connections.
    void start() {
        int ready[2];
        if (pipe(ready) != 0) fail("no pipe for the server");
        m_pid = fork();
        if (m_pid < 0) fail("no process for the server");
        if (m_pid == 0) run(ready);
        close(ready[1]);
        wait_until_ready(ready[0]);
    }

    void stop() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
        m_pid = 0;
        close(m_output);
    }

private:
    [[noreturn]] void run(int const ready[2]) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ready[1], STDOUT_FILENO);
        close(ready[0]);
        close(ready[1]);
        execl(m_program, m_program, static_cast<char*>(nullptr));
        _exit(127);
    }

    void wait_until_ready(int output) {
        std::string line;
        for (char c; line.find("ready") == std::string::npos; line += c) {
            if (read(output, &c, 1) != 1) fail("kypserver did not start");
        }
        m_output = output;
    }

    char const* m_program;
    pid_t m_pid = 0;
    int m_output = -1;
};

// What callbacks on the receive thread tell the story's thread.
class Mailbox {
public:
    void put(std::string message) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(std::move(message));
        m_arrived.notify_all();
    }

    // Waits for exactly `message`; those before it are dropped.
    void expect(std::string const& message) {
        std::unique_lock<std::mutex> lock(m_mutex);
        bool const seen = m_arrived.wait_for(lock, std::chrono::seconds(20), [&] {
            auto const place = std::find(m_messages.begin(), m_messages.end(), message);
            if (place == m_messages.end()) return false;
            m_messages.erase(m_messages.begin(), place + 1);
            return true;
        });
        if (!seen) fail("nothing heard of \"" + message + "\" for 20 seconds");
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::vector<std::string> m_messages;  // guarded by m_mutex
};

Mailbox g_events;
Mailbox g_topics;

// Runs on the receive thread. Any call of the interface clears that thread's status, which a lost
// link leaves behind and which would close the next one behind its first frame.
void on_connection(_KypDeviceId*, void*, int event) {
    int version[3];
    libkyp_version(&version[0], &version[1], &version[2]);
    g_events.put(libkyp_strerror(event));
}

void on_topic(unsigned int, unsigned int, char const*, char const* data, unsigned int size, void*) {
    g_topics.put(std::string(data, size));
}

std::string text_of(_KypDeviceId const& id) {
    std::string text;
    for (unsigned byte : id.bytes) text += (text.empty() ? "" : ".") + std::to_string(byte);
    return text;
}

void name_this_device(char const* id) {
    std::ofstream file("/opt/kyp/kypdevice.xml");
    file << "<kyp><deviceInfo deviceId=\"" << id << "\"></deviceInfo></kyp>";
    if (!file.flush()) fail("/opt/kyp is not writable here; run ./demo.sh");
}

// One request to the echo port. True when its answer came and is the same.
bool echoes(void* handle, std::vector<char> const& request, std::vector<char>& answer) {
    unsigned short port = 0;
    auto const size = static_cast<unsigned int>(request.size());
    if (libkyp_sync_send(handle, kEcho, 0, 0, const_cast<char*>(request.data()), size, kTimeoutMs) <
        0) {
        return false;
    }
    int const received =
        libkyp_sync_recv(handle, &port, answer.data(), static_cast<int>(answer.size()), kTimeoutMs);
    return received == static_cast<int>(size) &&
           std::equal(request.begin(), request.end(), answer.begin());
}

// Returns the time that one exchange took, in microseconds.
double exchange(void* handle, std::vector<char> const& request, std::vector<char>& answer) {
    auto const begin = Clock::now();
    bool const fine = echoes(handle, request, answer);
    std::chrono::duration<double, std::micro> const time = Clock::now() - begin;
    if (!fine) fail_with_status("a request to the echo port");
    return time.count();
}

std::vector<char> pattern(std::size_t size) {
    std::vector<char> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
    return bytes;
}

void show_exchanges(char const* transport, void* handle) {
    std::vector<char> answer(6 << 20);
    for (std::size_t size : {std::size_t{0}, std::size_t{32}, std::size_t{5} << 20}) {
        double const us = exchange(handle, pattern(size), answer);
        fprintf(g_story, "   %-12s %8zu bytes out and back, identical  %10.1f us\n", transport,
                size, us);
    }
}

struct Row {
    char const* transport;
    int exchanges;
    double median;
    double p99;
};

Row measure(char const* transport, void* handle) {
    constexpr int kExchanges = 5000;
    std::vector<char> const request = pattern(32);
    std::vector<char> answer(64);
    std::vector<double> times;
    times.reserve(kExchanges);
    for (int i = 0; i < kExchanges; ++i) times.push_back(exchange(handle, request, answer));
    std::sort(times.begin(), times.end());
    return {transport, kExchanges, times[kExchanges / 2], times[kExchanges * 99 / 100]};
}

// Behind an answer, what was sent before it is in force at the server.
void wait_for_answer(void* handle) {
    std::vector<char> answer(1);
    exchange(handle, {}, answer);
}

// A domain connection reports no events, so a lost link's return is found by trying.
void publish(void* handle, std::string const& text) {
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (libkyp_publish(handle, 1, 2, kTopic, text.data(), static_cast<unsigned>(text.size())) ==
            0) {
            return;
        }
        usleep(50000);
    }
    fail_with_status("libkyp_publish");
}

void tell(char const* program) {
    fprintf(g_story, "1. A kypserver starts: TCP 9999, /var/tmp/kyp/kypserver, UDP 38898.\n");
    name_this_device("10.20.30.40.1.1");
    Server server(program);
    libkyp_init();

    _KypDeviceId id;
    if (libkyp_getRemoteKypDeviceId("127.0.0.1", kTimeoutMs, &id) != 0) {
        fail_with_status("libkyp_getRemoteKypDeviceId");
    }
    fprintf(g_story, "2. Asked over UDP who it is, it says: device %s.\n", text_of(id).c_str());

    void* const tcp = libkyp_createInstanceEx(&id, kTcp, kTimeoutMs, on_connection, nullptr);
    void* domain = libkyp_createInstance(nullptr, kDomain);
    if (tcp == nullptr || domain == nullptr) fail_with_status("libkyp_createInstance");
    g_events.expect("connect Success");
    fprintf(g_story, "3. Connected to device %s by TCP, and to the local socket.\n",
            text_of(id).c_str());

    fprintf(g_story, "4. Requests to the echo port:\n");
    show_exchanges("TCP", tcp);
    show_exchanges("Unix-domain", domain);

    if (libkyp_subscribe(tcp, kTopic, on_topic, nullptr) != 0) fail_with_status("libkyp_subscribe");
    wait_for_answer(tcp);
    publish(domain, "21.5 degrees");
    g_topics.expect("21.5 degrees");
    fprintf(g_story,
            "5. The TCP client subscribes to \"%s\"; the local one publishes\n"
            "   \"21.5 degrees\" and the TCP client has it.\n",
            kTopic);

    server.stop();
    g_events.expect("connection disconnect");
    fprintf(g_story, "6. The server is stopped: the TCP client hears \"connection disconnect\".\n");
    server.start();
    g_events.expect("connect Success");
    wait_for_answer(tcp);
    publish(domain, "22.0 degrees");
    g_topics.expect("22.0 degrees");
    fprintf(g_story,
            "   It is started again: both clients are back by themselves, and\n"
            "   \"22.0 degrees\" arrives: the subscription was renewed.\n");

    libkyp_releaseInstance(domain);
    domain = libkyp_createInstance(nullptr, kDomain);
    if (domain == nullptr) fail_with_status("libkyp_createInstance");
    fprintf(g_story, "7. And how fast is it? 32 bytes out and back, again and again:\n\n");
    Row const rows[] = {measure("TCP", tcp), measure("Unix-domain", domain)};
    fprintf(g_story, "   transport     exchanges   median us   99th percentile us\n");
    for (Row const& row : rows) {
        fprintf(g_story, "   %-12s %10d %11.1f %20.1f\n", row.transport, row.exchanges, row.median,
                row.p99);
    }
    libkyp_releaseInstance(tcp);
    libkyp_releaseInstance(domain);
    libkyp_destory();
}

}  // namespace

int main(int argc, char** argv) {
    bool const verbose = argc == 3 && strcmp(argv[2], "--verbose") == 0;
    if (argc < 2 || (argc > 2 && !verbose)) {
        fprintf(stderr, "usage: kyp_demo KYPSERVER [--verbose]\n");
        return 2;
    }
    g_story = fdopen(dup(STDOUT_FILENO), "w");
    if (g_story == nullptr) return 1;
    setvbuf(g_story, nullptr, _IOLBF, 0);
    // The log's lines stand between those of the story also when they go into a pipe or file.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!verbose && freopen("/dev/null", "w", stdout) == nullptr) return 1;
    tell(argv[1]);
    return 0;
}
