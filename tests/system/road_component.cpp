// A component of the library as a program of its own: road_component NAME PORT [STORE]
//
// PORT      answers at once with the request's payload
// PORT + 1  the same, later and from a thread of its own
// PORT + 2  "hold" stops that thread before its next answer, "go" lets it go on
// PORT + 3  publishes as many messages as the group says, on NAME/0, NAME/1 and NAME/2 in turn,
// each
//           with its number as group and text; with a payload all of them go to that topic
//
// The offset of a request to the first two is the error word of the answer. Its group, when it is
// not 0, is written into the file STORE before the answer leaves.
//
// What comes on "to-NAME" is published on "from-NAME". Prints "ready: CODE" when it is started,
// with what the registration gave, "refused: CODE" when it is no component, "came" and "left" for
// each client. Ends with a signal.
#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libkyp/libkypCmp.h"

namespace {

struct Waiting {
    unsigned short port;
    std::vector<char> data;
    _msg_request request;
};

std::string g_name;
void* g_component = nullptr;
int g_store = -1;
std::mutex g_mutex;  // guards the two below, and spans an answer: none leaves behind left()
std::deque<Waiting> g_waiting;
bool g_isHeld = false;
std::condition_variable g_changed;

void answer(unsigned short port, char const* data, unsigned int size, _msg_request request) {
    if (request.indexGroup != 0 && g_store != -1) {
        std::string const line = std::to_string(request.indexGroup) + "\n";
        if (write(g_store, line.data(), line.size()) != static_cast<ssize_t>(line.size())) abort();
    }
    request.error = request.indexOffset;
    int err = 0;
    libkypcmp_send(port, data, size, request, nullptr, &err);
}

void on_now(unsigned short port, char const* data, unsigned int size, _msg_request request, void*) {
    answer(port, data, size, request);
}

void on_later(unsigned short port, char const* data, unsigned int size, _msg_request request,
              void*) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_waiting.push_back({port, std::vector<char>(data, data + size), request});
    g_changed.notify_one();
}

[[noreturn]] void answer_what_waits() {
    std::unique_lock<std::mutex> lock(g_mutex);
    for (;;) {
        g_changed.wait(lock, [] { return !g_isHeld && !g_waiting.empty(); });
        Waiting const& next = g_waiting.front();
        answer(next.port, next.data.data(), static_cast<unsigned int>(next.data.size()),
               next.request);
        g_waiting.pop_front();
    }
}

void on_gate(unsigned short port, char const* data, unsigned int size, _msg_request request,
             void*) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_isHeld = std::string(data, size) == "hold";
        g_changed.notify_one();
    }
    request.indexGroup = 0;
    answer(port, nullptr, 0, request);
}

void on_publish(unsigned short port, char const* data, unsigned int size, _msg_request request,
                void*) {
    for (unsigned int i = 0; i < request.indexGroup; ++i) {
        std::string const topic =
            size > 0 ? std::string(data, size) : g_name + "/" + std::to_string(i % 3);
        std::string const number = std::to_string(i);
        libkypcmp_publish(g_component, i, 0, topic.c_str(), number.data(),
                          static_cast<unsigned int>(number.size()));
    }
    request.indexGroup = 0;
    answer(port, nullptr, 0, request);
}

void on_message(unsigned int group, unsigned int offset, char const* /*topic*/, char const* data,
                unsigned int size, void*) {
    libkypcmp_publish(g_component, group, offset, ("from-" + g_name).c_str(), data, size);
}

void came(VirtualConn*, void*) {
    puts("came");
}

// An answer would reach whoever has the client's place next.
void left(VirtualConn* conn, void*) {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::deque<Waiting> others;
    for (Waiting& each : g_waiting) {
        if (static_cast<void*>(each.request.conn) != conn) others.push_back(std::move(each));
    }
    g_waiting = std::move(others);
    puts("left");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    g_name = argv[1];
    unsigned int const port = static_cast<unsigned int>(atoi(argv[2]));
    if (argc > 3) g_store = open(argv[3], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    tagCmpDrvInfo info = {};
    g_name.copy(info.name, sizeof info.name - 1);
    int err = 0;
    libkypcmp_init();
    g_component = libkypcmp_register(&info, nullptr, nullptr, &err);
    if (g_component == nullptr) {
        printf("refused: 0x%x\n", static_cast<unsigned int>(err));
        return 1;
    }
    CmpConnConfig* const config = libkypcmp_getconfig(g_component);
    config->onConnect = came;
    config->onDisconnect = left;
    libkypcmp_addrouter(g_component, port, on_now, nullptr);
    libkypcmp_addrouter(g_component, port + 1, on_later, nullptr);
    libkypcmp_addrouter(g_component, port + 2, on_gate, nullptr);
    libkypcmp_addrouter(g_component, port + 3, on_publish, nullptr);
    libkypcmp_subscribe(g_component, ("to-" + g_name).c_str(), on_message, nullptr);
    std::thread(answer_what_waits).detach();
    libkypcmp_loop_start(g_component);
    printf("ready: 0x%x\n", static_cast<unsigned int>(err));
    for (;;) pause();
}
