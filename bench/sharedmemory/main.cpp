// Measures the road of another virtual machine's request: through the transport's stand-in to a
// component and back, against an echo on the bare transport, in one run, turn and turn about.
// Run it through run.sh, which builds optimised and gives it private namespaces.
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "common/Counters.h"
#include "common/Exchanges.h"
#include "common/Machine.h"
#include "common/Sockets.h"
#include "ivshmAPI.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/ivshm/ShmHeader.h"
#include "libkyp/libkypCmp.h"

namespace {

constexpr int kRounds = 20;
constexpr int kComponentGroup = 0;
constexpr int kBareGroup = 1;
constexpr long kTimeoutMs = 5000;
constexpr size_t kRoom = 64 << 10;
constexpr size_t kSizes[] = {32, 1024, 8192};

struct Options {
    int exchanges = 20000;  // for each cell
    std::string counting;   // the library to preload; empty: no counting
    std::string serve;      // body of a server process
};

struct __attribute__((packed)) Heads {
    ShmHeader shm;
    _KypHeader kyp;
    _AoEHeader aoe;
    AoERequestHeader address;
};

// The clients' side of a group.
class Machine {
public:
    explicit Machine(int group)
        : m_read(libivshmapi_init(2 * group, 1)),
          m_write(libivshmapi_init(2 * group + 1, 1)),
          m_buffer(kRoom) {
        if (m_read == nullptr || m_write == nullptr) fail("topics");
    }
    ~Machine() {
        libivshmapi_uninit(m_read);
        libivshmapi_uninit(m_write);
    }
    Machine(Machine const&) = delete;
    Machine& operator=(Machine const&) = delete;

    void send(std::vector<char>& message, uint32_t client = 1) {
        reinterpret_cast<Heads*>(message.data())->shm.clientId = client;
        if (!libivshmapi_send(m_write, message.size(), message.data(), kTimeoutMs)) fail("send");
    }

    // Returns the client that is answered.
    uint32_t receive() {
        unsigned long size = m_buffer.size();
        if (!libivshmapi_recv(m_read, &size, m_buffer.data(), kTimeoutMs)) fail("no answer");
        ShmHeader head;
        memcpy(&head, m_buffer.data(), sizeof head);
        return head.clientId;
    }

