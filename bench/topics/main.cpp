// Measures what one publisher's messages cost on their way to 1, 8 and 64 subscribers, over TCP and
// over Unix-domain streams: the library and `kypserver` beside a bare program of one write for each
// subscriber, in one run, turn and turn about.
// Run it through run.sh, which builds optimised and gives it private namespaces.
#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "common/Counting.h"
#include "common/Exchanges.h"
#include "common/Machine.h"
#include "topics/Deliveries.h"
#include "topics/FanOut.h"

namespace {

constexpr std::size_t kRounds = 10;
constexpr std::size_t kCounted = 2000;
constexpr uint64_t kWindow = 64;  // messages that the publisher is ahead of its subscribers

FILE* g_out;  // where the tables go

struct Options {
    std::size_t deliveries = 64000;  // for each cell and contestant
    std::size_t size = 32;           // bytes of a message
    int seconds = 20;                // at most for each cell
    std::string server;
    std::string counting;  // the library to preload; empty: no counting
    bool serve = false;    // body of the bare server's process
    bool count = false;    // body of a counting run
    std::string profile;   // nothing but this contestant's messages
};

using Contestants = std::vector<std::unique_ptr<FanOut>>;
constexpr std::array<std::size_t, 3> kSubscribers = {1, 8, 64};
constexpr std::array<Transport, 2> kTransports = {Transport::Tcp, Transport::Domain};

// A group of one contestant with what has come to it.
class Cell {
public:
    Cell(FanOut& fanOut, Transport transport, std::size_t subscribers, Options const& options)
        : m_payload(options.size, 'k'),
          m_deliveries(subscribers, options.deliveries / subscribers),
          m_group(fanOut.gather(transport, m_deliveries)) {
        Deliveries::stamp_as_probe(m_payload);
        for (int i = 0; i < 500 && !m_deliveries.all_are_there(); ++i) {
            m_group->publish(m_payload);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (!m_deliveries.all_are_there()) fail("a subscriber is not served");
    }

    // One message after the other: each waits until the one before has reached everybody.
    void publish_in_turn(std::size_t messages) {
        for (std::size_t i = 0; i < messages; ++i) {
            publish();
            m_deliveries.wait_for(m_published);
        }
    }

    void time_deliveries(std::size_t messages) {
        m_deliveries.keep_times();
        publish_in_turn(messages);
    }

    // Messages delivered per second while the publisher does not wait for each.
    double rate(std::size_t messages) {
        uint64_t const before = m_published;
        uint64_t const ahead = kWindow * m_deliveries.subscribers();
        auto const begin = Clock::now();
        for (std::size_t i = 0; i < messages; ++i) {
            publish();
            if (m_published - before > ahead) m_deliveries.wait_for(m_published - ahead);
        }
        m_deliveries.wait_for(m_published);
        std::chrono::duration<double> const seconds = Clock::now() - begin;
        return static_cast<double>(m_published - before) / seconds.count();
    }

    Samples times() const { return m_deliveries.times(); }

private:
    void publish() {
        Deliveries::stamp(m_payload);
        m_group->publish(m_payload);
        m_published += m_deliveries.subscribers();
    }

    std::vector<char> m_payload;
    Deliveries m_deliveries;
    std::unique_ptr<Group> m_group;
    uint64_t m_published = 0;  // as many as are to be delivered
};

bool is_over(Clock::time_point begin, Options const& options) {
    return Clock::now() - begin > std::chrono::seconds(options.seconds);
}

void measure_cell(Contestants& all, Transport transport, std::size_t subscribers,
                  Options const& options) {
    std::size_t const messages =
        std::max<std::size_t>(options.deliveries / subscribers / kRounds, 1);
    std::vector<std::unique_ptr<Cell>> cells;
    std::vector<std::vector<double>> rates(all.size());
    for (auto& contestant : all) {
        cells.push_back(std::make_unique<Cell>(*contestant, transport, subscribers, options));
        cells.back()->rate(messages);
        cells.back()->publish_in_turn(messages);
    }
    auto const begin = Clock::now();
    for (std::size_t round = 0; round < kRounds && !is_over(begin, options); ++round) {
        for (auto& cell : cells) cell->time_deliveries(messages);
    }
    for (std::size_t round = 0; round < kRounds && !is_over(begin, options); ++round) {
        for (std::size_t i = 0; i < all.size(); ++i) rates[i].push_back(cells[i]->rate(messages));
    }
    std::vector<double> middles;
    for (std::size_t i = 0; i < all.size(); ++i) {
        Samples times = cells[i]->times();
        middles.push_back(times.percentile_us(0.5));
        fprintf(g_out, "  %-7s %5zu    %-10s %9.1f %9.1f %9.2f %12.0f %9.2f\n", name_of(transport),
                subscribers, all[i]->name(), middles[i], times.percentile_us(0.99),
                middles[i] / middles[0], median(rates[i]), median(rates[i]) / median(rates[0]));
    }
}

void measure(Options const& options, int processors) {
    use_processors(processors);
    Contestants all;
    all.push_back(make_bare());
    all.push_back(make_library(options.server));
    for (auto& contestant : all) contestant->start();
    fprintf(g_out,
            "\nsubscribers, %d processor%s        median us    p99 us    / bare  delivered/s    "
            "/ bare\n",
            processors, processors == 1 ? " " : "s");
    for (Transport transport : kTransports) {
        for (std::size_t const subscribers : kSubscribers) {
            measure_cell(all, transport, subscribers, options);
        }
    }
}

// Something for a profiler to look at: 8 subscribers by TCP on one processor, one contestant alone.
int run_alone(Options const& options) {
    use_processors(1);
    auto const contestant = options.profile == "bare" ? make_bare() : make_library(options.server);
    contestant->start();
    Cell cell(*contestant, Transport::Tcp, 8, options);
    fprintf(g_out, "%s: %.0f delivered/s\n", contestant->name(), cell.rate(options.deliveries / 8));
    return 0;
}

// The body of a counting run: both processes have the counting library in front of the C library.
int count_messages(Options const& options) {
    Counting const counting;
    Counting::next_child_counts_at(1);
    auto const library = make_library(options.server);
    library->start();
    for (Transport transport : kTransports) {
        for (std::size_t const subscribers : kSubscribers) {
            Cell cell(*library, transport, subscribers, options);
            cell.publish_in_turn(kCounted);
            Counting::Reading const client = counting.read(0);
            Counting::Reading const server = counting.read(1);
            cell.publish_in_turn(kCounted);
            auto const deliveries = static_cast<double>(kCounted * subscribers);
            fprintf(
                g_out, "  %-7s %5zu %27.2f %26.2f\n", name_of(transport), subscribers,
                static_cast<double>(counting.read(0).allocations - client.allocations) / deliveries,
                static_cast<double>(counting.read(1).allocations - server.allocations) / kCounted);
        }
    }
    fflush(g_out);
    return 0;
}

int run(int argc, char** argv) {
    Options options;
    int out = -1;
    CLI::App app("Topic messages of the library to many subscribers, beside a bare program.");
    app.add_option("--deliveries", options.deliveries, "messages delivered in each cell")
        ->check(CLI::Range(std::size_t{1000}, std::size_t{100000000}))
        ->capture_default_str();
    app.add_option("--size", options.size, "bytes of a message")
        ->check(CLI::Range(std::size_t{8}, std::size_t{1} << 20))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "at most, for each cell; fewer messages then")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--server", options.server, "the kypserver program");
    app.add_option("--counting", options.counting, "the counting library; without it, no counts");
    app.add_option("--profile", options.profile, "run one contestant alone, for a profiler")
        ->check(CLI::IsMember({"bare", "libkyp"}));
    app.add_flag("--serve", options.serve)->group("");
    app.add_flag("--count", options.count)->group("");
    app.add_option("--out", out)->group("");
    CLI11_PARSE(app, argc, argv);

    if (options.serve) return serve_bare();

    g_out = take_output(out);
    if (!options.profile.empty()) return run_alone(options);
    if (options.count) return count_messages(options);
    print_machine(g_out);
    measure(options, 1);
    if (std::thread::hardware_concurrency() > 1) measure(options, 2);
    if (options.counting.empty()) return 0;
    fprintf(g_out, "\nheap allocations       clients, each delivery      server, each message\n");
    run_counted(options.counting,
                {"/proc/self/exe", "--server", options.server, "--size",
                 std::to_string(options.size), "--count"},
                g_out);
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
