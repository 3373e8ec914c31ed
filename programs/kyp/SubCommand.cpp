#include "kyp/SubCommand.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "kyp/Failure.h"
#include "kyp/Options.h"
#include "libkyp/libkyp.h"

namespace kyptool {

namespace {

struct Now {
    tm parts;
    int milliseconds;
};

Now wall_clock(bool isUtc) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    Now result{};
    if (isUtc) {
        gmtime_r(&now.tv_sec, &result.parts);
    } else {
        localtime_r(&now.tv_sec, &result.parts);
    }
    result.milliseconds = static_cast<int>(now.tv_nsec / 1000000);
    return result;
}

// "2025-03-01 12:00:00.123" of the local clock, "2025-03-01T11:00:00.123Z" of UTC.
std::string time_text(bool isUtc) {
    Now const now = wall_clock(isUtc);
    char day[32];
    strftime(day, sizeof day, isUtc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S", &now.parts);
    char text[48];
    snprintf(text, sizeof text, "%s.%03d%s", day, now.milliseconds, isUtc ? "Z" : "");
    return text;
}

std::string names(std::vector<std::string> const& topics) {
    std::string text;
    for (std::string const& topic : topics) {
        if (!text.empty()) text += ", ";
        text += printable(topic);
    }
    return text;
}

}  // namespace

CLI::App* CSubCommand::enter(CLI::App& app, Settings&) {
    CLI::App* const sub =
        app.add_subcommand("sub", "subscribe to topics and show their messages as they come");
    sub->add_option("TOPIC", m_topics, "the topics")->type_name("")->required();
    add_number(*sub, "-c,--count", m_count, "end behind so many messages", 1);
    add_duration(*sub, "-w,--deadline", m_deadline, "end after so long");
    sub->add_flag("-T,--timestamps", m_timestamps, "begin each line with the time of arrival");
    add_view(*sub, m_view);
    return sub;
}

void CSubCommand::check(Settings const&) {
    for (std::string const& topic : m_topics) {
        if (topic.empty()) throw CLI::ValidationError("TOPIC", "a topic has a name");
    }
}

int CSubCommand::run(Settings const& settings, CScreen& screen) {
    m_pSettings = &settings;
    m_pScreen = &screen;
    auto const begin = std::chrono::steady_clock::now();
    CDevice& device = CDevice::open(settings.target, settings.timeout, CDevice::FAIL_WHEN_DOWN,
                                    [this](int event) { on_link(event); });
    subscribe_all(device);
    screen.note("subscribed to " + names(m_topics) + "\n");

    std::unique_lock<std::mutex> lock(m_mutex);
    auto const isDone = [this] { return m_ended || (m_count > 0 && m_received >= m_count); };
    if (m_deadline) {
        m_arrived.wait_until(lock, begin + *m_deadline, isDone);
    } else {
        m_arrived.wait(lock, isDone);
    }
    m_ended = true;
    if (m_count == 0 || m_received >= m_count) return EXIT_FINE;
    std::string const came = std::to_string(m_received) + " of " + std::to_string(m_count);
    throw unreachable(came + " messages have come", KYP_ERR_RECV_TIMEOUT);
}

int CSubCommand::interrupted(Settings const&, CScreen&, int sig) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_ended = true;
    return m_count == 0 ? int{EXIT_FINE} : 128 + sig;
}

void CSubCommand::subscribe_all(CDevice& device) {
    for (std::string const& topic : m_topics) {
        int const status = libkyp_subscribe(device.handle(), topic.c_str(), on_message, this);
        if (status == KYP_OK) continue;
        throw unreachable("topic " + printable(topic) + " cannot be subscribed", status);
    }
    // Nothing answers a subscription. What answers this has read the subscriptions before.
    Request request;
    request.port = kPortEcho;
    Answer const answer = device.exchange(request, m_pSettings->timeout);
    if (!answer.wasSent || answer.status == KYP_ERR_RECV_TIMEOUT) {
        throw unreachable(printable(m_pSettings->target.text) + " does not answer", answer.status);
    }
}

void CSubCommand::on_message(unsigned int indexGroup, unsigned int indexOffset, char const* topic,
                             char const* data, unsigned int len, void* self) {
    auto* const command = static_cast<CSubCommand*>(self);
    std::lock_guard<std::mutex> lock(command->m_mutex);
    bool const isEnough = command->m_count > 0 && command->m_received >= command->m_count;
    if (command->m_ended || isEnough) return;
    command->show_locked({indexGroup, indexOffset, topic, {data, len}});
    ++command->m_received;
    command->m_arrived.notify_all();
}

// The library subscribes anew by itself when the link is back.
void CSubCommand::on_link(int event) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ended) return;
    std::string const who = printable(m_pSettings->target.text);
    if (event == KYP_ERR_DISCONNECTED && !m_isDown) {
        m_isDown = true;
        m_pScreen->note(who + " is gone, trying to reach it again: " + status_words(event) + "\n");
    } else if (event == KYP_CONNECT_SUCCESS && m_isDown) {
        m_isDown = false;
        m_pScreen->note(who + " is back\n");
    }
}

void CSubCommand::show_locked(Message const& message) {
    if (!m_pSettings->json) {
        m_pScreen->print(line_of(message));
        return;
    }
    Json line = {{"time", time_text(true)},
                 {"topic", message.topic},
                 {"group", message.indexGroup},
                 {"offset", message.indexOffset}};
    add_data(line, message.data);
    m_pScreen->print_json(line);
}

std::string CSubCommand::line_of(Message const& message) const {
    if (m_view == View::RAW) return std::string(message.data);
    std::string const head =
        (m_timestamps ? time_text(false) + " " : "") + printable(message.topic) + ": ";
    bool const isDump = m_view == View::HEX || (m_view == View::AUTO && !is_text(message.data));
    if (isDump) {
        return head + std::to_string(message.data.size()) + " bytes\n" + hex_dump(message.data);
    }
    std::string const text = render(message.data, View::TEXT);
    return head + (text.empty() ? "\n" : text);
}

}  // namespace kyptool
