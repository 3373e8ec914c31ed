// A client of the library as a program of its own: road_client PORT FIRST
//
// Calls ports PORT and PORT + 1 of a component in turn, over TCP and over the Unix-domain socket at
// once, and publishes on "to-motor" what it hears again on "from-motor". Every call has a number of
// its own, from FIRST on, as its group. Never ends by itself. Prints a line for each call:
//
//     ack ROAD NUMBER    answered, with the payload of the request
//     wrong ROAD NUMBER  answered with anything else
//     fail ROAD STATUS   not answered, or with a code
//     late ROAD NUMBER   either of them far behind the timeout
//
// ROAD is tcp-now, tcp-later, unix-now, unix-later, or topic for a message that has come back.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "libkyp/libkyp.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kTimeoutMs = 1000;
constexpr milliseconds kFarBehind{30000};
constexpr milliseconds kPause{5};  // keeps the output of a test short

// What a client may have for a payload; the last is larger than any block that lies about by
// chance.
constexpr size_t kSizes[] = {0, 100, 5000, 300000};

std::atomic<unsigned int> g_next;

// The receive thread keeps the status of a link that was lost and closes the next one for it. Any
// call clears it.
void forget_status() {
    int ignored = 0;
    libkyp_version(&ignored, &ignored, &ignored);
}

void on_event(_KypDeviceId*, void*, int) {
    forget_status();
}

void on_message(unsigned int group, unsigned int, char const*, char const*, unsigned int, void*) {
    forget_status();
    printf("ack topic %u\n", group);
}

void* connect(int type) {
    _KypDeviceId id = {{127, 0, 0, 1, 0, 0}};
    void* const conn = libkyp_createInstanceEx(&id, type, kTimeoutMs, on_event, nullptr);
    libkyp_reconnect_delay_set(conn, 0);
    return conn;
}

// Whether the peer has said so: the link is as good as before.
bool is_code_of_a_peer(int status) {
    return status == KYP_ERR_ROUTE_NOT_REGISTERED || status == KYP_ERR_COMPONENT_OFFLINE;
}

// 0 or a status.
int call(void* conn, std::string const& road, unsigned short port) {
    static thread_local std::vector<char> room(400000);
    unsigned int const number = g_next++;
    std::string payload = std::to_string(number) + " ";
    payload.resize(payload.size() + kSizes[number / 4 % 4], 'x');
    auto const start = Clock::now();
    unsigned short from = 0;
    int n = -1;
    if (libkyp_sync_send(conn, port, number, 0, payload.data(),
                         static_cast<unsigned int>(payload.size()), kTimeoutMs) >= 0) {
        n = libkyp_sync_recv(conn, &from, room.data(), static_cast<int>(room.size()), kTimeoutMs);
    }
    int const status = libkyp_get_errno();
    if (Clock::now() - start > kFarBehind) printf("late %s %u\n", road.c_str(), number);
    if (n < 0) {
        printf("fail %s 0x%x\n", road.c_str(), static_cast<unsigned int>(status));
        return status != KYP_OK ? status : KYP_ERR_SEND;
    }
    bool const isRight = payload == std::string(room.data(), static_cast<size_t>(n));
    printf("%s %s %u\n", isRight ? "ack" : "wrong", road.c_str(), number);
    return KYP_OK;
}

[[noreturn]] void live_on_tcp(unsigned short port) {
    void* const conn = connect(KYP_CONN_TCP);
    libkyp_subscribe(conn, "from-motor", on_message, nullptr);
    for (;;) {
        call(conn, "tcp-now", port);
        call(conn, "tcp-later", static_cast<unsigned short>(port + 1));
        libkyp_publish(conn, g_next++, 0, "to-motor", "", 0);
        std::this_thread::sleep_for(kPause);
    }
}

// A Unix-domain connection has no place where the status could be cleared, so a lost one is
// replaced.
[[noreturn]] void live_on_unix(unsigned short port) {
    void* conn = connect(KYP_CONN_DOMAIN);
    for (unsigned int i = 0;; ++i) {
        int const status = i % 2 == 0
                               ? call(conn, "unix-now", port)
                               : call(conn, "unix-later", static_cast<unsigned short>(port + 1));
        std::this_thread::sleep_for(kPause);
        if (status == KYP_OK || is_code_of_a_peer(status)) continue;
        libkyp_releaseInstance(conn);
        conn = connect(KYP_CONN_DOMAIN);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    auto const port = static_cast<unsigned short>(atoi(argv[1]));
    g_next = static_cast<unsigned int>(strtoul(argv[2], nullptr, 10));
    libkyp_init();
    std::thread tcp(live_on_tcp, port);
    live_on_unix(port);
}