    void exchange(std::vector<char>& message) {
        send(message);
        receive();
    }

private:
    void* m_read;
    void* m_write;
    std::vector<char> m_buffer;
};

// A request to the echo port with `size` bytes of payload.
std::vector<char> request_of(size_t size) {
    auto const frame = static_cast<uint32_t>(sizeof(Heads) - sizeof(ShmHeader) + size);
    Heads const heads{
        {kShmMagic, kShmType, 0, kShmVersion, 0, 1, static_cast<uint32_t>(getpid()), frame},
        {0, kKypVersion, kPortEcho, frame - static_cast<uint32_t>(sizeof(_KypHeader))},
        {0, utils_htonl(1), utils_htons(KYP_CMD_READ_WRITE), 0, KYP_STATE_REQUEST},
        {0, 0}};
    std::vector<char> message(sizeof heads + size, 'k');
    memcpy(message.data(), &heads, sizeof heads);
    return message;
}

// ---- the two servers

// Sends every message back as it came.
int serve_bare_transport() {
    void* const read = libivshmapi_init(2 * kBareGroup + 1, 0);
    void* const write = libivshmapi_init(2 * kBareGroup, 0);
    std::vector<char> buffer(kRoom);
    for (;;) {
        unsigned long size = buffer.size();
        if (!libivshmapi_recv(read, &size, buffer.data(), kTimeoutMs)) continue;
        libivshmapi_send(write, size, buffer.data(), kTimeoutMs);
    }
}

// A component without a server: its start-up brings the echo port.
int serve_component() {
    tagCmpDrvInfo info = {0, 0, "bench"};
    int err = 0;
    libkypcmp_init();
    if (libkypcmp_register(&info, nullptr, nullptr, &err) == nullptr) fail("libkypcmp_register");
    for (;;) pause();
}

void write_settings() {
    std::ofstream("/opt/kyp/libkyp.ini")
        << "[bench]\nivshm_enable=true\nivshm_group=" << kComponentGroup << "\n";
}

pid_t start(char const* name) {
    return spawn({"/proc/self/exe", "--serve", name});
}

// ---- measuring

struct Road {
    char const* name;
    Machine& machine;
};

void measure_round_trips(std::vector<Road>& roads, int exchanges) {
    for (size_t const size : kSizes) {
        std::vector<char> message = request_of(size);
        std::vector<Samples> samples(roads.size());
        for (Road& road : roads) {
            for (int i = 0; i < exchanges / kRounds; ++i) road.machine.exchange(message);
        }
        for (int round = 0; round < kRounds; ++round) {
            for (size_t i = 0; i < roads.size(); ++i) {
                for (int n = 0; n < exchanges / kRounds; ++n) {
                    auto const begin = Clock::now();
                    roads[i].machine.exchange(message);
                    samples[i].add((Clock::now() - begin).count());
                }
            }
        }
        double const floor = samples[0].percentile_us(0.5);
        for (size_t i = 0; i < roads.size(); ++i) {
            double const median = samples[i].percentile_us(0.5);
            printf("  %5zu B  %-14s %9.1f %9.1f %9.2f\n", size, roads[i].name, median,
                   samples[i].percentile_us(0.99), median / floor);
        }
    }
}

// Requests per second with one under way for each of `clients`.
double throughput(Machine& machine, std::vector<char>& message, uint32_t clients, int exchanges) {
    auto const begin = Clock::now();
    for (uint32_t client = 1; client <= clients; ++client) machine.send(message, client);
    for (int left = exchanges - static_cast<int>(clients); left > 0; --left) {
        machine.send(message, machine.receive());
    }
    for (uint32_t client = 1; client <= clients; ++client) machine.receive();
    std::chrono::duration<double> const seconds = Clock::now() - begin;
    return exchanges / seconds.count();
}

void measure_throughput(std::vector<Road>& roads, int exchanges) {
    std::vector<char> message = request_of(32);
    for (uint32_t const clients : {1u, 8u, 32u}) {
        double floor = 0;
        for (Road& road : roads) {
            std::vector<double> rates;
            for (int round = 0; round < 5; ++round) {
                rates.push_back(throughput(road.machine, message, clients, exchanges / 5));
            }
            std::sort(rates.begin(), rates.end());
            if (floor == 0) floor = rates[2];
            printf("  %5u    %-14s %9.0f %19.2f\n", clients, road.name, rates[2], rates[2] / floor);
        }
    }
}

void measure(int processors, int exchanges) {
    use_processors(processors);
    Machine bare(kBareGroup);
    Machine component(kComponentGroup);
    pid_t const servers[] = {start("bare"), start("component")};
    std::vector<Road> roads = {{"bare transport", bare}, {"component", component}};
    printf("\nround trips, %d processor%s       median us    p99 us   / bare\n", processors,
           processors == 1 ? " " : "s");
    measure_round_trips(roads, exchanges);
    printf("\nclients, %d processor%s        requests / s              / bare\n", processors,
           processors == 1 ? " " : "s");
    measure_throughput(roads, exchanges);
    for (pid_t const server : servers) end(server);
}

// Heap allocations of the component for one exchange.
void count_allocations(std::string const& library) {
    int const page = memfd_create("counters", 0);
    if (page < 0 || ftruncate(page, sizeof(CountersPage)) != 0) fail("memfd_create");
    auto* const counters = static_cast<CountersPage*>(
        mmap(nullptr, sizeof(CountersPage), PROT_READ | PROT_WRITE, MAP_SHARED, page, 0));
    setenv(kCountersVariable, std::to_string(page).c_str(), 1);
    setenv("LD_PRELOAD", library.c_str(), 1);
    pid_t const server = start("component");
    unsetenv("LD_PRELOAD");

    Machine machine(kComponentGroup);
    printf("\none exchange, the component   heap allocations\n");
    for (size_t const size : kSizes) {
        std::vector<char> message = request_of(size);
        for (int i = 0; i < 2000; ++i) machine.exchange(message);
        uint64_t const before = counters->front().allocations;
        for (int i = 0; i < 2000; ++i) machine.exchange(message);
        printf("  %5zu B %20.2f\n", size,
               static_cast<double>(counters->front().allocations - before) / 2000);
    }
    end(server);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Round trips of another virtual machine through shared memory to a component.");
    app.add_option("--exchanges", options.exchanges, "exchanges for each cell of the table")
        ->check(CLI::Range(200, 10000000))
        ->capture_default_str();
    app.add_option("--counting", options.counting, "the counting library; without it, no counts");
    app.add_option("--serve", options.serve)->group("");
    CLI11_PARSE(app, argc, argv);

    // The servers' lines go nowhere.
    if (!options.serve.empty() && (freopen("/dev/null", "w", stdout) == nullptr ||
                                   freopen("/dev/null", "w", stderr) == nullptr)) {
        return 1;
    }
    if (options.serve == "bare") return serve_bare_transport();
    if (options.serve == "component") return serve_component();

    print_machine(stdout);
    write_settings();
    measure(1, options.exchanges);
    if (std::thread::hardware_concurrency() > 1) measure(2, options.exchanges);
    if (!options.counting.empty()) count_allocations(options.counting);
    return 0;
}
