// Second act: a component serves clients through the server, and outlives it.
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "Acts.h"
#include "Story.h"
#include "libkyp/libkyp.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned short kAtOnce = 600;
constexpr unsigned short kLater = 601;
constexpr int kTcp = 0;
constexpr int kDomain = 2;
constexpr char const* kSet = "example/set";
constexpr char const* kValue = "example/value";

Mailbox g_links;
Mailbox g_values;

// Runs on the receive thread; the call clears that thread's status, which a lost link leaves
// behind.
void on_link(_KypDeviceId*, void*, int event) {
    int version[3];
    libkyp_version(&version[0], &version[1], &version[2]);
    g_links.put(libkyp_strerror(event));
}

void on_value(unsigned int, unsigned int, char const*, char const* data, unsigned int size, void*) {
    g_values.put(std::string(data, size));
}

struct Answer {
    std::string text;  // of the status, where there is no answer
    double ms = 0;
};

Answer call(void* handle, unsigned short port, std::string const& request) {
    char data[256];
    auto const begin = Clock::now();
    int const size = ask(handle, port, request.data(), request.size(), data, sizeof data);
    std::chrono::duration<double, std::milli> const time = Clock::now() - begin;
    if (size < 0) return {libkyp_strerror(libkyp_get_errno()), time.count()};
    return {std::string(data, static_cast<std::size_t>(size)), time.count()};
}

// Both clients at the same moment, so that the late answer and the early one pass each other.
void call_both_ports(void* tcp, void* domain) {
    Answer slow;
    std::thread other([&] { slow = call(tcp, kLater, "how much?"); });
    Answer const fast = call(domain, kAtOnce, "hello");
    other.join();
    if (fast.text != "hello" || slow.text != "later") fail("a call through the server");
    say("   Unix-domain client, port %d: \"%s\"  %8.1f ms\n", kAtOnce, fast.text.c_str(), fast.ms);
    say("   TCP client,         port %d: \"%s\"  %8.1f ms\n", kLater, slow.text.c_str(), slow.ms);
}

// Asks until the component is registered again: it looks for its server every three seconds.
void wait_until_served(void* handle) {
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (call(handle, kAtOnce, "there?").text == "there?") return;
        usleep(50000);
    }
    fail("the component has not come back");
}

// A subscription is renewed behind the ports, so the first message may come too early.
void set_and_expect(void* handle, std::string const& value) {
    for (int attempt = 0; attempt < 200; ++attempt) {
        publish(handle, kSet, value);
        if (g_values.got(value, std::chrono::milliseconds(50))) return;
    }
    fail("the component has not published \"" + value + "\"");
}

void* connect_locally() {
    void* const handle = libkyp_createInstance(nullptr, kDomain);
    if (handle == nullptr) fail_with_status("libkyp_createInstance");
    return handle;
}

void show_a_second_of_its_name(Cast const& cast) {
    Program second({cast.component});
    int const code = second.wait();
    std::size_t const at = second.output().find("refused: ");
    if (code != 1 || at == std::string::npos)
        fail("a second component of that name is not refused");
    std::string const said = second.output().substr(at, second.output().find('\n', at) - at);
    say("5. A second component with the same name starts, and ends with\n   \"%s\".\n",
        said.c_str());
}

}  // namespace

void show_components(Cast const& cast) {
    Program server({cast.kypserver});
    server.wait_for("ready");
    Program component({cast.component});
    component.wait_for("example serves");
    say("1. kypserver runs, and a component registers with it as \"example\". It serves the\n"
        "   logical ports %d and %d and the topic %s.\n",
        kAtOnce, kLater, kSet);

    _KypDeviceId id;
    libkyp_init();
    if (libkyp_getRemoteKypDeviceId("127.0.0.1", kDemoTimeoutMs, &id) != 0) {
        fail_with_status("libkyp_getRemoteKypDeviceId");
    }
    void* const tcp = libkyp_createInstanceEx(&id, kTcp, kDemoTimeoutMs, on_link, nullptr);
    if (tcp == nullptr) fail_with_status("libkyp_createInstanceEx");
    void* domain = connect_locally();
    g_links.expect("connect Success");
    wait_until_served(domain);
    say("2. Two clients call it through the server at the same time. One port answers at\n"
        "   once, the other when a thread of the component has its result:\n");
    call_both_ports(tcp, domain);

    if (libkyp_subscribe(tcp, kValue, on_value, nullptr) != 0) fail_with_status("libkyp_subscribe");
    wait_for_answer(tcp);
    set_and_expect(domain, "21.5");
    say("3. The local client publishes \"21.5\" on %s; the component hears it and\n"
        "   publishes it on %s, where the TCP client has it.\n",
        kSet, kValue);

    server.crash();
    g_links.expect("connection disconnect");
    server.start();
    server.wait_for("ready");
    g_links.expect("connect Success");
    libkyp_releaseInstance(domain);
    domain = connect_locally();
    wait_until_served(domain);
    say("4. The server is killed and started again. The component finds it and registers its\n"
        "   name, its ports and its topic by itself; the clients call on:\n");
    call_both_ports(tcp, domain);
    set_and_expect(domain, "22.0");
    say("   \"22.0\" makes its way from topic to topic, too.\n");

    show_a_second_of_its_name(cast);
    if (call(domain, kAtOnce, "hello").text != "hello") fail("the first component is disturbed");
    say("   The first one goes on serving.\n");
    libkyp_releaseInstance(tcp);
    libkyp_releaseInstance(domain);
}
