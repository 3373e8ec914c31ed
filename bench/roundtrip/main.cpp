// Measures one exchange over TCP and over a Unix-domain stream: the library against the plain
// ping-pong and against a bare program of the same calls, all in one run, turn and turn about.
// Run it through run.sh, which builds optimised and gives it private namespaces.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "common/Counting.h"
#include "common/Exchanges.h"
#include "common/Machine.h"
#include "roundtrip/Contestant.h"

namespace {

constexpr int kRounds = 20;
constexpr int kThroughputRounds = 5;

FILE* g_out;  // where the tables go

struct Options {
    int exchanges = 20000;  // for each cell and contestant
    std::string server;
    std::string counting;  // the library to preload; empty: no counting
    std::string serve;     // body of a server process
    std::string only;      // a counting run over this transport
    std::string profile;   // nothing but this contestant's exchanges
};

using Contestants = std::vector<std::unique_ptr<Contestant>>;

Contestants start_all(Options const& options) {
    Contestants all;
    all.push_back(make_ping_pong());
    all.push_back(make_bare());
    all.push_back(make_library(options.server));
    for (auto& contestant : all) contestant->start();
    return all;
}

// Times that any thread of `process` has left its processor, of its own will or not.
long thread_switches(std::string const& process) {
    long sum = 0;
    for (auto const& task : std::filesystem::directory_iterator("/proc/" + process + "/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
            std::size_t const place = line.find("ctxt_switches:");
            if (place != std::string::npos) sum += std::stol(line.substr(line.find(':') + 1));
        }
    }
    return sum;
}

long thread_switches(Contestant const& contestant) {
    return thread_switches("self") + thread_switches(std::to_string(contestant.server()));
}

void measure_round_trips(Contestants& all, Transport transport, int exchanges) {
    for (std::size_t size : {32u, 1024u, 8192u}) {
        std::vector<char> const payload(size, 'k');
        Links links;
        std::vector<Samples> samples(all.size());
        std::vector<long> switches(all.size());
        for (auto& contestant : all) links.push_back(contestant->connect(transport));
        for (auto& link : links) {
            Samples warmUp;
            time_exchanges(*link, payload, exchanges / kRounds, warmUp);
        }
        for (int round = 0; round < kRounds; ++round) {
            for (std::size_t i = 0; i < all.size(); ++i) {
                switches[i] -= thread_switches(*all[i]);
                time_exchanges(*links[i], payload, exchanges / kRounds, samples[i]);
                switches[i] += thread_switches(*all[i]);
            }
        }
        int const counted = exchanges / kRounds * kRounds;
        double const floor = samples[0].percentile_us(0.5);
        double const bare = samples[1].percentile_us(0.5);
        for (std::size_t i = 0; i < all.size(); ++i) {
            double const median = samples[i].percentile_us(0.5);
            fprintf(g_out, "  %-7s %5zu B  %-10s %9.1f %9.1f %9.2f %9.2f %9.1f\n",
                    name_of(transport), size, all[i]->name(), median,
                    samples[i].percentile_us(0.99), median / floor, median / bare,
                    static_cast<double>(switches[i]) / counted);
        }
    }
}

void measure_throughput(Contestants& all, Transport transport, int exchanges) {
    std::vector<char> const payload(32, 'k');
    for (std::size_t connections : {1u, 8u, 64u}) {
        std::vector<Links> links(all.size());
        std::vector<std::vector<double>> rates(all.size());
        for (std::size_t i = 0; i < all.size(); ++i) {
            for (std::size_t c = 0; c < connections; ++c) {
                links[i].push_back(all[i]->connect(transport));
            }
            throughput(links[i], payload, exchanges / kThroughputRounds);
        }
        for (int round = 0; round < kThroughputRounds; ++round) {
            for (std::size_t i = 0; i < all.size(); ++i) {
                rates[i].push_back(throughput(links[i], payload, exchanges / kThroughputRounds));
            }
        }
        for (std::size_t i = 0; i < all.size(); ++i) {
            fprintf(g_out, "  %-7s %5zu    %-10s %9.0f %20.2f %9.2f\n", name_of(transport),
                    connections, all[i]->name(), median(rates[i]),
                    median(rates[i]) / median(rates[0]), median(rates[i]) / median(rates[1]));
        }
    }
}

void measure(Options const& options, int processors) {
    use_processors(processors);
    Contestants all = start_all(options);
    fprintf(
        g_out,
        "\nround trips, %d processor%s        median us    p99 us  / floor    / bare   switches\n",
        processors, processors == 1 ? " " : "s");
    for (Transport transport : {Transport::Tcp, Transport::Domain}) {
        measure_round_trips(all, transport, options.exchanges);
    }
    fprintf(g_out, "\nconnections, %d processor%s    requests / s             / floor    / bare\n",
            processors, processors == 1 ? " " : "s");
    for (Transport transport : {Transport::Tcp, Transport::Domain}) {
        measure_throughput(all, transport, options.exchanges);
    }
}

// Something for a profiler to look at: 32 bytes by TCP on one processor, one contestant alone.
int run_alone(Options const& options) {
    use_processors(1);
    auto const contestant = options.profile == "bare" ? make_bare() : make_library(options.server);
    contestant->start();
    auto const link = contestant->connect(Transport::Tcp);
    std::vector<char> const payload(32, 'k');
    Samples samples;
    time_exchanges(*link, payload, options.exchanges, samples);
    fprintf(g_out, "%s: median %.2f us\n", contestant->name(), samples.percentile_us(0.5));
    return 0;
}

// The body of a counting run: this process has the counting library in front of the C library.
void count_exchanges(Options const& options) {
    Transport const transport = options.only == "tcp" ? Transport::Tcp : Transport::Domain;
    Counting const counting;
    auto const library = make_library(options.server);
    library->start();
    auto const link = library->connect(transport);
    for (std::size_t size : {32u, 1024u, 8192u}) {
        std::vector<char> const payload(size, 'k');
        for (int i = 0; i < 2000; ++i) link->exchange(payload);
        Counting::Reading const before = counting.read_all();
        for (int i = 0; i < 2000; ++i) link->exchange(payload);
        Counting::Reading const after = counting.read_all();
        fprintf(g_out, "  %-7s %5zu B %26.2f %26.2f\n", options.only.c_str(), size,
                static_cast<double>(after.allocations - before.allocations) / 2000,
                static_cast<double>(after.inputOutput - before.inputOutput) / 2000);
    }
    fflush(g_out);
}

void start_counting(Options const& options) {
    fprintf(g_out, "\none exchange, both processes   heap allocations   input and output calls\n");
    for (char const* transport : {"tcp", "domain"}) {
        run_counted(options.counting,
                    {"/proc/self/exe", "--server", options.server, "--count-over", transport},
                    g_out);
    }
}

int run(int argc, char** argv) {
    Options options;
    int out = -1;
    CLI::App app("Round trips of the library against a plain ping-pong and a bare program.");
    app.add_option("--exchanges", options.exchanges, "exchanges for each cell of the table")
        ->check(CLI::Range(kRounds, 10000000))
        ->capture_default_str();
    app.add_option("--server", options.server, "the kypserver program");
    app.add_option("--counting", options.counting, "the counting library; without it, no counts");
    app.add_option("--profile", options.profile, "run one contestant alone, for a profiler")
        ->check(CLI::IsMember({"bare", "libkyp"}));
    app.add_option("--serve", options.serve)->group("");
    app.add_option("--count-over", options.only)->group("");
    app.add_option("--out", out)->group("");
    CLI11_PARSE(app, argc, argv);

    if (options.serve == "ping-pong") return serve_ping_pong();
    if (options.serve == "bare") return serve_bare();

    g_out = take_output(out);
    if (!options.profile.empty()) return run_alone(options);
    if (!options.only.empty()) {
        count_exchanges(options);
        return 0;
    }
    print_machine(g_out);
    measure(options, 1);
    if (std::thread::hardware_concurrency() > 1) measure(options, 2);
    if (!options.counting.empty()) start_counting(options);
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
