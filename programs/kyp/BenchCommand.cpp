#include "kyp/BenchCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <thread>

#include "kyp/Failure.h"
#include "kyp/Options.h"

namespace kyptool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kMostConnections = 256;
constexpr Duration kLongestRun = std::chrono::hours(1);

std::vector<uint32_t> read_sizes(std::string const& text) {
    std::vector<uint32_t> sizes;
    for (size_t begin = 0; begin <= text.size();) {
        size_t const end = std::min(text.find(',', begin), text.size());
        auto const size = parse_size(text.substr(begin, end - begin), kLongestPayload);
        if (!size) {
            throw CLI::ValidationError(
                "--size", "'" + printable(text) + "' is no list of sizes such as 32,1k,64k, of " +
                              std::to_string(kLongestPayload) + " bytes at most");
        }
        sizes.push_back(static_cast<uint32_t>(*size));
        begin = end + 1;
    }
    return sizes;
}

// A count of nothing per second is nothing, also in no time.
double per_second(double amount, Duration time) {
    double const seconds = in_seconds(time);
    return seconds > 0 ? amount / seconds : 0;
}

// Three places behind the point are more than a measurement is good for.
double rounded(double value) {
    return std::round(value * 1000) / 1000;
}

}  // namespace

CLI::App* CBenchCommand::enter(CLI::App& app, Settings& settings) {
    CLI::App* const sub =
        app.add_subcommand("bench", "measure round trips and throughput of a device");
    add_target_word(*sub, settings);
    sub->add_option("-s,--size", m_sizesText,
                    "bytes of each request, several sizes with commas (" + m_sizesText + ")")
        ->type_name("BYTES[,BYTES]");
    add_number(*sub, "-n,--connections", m_connections,
               "connections that ask at the same time, one request each (1)", 1, kMostConnections);
    add_duration(*sub, "-d,--duration", m_duration, "time for each size (2s)");
    add_number(*sub, "-c,--count", m_count, "requests for each size, if the time allows them", 1);
    add_port(*sub, "-p,--port", m_port, "another port that sends requests back (100)");
    return sub;
}

void CBenchCommand::check(Settings const&) {
    m_sizes = read_sizes(m_sizesText);
    if (m_duration > kLongestRun) throw CLI::ValidationError("--duration", "an hour at most");
}

int CBenchCommand::run(Settings const& settings, CScreen& screen) {
    int const code = run_sizes(settings, screen);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_exit = code;
    m_done.notify_all();
    return code;
}

// What was measured so far counts. The requests under way are waited for.
int CBenchCommand::interrupted(Settings const& settings, CScreen&, int sig) {
    m_stop.store(true, std::memory_order_relaxed);
    std::unique_lock<std::mutex> lock(m_mutex);
    m_done.wait_for(lock, settings.timeout + std::chrono::seconds(1),
                    [this] { return m_exit.has_value(); });
    return m_exit.value_or(128 + sig);
}

int CBenchCommand::run_sizes(Settings const& settings, CScreen& screen) {
    for (uint32_t i = 0; i < m_connections; ++i) {
        m_devices.push_back(&CDevice::open(settings.target, settings.timeout));
    }
    if (!settings.json) {
        screen.note(port_of(static_cast<uint16_t>(m_port), settings.target) + ", " +
                    std::to_string(m_connections) +
                    (m_connections == 1 ? " connection\n" : " connections\n"));
        screen.print(
            "     size  requests  seconds  requests/s     MB/s    min ms median ms    p99 ms"
            "    max ms\n");
    }
    for (uint32_t const size : m_sizes) {
        if (m_stop.load(std::memory_order_relaxed)) break;
        Run const run = measure(settings, size);
        if (run.samples.count() == 0 && run.failed > 0) fail(settings, run);
        tell(settings, screen, size, run);
    }
    return EXIT_FINE;
}

