// First act: a client works with a kypserver that is restarted on the way.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "Acts.h"
#include "Story.h"
#include "libkyp/libkyp.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned short kEcho = 100;
constexpr int kTcp = 0;
constexpr int kDomain = 2;
constexpr char const* kTopic = "line1/temperature";

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

// Returns the time that one exchange took, in microseconds.
double exchange(void* handle, std::vector<char> const& request, std::vector<char>& answer) {
    auto const begin = Clock::now();
    int const received =
        ask(handle, kEcho, request.data(), request.size(), answer.data(), answer.size());
    std::chrono::duration<double, std::micro> const time = Clock::now() - begin;
    if (received < 0) fail_with_status("a request to the echo port");
    if (received != static_cast<int>(request.size()) ||
        !std::equal(request.begin(), request.end(), answer.begin())) {
        fail("the echo differs from its request");
    }
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
        say("   %-12s %8zu bytes out and back, identical  %10.1f us\n", transport, size, us);
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

}  // namespace

void show_main_road(Cast const& cast) {
    say("1. A kypserver starts: TCP 9999, /var/tmp/kyp/kypserver, UDP 38898.\n");
    name_this_device("10.20.30.40.1.1");
    Program server({cast.kypserver});
    server.wait_for("ready");
    libkyp_init();

    _KypDeviceId id;
    if (libkyp_getRemoteKypDeviceId("127.0.0.1", kDemoTimeoutMs, &id) != 0) {
        fail_with_status("libkyp_getRemoteKypDeviceId");
    }
    say("2. Asked over UDP who it is, it says: device %s.\n", text_of(id).c_str());

    void* const tcp = libkyp_createInstanceEx(&id, kTcp, kDemoTimeoutMs, on_connection, nullptr);
    void* domain = libkyp_createInstance(nullptr, kDomain);
    if (tcp == nullptr || domain == nullptr) fail_with_status("libkyp_createInstance");
    g_events.expect("connect Success");
    say("3. Connected to device %s by TCP, and to the local socket.\n", text_of(id).c_str());

    say("4. Requests to the echo port:\n");
    show_exchanges("TCP", tcp);
    show_exchanges("Unix-domain", domain);

    if (libkyp_subscribe(tcp, kTopic, on_topic, nullptr) != 0) fail_with_status("libkyp_subscribe");
    wait_for_answer(tcp);
    publish(domain, kTopic, "21.5 degrees");
    g_topics.expect("21.5 degrees");
    say("5. The TCP client subscribes to \"%s\"; the local one publishes\n"
        "   \"21.5 degrees\" and the TCP client has it.\n",
        kTopic);

    server.stop();
    g_events.expect("connection disconnect");
    say("6. The server is stopped: the TCP client hears \"connection disconnect\".\n");
    server.start();
    server.wait_for("ready");
    g_events.expect("connect Success");
    wait_for_answer(tcp);
    publish(domain, kTopic, "22.0 degrees");
    g_topics.expect("22.0 degrees");
    say("   It is started again: both clients are back by themselves, and\n"
        "   \"22.0 degrees\" arrives: the subscription was renewed.\n");

    libkyp_releaseInstance(domain);
    domain = libkyp_createInstance(nullptr, kDomain);
    if (domain == nullptr) fail_with_status("libkyp_createInstance");
    say("7. And how fast is it? 32 bytes out and back, again and again:\n\n");
    Row const rows[] = {measure("TCP", tcp), measure("Unix-domain", domain)};
    say("   transport     exchanges   median us   99th percentile us\n");
    for (Row const& row : rows) {
        say("   %-12s %10d %11.1f %20.1f\n", row.transport, row.exchanges, row.median, row.p99);
    }
    libkyp_releaseInstance(tcp);
    libkyp_releaseInstance(domain);
    libkyp_destory();
}
