#include "kyp/PingCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <thread>

#include "kyp/Failure.h"
#include "kyp/Options.h"
#include "libkyp/libkyp.h"

namespace kyptool {

namespace {

constexpr int kReconnectSeconds = 1;

// Bytes that differ from one request to the next.
std::string pattern(uint32_t seq, size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((seq >> (i % 4 * 8)) + i / 4);
    return data;
}

std::string milliseconds_text(double milliseconds) {
    char text[32];
    snprintf(text, sizeof text, "%.3f", milliseconds);
    return text;
}

Json error_json(int status) {
    return {{"code", status}, {"text", libkyp_strerror(status)}};
}

}  // namespace

CLI::App* CPingCommand::enter(CLI::App& app, Settings& settings) {
    CLI::App* const sub = app.add_subcommand(
        "ping", "send data to the echo port again and again and time its way back");
    add_target_word(*sub, settings);
    sub->add_option_function<std::string>(
           "-c,--count",
           [this](std::string const& text) {
               auto const count = parse_number(text, UINT32_MAX);
               if (!count || *count == 0) {
                   throw CLI::ValidationError("--count", "'" + text + "' is no number from 1 on");
               }
               m_count = static_cast<uint32_t>(*count);
           },
           "end behind so many requests")
        ->type_name("N");
    add_duration(*sub, "-i,--interval", m_interval, "time from one request to the next (1s)");
    add_size(*sub, "-s,--size", m_size, "bytes of each request (32)", kLongestPayload);
    add_duration(*sub, "-w,--deadline", m_deadline, "end after so long, whatever has come back");
    add_port(*sub, "-p,--port", m_port, "another port that sends requests back (100)");
    return sub;
}

int CPingCommand::run(Settings const& settings, CScreen& screen) {
    // A device that starts up while it is asked is what many people wait for.
    CDevice& device = CDevice::open(settings.target, settings.timeout, CDevice::GO_ON_WHEN_DOWN);
    libkyp_reconnect_delay_set(device.handle(), kReconnectSeconds);
    m_begin = Clock::now();
    if (!settings.json) {
        screen.note("ping " + port_of(static_cast<uint16_t>(m_port), settings.target) + ": " +
                    std::to_string(m_size) + " bytes\n");
    }
    Clock::time_point due = m_begin;
    do {
        ping_once(settings, screen, device);
        due = std::max(due + m_interval, Clock::now());
        if (m_count && m_sent >= *m_count) break;
    } while (wait_for_next(due));

    std::lock_guard<std::mutex> lock(m_mutex);
    return m_ended ? int{EXIT_FINE} : finish_locked(settings, screen);
}

int CPingCommand::interrupted(Settings const& settings, CScreen& screen, int sig) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_sent == 0) return 128 + sig;
    return finish_locked(settings, screen);
}

void CPingCommand::ping_once(Settings const& settings, CScreen& screen, CDevice& device) {
    uint32_t seq = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        seq = ++m_sent;
    }
    std::string const data = pattern(seq, m_size);
    Request request;
    request.port = static_cast<uint16_t>(m_port);
    request.data = data;

    auto const begin = Clock::now();
    Duration timeout = settings.timeout;
    if (m_deadline) timeout = std::min<Duration>(timeout, m_begin + *m_deadline - begin);
    Answer const answer = device.exchange(request, timeout);
    Duration const took = Clock::now() - begin;

    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_ended) tell(settings, screen, seq, answer, answer.payload == data, took);
}

void CPingCommand::tell(Settings const& settings, CScreen& screen, uint32_t seq,
                        Answer const& answer, bool isSame, Duration took) {
    bool const isGood = answer.status == KYP_OK && isSame;
    if (isGood) m_samples.add(took);
    if (!isGood && answer.wasSent && answer.status != KYP_ERR_RECV_TIMEOUT) ++m_refused;
    if (answer.status != KYP_OK) m_lastStatus = answer.status;

    std::string const time = milliseconds_text(in_milliseconds(took));
    if (settings.json) {
        Json line = {{"seq", seq}};
        if (answer.status == KYP_OK) {
            line["bytes"] = answer.payload.size();
            line["intact"] = isSame;
            line["time_ms"] = std::stod(time);
        } else {
            line["error"] = error_json(answer.status);
        }
        if (!settings.quiet) screen.print_json(line);
        return;
    }
    if (settings.quiet) return;
    std::string const head = "seq=" + std::to_string(seq) + " ";
    if (answer.status != KYP_OK) {
        screen.print(head + status_words(answer.status) + "\n");
    } else {
        screen.print(head + std::to_string(answer.payload.size()) + " bytes time=" + time + " ms" +
                     (isSame ? "\n" : ", not what was sent\n"));
    }
}

bool CPingCommand::wait_for_next(Clock::time_point due) const {
    auto const end = m_begin + m_deadline.value_or(Duration());
    if (m_deadline && due >= end) {
        std::this_thread::sleep_until(end);
        return false;
    }
    std::this_thread::sleep_until(due);
    return true;
}

int CPingCommand::finish_locked(Settings const& settings, CScreen& screen) {
    m_ended = true;
    auto const answered = static_cast<uint32_t>(m_samples.count());
    double const lost = m_sent == 0 ? 0 : 100.0 * (m_sent - answered) / m_sent;
    auto const took = static_cast<long long>(in_milliseconds(Clock::now() - m_begin));
    Summary const summary = m_samples.summary();
    if (settings.json) {
        Json line = {{"target", settings.target.text}, {"port", m_port},       {"sent", m_sent},
                     {"answered", answered},           {"lost_percent", lost}, {"time_ms", took}};
        if (answered > 0) add_summary(line, summary);
        screen.print_json(line);
    } else {
        char text[256];
        snprintf(text, sizeof text, "%u sent, %u answered, %.3g%% lost, time %lld ms\n", m_sent,
                 answered, lost, took);
        std::string lines = "--- " + printable(settings.target.text) + " ---\n" + text;
        if (answered > 0) {
            lines += "round trip min/median/p99/max = " + milliseconds_text(summary.min) + "/" +
                     milliseconds_text(summary.median) + "/" + milliseconds_text(summary.p99) +
                     "/" + milliseconds_text(summary.max) + " ms\n";
        }
        screen.print(lines);
    }
    bool const isShort = m_count && m_deadline && answered < *m_count;
    if (answered > 0 && !isShort) return EXIT_FINE;
    return m_refused > 0 && !isShort ? EXIT_REFUSED : EXIT_UNREACHABLE;
}

}  // namespace kyptool
