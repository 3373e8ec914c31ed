#include "kyp/Values.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kyptool {

namespace {

constexpr double kLongestSeconds = 24 * 3600;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

struct Unit {
    char const* name;
    double seconds;
};
constexpr Unit kUnits[] = {{"", 1}, {"s", 1}, {"ms", 0.001}, {"us", 0.000001}, {"m", 60}};

// The length of the UTF-8 character that `text` begins with; 0 when it is none.
size_t character_length(std::string_view text) {
    auto const byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char const first = byte(0);
    if (first < 0x80) return 1;
    size_t const length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
    }
    // Too long a form, half of a pair, or beyond the last character.
    if (first == 0xe0 && byte(1) < 0xa0) return 0;
    if (first == 0xed && byte(1) > 0x9f) return 0;
    if (first == 0xf0 && byte(1) < 0x90) return 0;
    if (first == 0xf4 && byte(1) > 0x8f) return 0;
    return length;
}

// U+0080 to U+009F move a terminal as the others do.
bool is_control(std::string_view character) {
    auto const first = static_cast<unsigned char>(character[0]);
    if (character.size() == 1) return first < 0x20 || first == 0x7f;
    return first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
}

bool is_layout(std::string_view character) {
    return character == "\n" || character == "\t";
}

void append_escaped(std::string& out, std::string_view bytes) {
    for (char const c : bytes) {
        char code[8];
        snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
        out += code;
    }
}

}  // namespace

std::optional<uint64_t> parse_number(std::string const& text, uint64_t most) {
    bool const isHex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    char const* const digits = text.c_str() + (isHex ? 2 : 0);
    bool const good = std::all_of(digits, text.c_str() + text.size(), [&](char c) {
        return isHex ? isxdigit(static_cast<unsigned char>(c)) != 0 : is_digit(c);
    });
    if (*digits == '\0' || !good) return std::nullopt;
    errno = 0;
    uint64_t const value = strtoull(digits, nullptr, isHex ? 16 : 10);
    if (errno != 0 || value > most) return std::nullopt;
    return value;
}

std::optional<uint64_t> parse_size(std::string const& text, uint64_t most) {
    if (text.empty()) return std::nullopt;
    uint64_t unit = 1;
    if (text.back() == 'k' || text.back() == 'K') unit = 1024;
    if (text.back() == 'm' || text.back() == 'M') unit = uint64_t{1024} * 1024;
    auto const number =
        parse_number(unit == 1 ? text : text.substr(0, text.size() - 1), most / unit);
    if (!number) return std::nullopt;
    return *number * unit;
}

std::optional<Duration> parse_duration(std::string const& text) {
    size_t const end = text.find_first_not_of("0123456789.");
    std::string const number = text.substr(0, end);
    std::string const name = end == std::string::npos ? "" : text.substr(end);
    if (std::none_of(number.begin(), number.end(), is_digit)) return std::nullopt;
    if (std::count(number.begin(), number.end(), '.') > 1) return std::nullopt;

    for (Unit const& unit : kUnits) {
        if (name != unit.name) continue;
        double const seconds = strtod(number.c_str(), nullptr) * unit.seconds;
        if (seconds > kLongestSeconds) return std::nullopt;
        return Duration(std::llround(seconds * 1e9));
    }
    return std::nullopt;
}

std::optional<_KypDeviceId> parse_device_id(std::string const& text) {
    _KypDeviceId id{};
    size_t begin = 0;
    for (size_t i = 0; i < sizeof id.bytes; ++i) {
        bool const isLast = i + 1 == sizeof id.bytes;
        size_t const end = isLast ? text.size() : text.find('.', begin);
        if (end == std::string::npos || end - begin > 3) return std::nullopt;
        std::string const field = text.substr(begin, end - begin);
        auto const number = field.find_first_of("xX") == std::string::npos
                                ? parse_number(field, 255)
                                : std::nullopt;
        if (!number) return std::nullopt;
        id.bytes[i] = static_cast<unsigned char>(*number);
        begin = end + 1;
    }
    return id;
}

bool is_ipv4(std::string const& text) {
    in_addr parsed;
    return inet_pton(AF_INET, text.c_str(), &parsed) == 1;
}

std::string id_text(_KypDeviceId const& id) {
    std::string text;
    for (unsigned char const byte : id.bytes) {
        if (!text.empty()) text += '.';
        text += std::to_string(byte);
    }
    return text;
}

bool is_zero(_KypDeviceId const& id) {
    _KypDeviceId const none{};
    return memcmp(&id, &none, sizeof id) == 0;
}

int milliseconds_of(Duration duration) {
    auto const whole = std::chrono::ceil<std::chrono::milliseconds>(duration).count();
    return static_cast<int>(std::max<int64_t>(whole, 1));
}

double in_milliseconds(Duration duration) {
    return static_cast<double>(duration.count()) / 1e6;
}

double in_seconds(Duration duration) {
    return static_cast<double>(duration.count()) / 1e9;
}

std::string size_text(uint64_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " B";
    char const* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (value >= 1023.95 && unit < 3) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    return text;
}

std::string clock_text(Duration duration) {
    auto const seconds =
        std::max<int64_t>(std::chrono::duration_cast<std::chrono::seconds>(duration).count(), 0);
    char text[32];
    if (seconds < 3600) {
        snprintf(text, sizeof text, "%d:%02d", static_cast<int>(seconds / 60),
                 static_cast<int>(seconds % 60));
    } else {
        snprintf(text, sizeof text, "%lld:%02d:%02d", static_cast<long long>(seconds / 3600),
                 static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
    }
    return text;
}

std::string printable(std::string_view text, bool lines) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        size_t const length = character_length(text);
        std::string_view const character = text.substr(0, std::max<size_t>(length, 1));
        bool const isShown =
            length > 0 && (!is_control(character) || (lines && is_layout(character)));
        if (isShown) {
            out += character;
        } else {
            append_escaped(out, character);
        }
        text.remove_prefix(character.size());
    }
    return out;
}

bool is_text(std::string_view data) {
    while (!data.empty()) {
        size_t const length = character_length(data);
        if (length == 0) return false;
        std::string_view const character = data.substr(0, length);
        if (is_control(character) && !is_layout(character)) return false;
        data.remove_prefix(length);
    }
    return true;
}

}  // namespace kyptool
