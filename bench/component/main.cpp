// Measures one exchange through a component (client, kypserver, component and back) over TCP and
// over a Unix-domain stream, beside the direct road to the server's own echo: both ask the same
// server in one run, turn and turn about, so the table says what the second hop costs.
// Run it through run.sh, which builds optimised and gives it private namespaces.
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>

#include "common/Counting.h"
#include "common/Exchanges.h"
#include "common/KypServer.h"
#include "common/LibraryLink.h"
#include "common/Machine.h"
#include "component/EchoComponent.h"

namespace {

constexpr int kRounds = 20;
constexpr int kThroughputRounds = 5;
constexpr int kCounted = 2000;

FILE* g_out;  // where the tables go

struct Options {
    int exchanges = 20000;  // for each cell and road
    int seconds = 20;       // at most for each cell
    std::string server;
    std::string counting;  // the library to preload; empty: no counting
    int serve = -1;        // body of the component's process; where it says that it is ready
    bool count = false;    // body of a counting run
    std::string profile;   // nothing but this road's exchanges
};

struct Road {
    char const* name;
    unsigned short port;
};
constexpr std::array<Road, 2> kRoads = {{{"direct", kEchoPort}, {"component", kComponentPort}}};
constexpr std::array<Transport, 2> kTransports = {Transport::Tcp, Transport::Domain};

// The server with a component behind it, each a process.
class Processes {
public:
    explicit Processes(std::string const& server) {
        Counting::next_child_counts_at(1);
        m_server.emplace(server);
        Counting::next_child_counts_at(2);
        m_component = start_echo_component();
    }
    ~Processes() { end(m_component); }
    Processes(Processes const&) = delete;
    Processes& operator=(Processes const&) = delete;

private:
    std::optional<KypServer> m_server;
    pid_t m_component = 0;
};

bool is_over(Clock::time_point begin, Options const& options) {
    return Clock::now() - begin > std::chrono::seconds(options.seconds);
}

void measure_round_trips(Transport transport, Options const& options) {
    for (std::size_t size : {32u, 1024u, 8192u}) {
        std::vector<char> const payload(size, 'k');
        std::array<std::unique_ptr<Link>, kRoads.size()> links;
        std::array<Samples, kRoads.size()> samples;
        for (std::size_t i = 0; i < kRoads.size(); ++i) {
            links[i] = make_library_link(transport, kRoads[i].port);
            Samples warmUp;
            time_exchanges(*links[i], payload, options.exchanges / kRounds, warmUp);
        }
        auto const begin = Clock::now();
        for (int round = 0; round < kRounds && !is_over(begin, options); ++round) {
            for (std::size_t i = 0; i < kRoads.size(); ++i) {
                time_exchanges(*links[i], payload, options.exchanges / kRounds, samples[i]);
            }
        }
        double const direct = samples[0].percentile_us(0.5);
        for (std::size_t i = 0; i < kRoads.size(); ++i) {
            double const middle = samples[i].percentile_us(0.5);
            fprintf(g_out, "  %-7s %5zu B  %-10s %9.1f %9.1f %9.2f\n", name_of(transport), size,
                    kRoads[i].name, middle, samples[i].percentile_us(0.99), middle / direct);
        }
    }
}

void measure_throughput(Transport transport, Options const& options) {
    std::vector<char> const payload(32, 'k');
    int const each = options.exchanges / kThroughputRounds;
    for (std::size_t connections : {1u, 8u, 64u}) {
        std::array<Links, kRoads.size()> links;
        std::array<std::vector<double>, kRoads.size()> rates;
        for (std::size_t i = 0; i < kRoads.size(); ++i) {
            for (std::size_t c = 0; c < connections; ++c) {
                links[i].push_back(make_library_link(transport, kRoads[i].port));
            }
            throughput(links[i], payload, each);
        }
        auto const begin = Clock::now();
        for (int round = 0; round < kThroughputRounds && !is_over(begin, options); ++round) {
            for (std::size_t i = 0; i < kRoads.size(); ++i) {
                rates[i].push_back(throughput(links[i], payload, each));
            }
        }
        for (std::size_t i = 0; i < kRoads.size(); ++i) {
            fprintf(g_out, "  %-7s %5zu    %-10s %9.0f %19.2f\n", name_of(transport), connections,
                    kRoads[i].name, median(rates[i]), median(rates[i]) / median(rates[0]));
        }
    }
}

void measure(Options const& options, int processors) {
    use_processors(processors);
    Processes const processes(options.server);
    char const* const plural = processors == 1 ? " " : "s";
    fprintf(g_out, "\nround trips, %d processor%s        median us    p99 us  / direct\n",
            processors, plural);
    for (Transport transport : kTransports) measure_round_trips(transport, options);
    fprintf(g_out, "\nconnections, %d processor%s    requests / s            / direct\n",
            processors, plural);
    for (Transport transport : kTransports) measure_throughput(transport, options);
}

// Something for a profiler to look at: 32 bytes by TCP on one processor, one road alone.
int run_alone(Options const& options) {
    use_processors(1);
    Processes const processes(options.server);
    Road const& road = kRoads[options.profile == kRoads[0].name ? 0 : 1];
    auto const link = make_library_link(Transport::Tcp, road.port);
    std::vector<char> const payload(32, 'k');
    Samples samples;
    time_exchanges(*link, payload, options.exchanges, samples);
    fprintf(g_out, "%s: median %.2f us\n", road.name, samples.percentile_us(0.5));
    return 0;
}

void print_counts(std::array<Counting::Reading, kCountedProcesses> const& before,
                  Counting const& counting) {
    double calls = 0;
    for (int place = 0; place < kCountedProcesses; ++place) {
        Counting::Reading const now = counting.read(place);
        Counting::Reading const& then = before[static_cast<std::size_t>(place)];
        fprintf(g_out, " %9.2f",
                static_cast<double>(now.allocations - then.allocations) / kCounted);
        calls += static_cast<double>(now.inputOutput - then.inputOutput) / kCounted;
    }
    fprintf(g_out, " %9.2f\n", calls);
}

// The body of a counting run: the three processes have the counting library in front of the C
// library.
int count_exchanges(Options const& options) {
    Counting const counting;
    Processes const processes(options.server);
    for (Transport transport : kTransports) {
        for (Road const& road : kRoads) {
            auto const link = make_library_link(transport, road.port);
            for (std::size_t size : {32u, 1024u, 8192u}) {
                std::vector<char> const payload(size, 'k');
                for (int i = 0; i < kCounted; ++i) link->exchange(payload);
                std::array<Counting::Reading, kCountedProcesses> before;
                for (int place = 0; place < kCountedProcesses; ++place) {
                    before[static_cast<std::size_t>(place)] = counting.read(place);
                }
                for (int i = 0; i < kCounted; ++i) link->exchange(payload);
                fprintf(g_out, "  %-7s %5zu B  %-10s", name_of(transport), size, road.name);
                print_counts(before, counting);
            }
        }
    }
    fflush(g_out);
    return 0;
}

int run(int argc, char** argv) {
    Options options;
    int out = -1;
    CLI::App app("Exchanges through a component beside those with the server itself.");
    app.add_option("--exchanges", options.exchanges, "exchanges for each cell of the table")
        ->check(CLI::Range(kRounds, 10000000))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "at most, for each cell; fewer exchanges then")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--server", options.server, "the kypserver program");
    app.add_option("--counting", options.counting, "the counting library; without it, no counts");
    app.add_option("--profile", options.profile, "run one road alone, for a profiler")
        ->check(CLI::IsMember({"direct", "component"}));
    app.add_option("--serve", options.serve)->group("");
    app.add_flag("--count", options.count)->group("");
    app.add_option("--out", out)->group("");
    CLI11_PARSE(app, argc, argv);

    if (options.serve >= 0) return serve_echo_component(options.serve);

    g_out = take_output(out);
    if (!options.profile.empty()) return run_alone(options);
    if (options.count) return count_exchanges(options);
    print_machine(g_out);
    measure(options, 1);
    if (std::thread::hardware_concurrency() > 1) measure(options, 2);
    if (options.counting.empty()) return 0;
    fprintf(g_out,
            "\none exchange, heap allocations     client    server component; "
            "input and output calls of all\n");
    run_counted(options.counting, {"/proc/self/exe", "--server", options.server, "--count"}, g_out);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (std::exception const& error) {
        fprintf(stderr, "bench: %s\n", error.what());
        return 1;
    }
}
