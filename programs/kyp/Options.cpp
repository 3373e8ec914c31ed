#include "kyp/Options.h"

#include "kypcomm/KypWire.h"
#include "kypcomm/Socket.h"

namespace kyptool {

namespace {

static_assert(kLongestPayload ==
              kMaxSocketFrame - sizeof(_KypHeader) - sizeof(_AoEHeader) - sizeof(AoERequestHeader));

Duration read_duration(std::string const& names, std::string const& text) {
    auto const duration = parse_duration(text);
    if (!duration) {
        throw CLI::ValidationError(names, "'" + text + "' is no time such as 2, 0.5s or 200ms");
    }
    return *duration;
}

}  // namespace

CLI::Option* add_duration(CLI::App& app, std::string const& names, Duration& value,
                          std::string const& what) {
    return app
        .add_option_function<std::string>(
            names, [&value, names](std::string const& text) { value = read_duration(names, text); },
            what)
        ->type_name("TIME");
}

CLI::Option* add_duration(CLI::App& app, std::string const& names, std::optional<Duration>& value,
                          std::string const& what) {
    return app
        .add_option_function<std::string>(
            names, [&value, names](std::string const& text) { value = read_duration(names, text); },
            what)
        ->type_name("TIME");
}

CLI::Option* add_number(CLI::App& app, std::string const& names, uint32_t& value,
                        std::string const& what, uint32_t least, uint32_t most) {
    auto const read = [&value, names, least, most](std::string const& text) {
        auto const number = parse_number(text, most);
        if (!number || *number < least) {
            throw CLI::ValidationError(names, "'" + text + "' is no number of " +
                                                  std::to_string(least) + " to " +
                                                  std::to_string(most));
        }
        value = static_cast<uint32_t>(*number);
    };
    return app.add_option_function<std::string>(names, read, what)->type_name("N");
}

CLI::Option* add_size(CLI::App& app, std::string const& names, uint32_t& value,
                      std::string const& what, uint32_t most) {
    auto const read = [&value, names, most](std::string const& text) {
        auto const size = parse_size(text, most);
        if (!size) {
            throw CLI::ValidationError(
                names, "'" + text + "' is no size of 0 to " + std::to_string(most) + " bytes");
        }
        value = static_cast<uint32_t>(*size);
    };
    return app.add_option_function<std::string>(names, read, what)->type_name("BYTES");
}

CLI::Option* add_port(CLI::App& app, std::string const& names, uint32_t& port,
                      std::string const& what) {
    return add_number(app, names, port, what, kLowestPort, kHighestPort)->type_name("PORT");
}

void add_address_words(CLI::App& app, uint32_t& group, uint32_t& offset) {
    add_number(app, "-g,--group", group, "index group, decimal or 0x... (0)");
    add_number(app, "-o,--offset", offset, "index offset, decimal or 0x... (0)");
}

}  // namespace kyptool