CBenchCommand::Run CBenchCommand::measure(Settings const& settings, uint32_t size) {
    std::string const data(size, 'k');
    std::vector<Run> runs(m_devices.size());
    std::vector<std::thread> threads;
    m_left = m_count > 0 ? int64_t{m_count} : INT64_MAX;
    auto const begin = Clock::now();
    m_end = begin + m_duration;
    for (size_t i = 0; i < m_devices.size(); ++i) {
        threads.emplace_back([this, i, &data, &settings, &runs] {
            exchange_until_end(*m_devices[i], data, settings.timeout, runs[i]);
        });
    }
    for (std::thread& thread : threads) thread.join();

    Run all;
    all.took = Clock::now() - begin;
    for (Run const& run : runs) {
        all.samples.add(run.samples);
        if (all.failed == 0) {
            all.status = run.status;
            all.wasSent = run.wasSent;
        }
        all.failed += run.failed;
    }
    return all;
}

void CBenchCommand::exchange_until_end(CDevice& device, std::string const& data, Duration timeout,
                                       Run& run) {
    Request request;
    request.port = static_cast<uint16_t>(m_port);
    request.data = data;
    std::unique_ptr<char[]> const room(new char[data.size() + 1]);
    Answer answer;
    auto begin = Clock::now();
    while (m_left.fetch_sub(1, std::memory_order_relaxed) > 0) {
        uint32_t size = 0;
        answer.status = device.exchange(request, timeout, room.get(),
                                        static_cast<uint32_t>(data.size()), &size, &answer.wasSent);
        auto const end = Clock::now();
        if (answer.status == 0 && size == data.size()) {
            run.samples.add(end - begin);
        } else if (!may_go_on(run, answer)) {
            return;
        }
        if (end >= m_end || m_stop.load(std::memory_order_relaxed)) return;
        begin = end;
    }
}

// A link that is down answers at once; to ask it again and again measures nothing.
bool CBenchCommand::may_go_on(Run& run, Answer const& answer) const {
    if (run.failed++ == 0) {
        run.status = answer.status;
        run.wasSent = answer.wasSent;
    }
    return answer.wasSent && run.samples.count() > 0;
}

void CBenchCommand::fail(Settings const& settings, Run const& run) const {
    std::string const what = port_of(static_cast<uint16_t>(m_port), settings.target);
    if (run.status == 0) {
        throw Failure(EXIT_REFUSED, what + " does not send back what it gets");
    }
    if (!run.wasSent) throw unreachable(what, run.status);
    throw no_answer_or_refused(what, run.status);
}

void CBenchCommand::tell(Settings const& settings, CScreen& screen, uint32_t size,
                         Run const& run) const {
    Summary const summary = run.samples.summary();
    auto const requests = static_cast<double>(run.samples.count());
    double const rate = per_second(requests, run.took);
    double const megabytes = per_second(requests * size / 1e6, run.took);
    if (settings.json) {
        Json line = {{"target", settings.target.text},
                     {"port", m_port},
                     {"size", size},
                     {"connections", m_connections},
                     {"requests", run.samples.count()},
                     {"failed", run.failed},
                     {"seconds", rounded(in_seconds(run.took))},
                     {"requests_per_second", rounded(rate)},
                     {"megabytes_per_second", rounded(megabytes)}};
        add_summary(line, summary);
        screen.print_json(line);
        return;
    }
    char text[160];
    snprintf(text, sizeof text, "%9u %9zu %8.2f %11.0f %8.2f %9.3f %9.3f %9.3f %9.3f\n", size,
             run.samples.count(), in_seconds(run.took), rate, megabytes, summary.min,
             summary.median, summary.p99, summary.max);
    screen.print(text);
    if (run.failed > 0) {
        screen.error("kyp: " + std::to_string(run.failed) +
                     " more requests failed, the first with: " + status_words(run.status) + "\n");
    }
}

}  // namespace kyptool
