// A component of the library as a program of its own: echo_component NAME PORT... [later PORT...]
//
// Answers every request on its ports with the request's own payload, on those behind "later" from a
// thread of its own. What is published on "to-NAME" it publishes on "from-NAME". Says "component
// ready" when it is started, registered or not, and ends with a signal.
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libkyp/libkypCmp.h"

namespace {

struct Later {
    unsigned short port;
    std::vector<char> data;
    _msg_request request;
};

std::mutex g_mutex;
std::condition_variable g_comes;
std::deque<Later> g_later;
void* g_component = nullptr;
std::string g_answerTopic;

void answer(unsigned short port, char const* data, unsigned int size, _msg_request request,
            void* /*user*/) {
    int err = 0;
    libkypcmp_send(port, data, size, request, nullptr, &err);
}

void answer_later(unsigned short port, char const* data, unsigned int size, _msg_request request,
                  void* /*user*/) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_later.push_back({port, std::vector<char>(data, data + size), request});
    g_comes.notify_one();
}

[[noreturn]] void answer_what_waits() {
    for (;;) {
        std::unique_lock<std::mutex> lock(g_mutex);
        g_comes.wait(lock, [] { return !g_later.empty(); });
        Later const next = std::move(g_later.front());
        g_later.pop_front();
        lock.unlock();
        answer(next.port, next.data.data(), static_cast<unsigned int>(next.data.size()),
               next.request, nullptr);
    }
}

void publish_back(unsigned int group, unsigned int offset, char const* /*topic*/, char const* data,
                  unsigned int size, void* /*user*/) {
    libkypcmp_publish(g_component, group, offset, g_answerTopic.c_str(), data, size);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string const name = argv[1];
    g_answerTopic = "from-" + name;
    tagCmpDrvInfo info = {};
    name.copy(info.name, sizeof info.name - 1);
    int err = 0;
    libkypcmp_init();
    g_component = libkypcmp_register(&info, nullptr, nullptr, &err);
    if (g_component == nullptr) {
        printf("component refused: 0x%x\n", static_cast<unsigned int>(err));
        return 1;
    }
    bool later = false;
    for (int i = 2; i < argc; ++i) {
        if (strcmp(argv[i], "later") == 0) {
            later = true;
            continue;
        }
        libkypcmp_addrouter(g_component, static_cast<unsigned int>(atoi(argv[i])),
                            later ? answer_later : answer, nullptr);
    }
    libkypcmp_subscribe(g_component, ("to-" + name).c_str(), publish_back, nullptr);
    std::thread(answer_what_waits).detach();
    libkypcmp_loop_start(g_component);
    printf("component ready: 0x%x\n", static_cast<unsigned int>(err));
    for (;;) pause();
}
