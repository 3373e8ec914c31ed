#include "kyp/StatCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

#include "kyp/Failure.h"
#include "kyp/Options.h"
#include "kyp/Table.h"

namespace kyptool {

namespace {

constexpr uint16_t kStatePort = 104;
constexpr int kDeepest = 8;  // what a peer nests deeper is shown as it came
// Reading does not recurse, writing does: the stack is not a peer's to fill.
constexpr int kDeepestTaken = 1000;

// From the upper left corner, with what stood there before wiped out.
constexpr char const* kHome = "\x1b[H\x1b[2J\x1b[3J";

std::string decimals(double value) {
    char text[64];
    snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string plain(Json const& value) {
    if (value.is_number_float()) return decimals(value.get<double>());
    if (value.is_array() && value.empty()) return "none";
    if (value.is_string()) return printable(value.get<std::string>());
    return printable(value.dump(-1, ' ', false, Json::error_handler_t::replace));
}

bool is_table(Json const& value) {
    return value.is_array() && !value.empty() &&
           std::all_of(value.begin(), value.end(), [](Json const& row) { return row.is_object(); });
}

// The keys of all rows, in the order in which they come up.
std::vector<std::string> keys_of(Json const& rows) {
    std::vector<std::string> keys;
    for (Json const& row : rows) {
        for (auto const& [key, value] : row.items()) {
            if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
        }
    }
    return keys;
}

std::string list_text(Json const& rows) {
    std::vector<std::string> const keys = keys_of(rows);
    std::vector<Row> lines;
    for (Json const& row : rows) {
        Row line;
        for (std::string const& key : keys)
            line.push_back(row.contains(key) ? plain(row[key]) : "");
        lines.push_back(line);
    }
    Row heading;
    for (std::string const& key : keys) heading.push_back(printable(key));
    return table_text(heading, lines);
}

std::string object_text(std::string const& title, Json const& object, int depth) {
    std::vector<Row> lines;
    std::string below;
    for (auto const& [key, value] : object.items()) {
        std::string const name = (title.empty() ? "" : title + " ") + printable(key);
        if (value.is_object() && depth < kDeepest) {
            below += object_text(name, value, depth + 1);
        } else if (is_table(value)) {
            below += "\n" + name + "\n" + list_text(value);
        } else {
            lines.push_back({printable(key), plain(value)});
        }
    }
    std::string const head = title.empty() || lines.empty() ? "" : "\n" + title + "\n";
    return head + table_text({}, lines) + below;
}

Json read_state(std::string const& text) {
    bool isTooDeep = false;
    auto const look = [&isTooDeep](int depth, Json::parse_event_t, Json const&) {
        isTooDeep = isTooDeep || depth > kDeepestTaken;
        return !isTooDeep;
    };
    Json state = Json::parse(text, look, false);
    if (isTooDeep) throw Failure(EXIT_REFUSED, "the answer is nested too deeply");
    if (!state.is_object()) {
        throw Failure(EXIT_REFUSED,
                      "the answer is no JSON object: " + printable(text.substr(0, 80)));
    }
    return state;
}

}  // namespace

std::string state_text(std::string const& json) {
    return object_text("", read_state(json), 0);
}

CLI::App* CStatCommand::enter(CLI::App& app, Settings& settings) {
    CLI::App* const sub = app.add_subcommand("stat", "show the state of a kypserver");
    add_target_word(*sub, settings);
    sub->add_option_function<std::string>(
           "--watch",
           [this](std::string const& text) {
               auto const pause = parse_duration(text.empty() ? "1" : text);
               if (!pause) {
                   throw CLI::ValidationError(
                       "--watch", "'" + printable(text) + "' is no time such as 2 or 0.5s");
               }
               m_watch = *pause;
           },
           "ask again and again, with so much time between (1s)")
        ->type_name("[TIME]")
        ->expected(0, 1);
    return sub;
}

int CStatCommand::run(Settings const& settings, CScreen& screen) {
    CDevice& device = CDevice::open(settings.target, settings.timeout);
    show(settings, screen, ask(settings, device));
    while (m_watch) {
        std::this_thread::sleep_for(*m_watch);
        show(settings, screen, ask(settings, device));
    }
    return EXIT_FINE;
}

int CStatCommand::interrupted(Settings const&, CScreen&, int sig) {
    return m_watch ? int{EXIT_FINE} : 128 + sig;
}

std::string CStatCommand::ask(Settings const& settings, CDevice& device) const {
    Request request;
    request.port = kStatePort;
    return device.ask(request, settings.timeout, "the state of " + printable(settings.target.text));
}

void CStatCommand::show(Settings const& settings, CScreen& screen, std::string const& state) {
    if (settings.json) {
        screen.print_json(read_state(state));
        return;
    }
    std::string text = state_text(state);
    if (m_watch && screen.is_terminal()) {
        text = kHome + text;
    } else if (!m_isFirst) {
        text = "\n" + text;
    }
    m_isFirst = false;
    screen.print(text);
}

}  // namespace kyptool
