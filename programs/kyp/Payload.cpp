#include "kyp/Payload.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "kyp/Failure.h"
#include "kyp/Values.h"

namespace kyptool {

namespace {

constexpr size_t kBytesPerLine = 16;

int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

Failure too_long(size_t most) {
    return wrong_usage("the data has more than " + std::to_string(most) + " bytes");
}

Failure cannot_read(std::string const& name, int error) {
    return wrong_usage(printable(name) + " cannot be read: " + strerror(error));
}

// All of `file`, or a failure that names it.
std::string read_file(std::string const& file, size_t most) {
    bool const isInput = file == "-";
    std::string const name = isInput ? "standard input" : file;
    int const fd = isInput ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw cannot_read(name, errno);

    std::string data;
    char piece[65536];
    ssize_t n = 0;
    while ((n = read(fd, piece, sizeof piece)) != 0 && data.size() <= most) {
        if (n > 0) data.append(piece, static_cast<size_t>(n));
        if (n < 0 && errno != EINTR) break;
    }
    int const error = errno;
    if (!isInput) close(fd);
    if (n < 0) throw cannot_read(name, error);
    if (data.size() > most) throw too_long(most);
    return data;
}

std::string dump_line(size_t offset, std::string_view bytes) {
    char place[24];
    snprintf(place, sizeof place, "%08zx ", offset);
    std::string line = place;
    for (size_t i = 0; i < kBytesPerLine; ++i) {
        if (i % 8 == 0) line += ' ';
        line += i < bytes.size() ? hex_pairs(bytes.substr(i, 1)) + ' ' : "   ";
    }
    line += " |";
    for (char const c : bytes) line += c >= ' ' && c <= '~' ? c : '.';
    return line + "|\n";
}

}  // namespace

void CDataSource::enter(CLI::App& app) {
    app.add_option("DATA", m_text, "the data as text")->type_name("");
    app.add_option("-x,--hex", m_hex, "the data as hexadecimal pairs: '01 02 ff'")
        ->type_name("DIGITS");
    app.add_option("-f,--file", m_file, "the file that holds the data, - for standard input")
        ->type_name("FILE");
}

void CDataSource::check() const {
    if (m_text.has_value() + m_hex.has_value() + m_file.has_value() > 1) {
        throw CLI::ValidationError("DATA", "give one of DATA, --hex and --file");
    }
    if (m_hex && !parse_hex(*m_hex)) {
        throw CLI::ValidationError("--hex", "'" + printable(*m_hex) + "' are no hexadecimal pairs");
    }
}

std::string CDataSource::load(size_t most) const {
    if (m_file) return read_file(*m_file, most);
    std::string data = m_text.value_or(m_hex ? *parse_hex(*m_hex) : std::string());
    if (data.size() > most) throw too_long(most);
    return data;
}

std::optional<std::string> parse_hex(std::string const& digits) {
    std::string data;
    int high = -1;
    for (char const c : digits) {
        if (c == ' ' || c == '\t' || c == '\n') {
            if (high >= 0) return std::nullopt;
            continue;
        }
        int const value = digit_value(c);
        if (value < 0) return std::nullopt;
        if (high >= 0) data += static_cast<char>(high * 16 + value);
        high = high >= 0 ? -1 : value;
    }
    if (high >= 0) return std::nullopt;
    return data;
}

std::string hex_pairs(std::string_view data) {
    char const* const digits = "0123456789abcdef";
    std::string text;
    text.reserve(data.size() * 3);
    for (char const c : data) {
        auto const byte = static_cast<unsigned char>(c);
        if (!text.empty()) text += ' ';
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string hex_dump(std::string_view data) {
    std::string text;
    for (size_t at = 0; at < data.size(); at += kBytesPerLine) {
        text += dump_line(at, data.substr(at, kBytesPerLine));
    }
    return text;
}

void add_view(CLI::App& app, View& view) {
    std::map<std::string, View> const views = {
        {"auto", View::AUTO}, {"text", View::TEXT}, {"hex", View::HEX}, {"raw", View::RAW}};
    app.add_option_function<std::string>(
           "-F,--format",
           [&view, views](std::string const& name) {
               auto const found = views.find(name);
               if (found == views.end()) {
                   throw CLI::ValidationError(
                       "--format", "'" + printable(name) + "' is none of auto, text, hex and raw");
               }
               view = found->second;
           },
           "how to show data: text, hex (a dump), raw (the bytes alone), or auto: text for what is "
           "text, else hex (auto)")
        ->type_name("auto|text|hex|raw");
}

std::string render(std::string_view data, View view) {
    if (view == View::RAW) return std::string(data);
    if (view == View::HEX || (view == View::AUTO && !is_text(data))) return hex_dump(data);
    std::string text = printable(data, true);
    if (!text.empty() && text.back() != '\n') text += '\n';
    return text;
}

void add_data(Json& object, std::string_view data) {
    object["size"] = data.size();
    if (is_text(data)) {
        object["text"] = std::string(data);
    } else {
        std::string pairs = hex_pairs(data);
        pairs.erase(std::remove(pairs.begin(), pairs.end(), ' '), pairs.end());
        object["hex"] = pairs;
    }
}

}  // namespace kyptool
