#include "utils/json/Parser.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <stdexcept>

#include "HandOver.h"

namespace libkyp {
namespace json {

namespace {

// An array or object whose end has not been read yet.
struct Open {
    Json value;
    std::string key;  // of the member that is being read
};

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

// NUL behind the end of the text.
char peek(Parser const& parser) {
    return parser.m_idx < parser.m_str.size() ? parser.m_str[parser.m_idx] : '\0';
}

bool take_word(Parser& parser, char const* word) {
    size_t const length = strlen(word);
    if (parser.m_idx > parser.m_str.size()) return false;
    if (parser.m_str.compare(parser.m_idx, length, word) != 0) return false;
    parser.m_idx += length;
    return true;
}

void skip_digits(Parser& parser) {
    while (is_digit(peek(parser))) ++parser.m_idx;
}

void skip_whole_part(Parser& parser) {
    if (peek(parser) == '-') ++parser.m_idx;
    if (peek(parser) == '0') {
        ++parser.m_idx;
        if (is_digit(peek(parser))) {
            throw std::logic_error("leading 0s not permitted in numbers");
        }
        return;
    }
    if (!is_digit(peek(parser))) throw std::logic_error("invalid character in number");
    skip_digits(parser);
}

// A member's name, whose first character `token` is, and the colon.
std::string parse_key(Parser& parser, char token) {
    if (token != '"') throw std::logic_error("expected '\"' in object");
    std::string key = parser.parse_string();
    if (parser.get_next_token() != ':') throw std::logic_error("expected ':' in object");
    return key;
}

// The rest of a value that began with `token`, without the entries of an array or object. False
// when its first entry comes next.
bool parse_start(Parser& parser, char token, Open& begun) {
    switch (token) {
        case '"':
            begun.value.m_type = Json::json_string;
            begun.value.m_string = parser.parse_string();
            return true;
        case '[':
            begun.value.m_type = Json::json_array;
            if (parser.get_next_token() == ']') return true;
            --parser.m_idx;
            return false;
        case '{':
            begun.value.m_type = Json::json_object;
            token = parser.get_next_token();
            if (token == '}') return true;
            begun.key = parse_key(parser, token);
            return false;
        default:
            break;
    }

    --parser.m_idx;
    if (token == 'n') {
        begun.value = parser.parse_null();
    } else if (token == 't' || token == 'f') {
        begun.value = parser.parse_bool();
    } else if (token == '-' || is_digit(token)) {
        begun.value = parser.parse_number();
    } else {
        throw std::logic_error("unexpected character in parse json");
    }
    return true;
}

// Makes `entry` the next entry of `open`. False when the end mark follows it.
bool add_entry(Parser& parser, Open& open, Json& entry) {
    if (open.value.isArray()) {
        hand_over(open.value.m_array, entry);
        char const token = parser.get_next_token();
        if (token == ']') return false;
        if (token != ',') throw std::logic_error("expected ',' in array");
        parser.get_next_token();
        --parser.m_idx;
        return true;
    }
    // Of two members with one key the later one stays.
    swap_values(open.value.m_object[open.key], entry);
    char const token = parser.get_next_token();
    if (token == '}') return false;
    if (token != ',') throw std::logic_error("expected ',' in object");
    open.key = parse_key(parser, parser.get_next_token());
    return true;
}

}  // namespace

Parser::Parser() : m_idx(0) {}

Parser::~Parser() = default;

void Parser::load(std::string const& text) {
    m_str = text;
    m_idx = 0;
}

Json Parser::parse() {
    // What is open stands in a list of its own and not on the stack, which a text of nothing but
    // brackets would use up.
    std::deque<Open> open;
    Json value;
    for (;;) {
        Open begun;
        if (!parse_start(*this, get_next_token(), begun)) {
            open.emplace_back();
            swap_values(open.back().value, begun.value);
            open.back().key.swap(begun.key);
            continue;
        }
        swap_values(value, begun.value);
        for (;;) {
            if (open.empty()) return value;
            if (add_entry(*this, open.back(), value)) break;
            swap_values(value, open.back().value);
            open.pop_back();
        }
    }
}

void Parser::skip_white_spaces() {
    for (char next = peek(*this); next == ' ' || next == '\t' || next == '\n' || next == '\r';
         next = peek(*this)) {
        ++m_idx;
    }
}

char Parser::get_next_token() {
    skip_white_spaces();
    if (m_idx >= m_str.size()) throw std::logic_error("unexpected end of input");
    return m_str[m_idx++];
}

Json Parser::parse_null() {
    if (!take_word(*this, "null")) throw std::logic_error("parse null error");
    return Json();
}

Json Parser::parse_bool() {
    if (take_word(*this, "true")) return Json(true);
    if (take_word(*this, "false")) return Json(false);
    throw std::logic_error("parse bool error");
}

Json Parser::parse_number() {
    size_t const start = m_idx;
    skip_whole_part(*this);
    if (peek(*this) != '.') {
        // Kept: an int beyond 32 bits wraps, one beyond 64 bits becomes -1 or 0. An exponent is
        // not read: 1e5 is the int 1.
        return Json(static_cast<int>(strtol(m_str.c_str() + start, nullptr, 10)));
    }
    ++m_idx;
    if (!is_digit(peek(*this))) {
        throw std::logic_error("at least one digit required in fractional part");
    }
    skip_digits(*this);
    // Kept: the exponent behind a fraction counts, though the position stays in front of it.
    return Json(strtod(m_str.c_str() + start, nullptr));
}

std::string Parser::parse_string() {
    size_t const start = m_idx;
    for (; m_idx < m_str.size(); ++m_idx) {
        char const next = m_str[m_idx];
        // Kept: a backslash is refused, not decoded.
        if (next == '\\') throw std::logic_error("not support escaped characters in string");
        if (next == '"') {
            ++m_idx;
            return m_str.substr(start, m_idx - 1 - start);
        }
    }
    throw std::logic_error("unexpected end of input in string");
}

}  // namespace json
}  // namespace libkyp
