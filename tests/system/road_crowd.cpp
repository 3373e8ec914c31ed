// Many clients of the library in a program of their own: road_crowd PORT COUNT
//
// All of them call PORT, then all call PORT + 1, and so on for ever; several are under way at any
// moment. Each round prints "served N", with the number of those that got their own payload back.
// Ends with a signal.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "libkyp/libkyp.h"

namespace {

constexpr size_t kThreads = 10;
constexpr int kTimeoutMs = 60000;
constexpr std::chrono::milliseconds kPause{20};  // leaves the machine to others, too

bool call(void* conn, unsigned short port, size_t number) {
    std::string payload = std::to_string(number);
    char room[64];
    unsigned short from = 0;
    // An answer that nobody fetches within a second is lost, and a machine under load holds a
    // thread up for longer, so a few attempts are made.
    for (int i = 0; i < 5; ++i) {
        if (libkyp_sync_send(conn, port, 0, 0, payload.data(),
                             static_cast<unsigned int>(payload.size()), kTimeoutMs) < 0) {
            return false;
        }
        int const n = libkyp_sync_recv(conn, &from, room, sizeof room, kTimeoutMs);
        if (n >= 0) return payload == std::string(room, static_cast<size_t>(n));
        if (libkyp_get_errno() != KYP_ERR_RECV_TIMEOUT) return false;
    }
    return false;
}

int call_with_all(std::vector<void*> const& clients, unsigned short port) {
    std::atomic<int> served{0};
    std::vector<std::thread> callers;
    for (size_t thread = 0; thread < kThreads; ++thread) {
        callers.emplace_back([&, thread] {
            for (size_t i = thread; i < clients.size(); i += kThreads) {
                if (call(clients[i], port, i)) ++served;
            }
        });
    }
    for (std::thread& each : callers) each.join();
    return served;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    auto const port = static_cast<unsigned short>(atoi(argv[1]));
    libkyp_init();
    std::vector<void*> clients;
    for (int i = atoi(argv[2]); i > 0; --i) {
        _KypDeviceId id = {{127, 0, 0, 1, 0, 0}};
        clients.push_back(libkyp_createInstance(&id, KYP_CONN_TCP));
    }
    for (unsigned int round = 0;; ++round) {
        int const served = call_with_all(clients, static_cast<unsigned short>(port + round % 2));
        printf("served %d\n", served);
        std::this_thread::sleep_for(kPause);
    }
}
