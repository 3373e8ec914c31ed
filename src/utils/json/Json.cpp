#include "utils/json/Json.h"

#include <sstream>
#include <stdexcept>
#include <type_traits>

#include "HandOver.h"
#include "utils/json/Parser.h"

namespace libkyp {
namespace json {

namespace {

using Array = std::vector<Json>;
using Object = std::map<std::string, Json>;

// What hangs below a value that goes away.
struct Branches {
    Array array;
    Object object;
};
static_assert(std::is_nothrow_move_constructible<Branches>::value,
              "a growing list of them would copy all that hangs below");

// An array or object that is being written, and how far it is.
struct Written {
    Json const* value;
    size_t next;                      // of an array
    Object::const_iterator nextPair;  // of an object
};

// A value that still lacks the entries of the one that it is a copy of.
struct Copied {
    Json* to;
    Json const* from;
};

bool has_branches(Json const& value) {
    return !value.m_array.empty() || !value.m_object.empty();
}

void require(bool met, char const* message) {
    if (!met) throw std::logic_error(message);
}

void detach(Json& value, std::vector<Branches>& detached) {
    if (!has_branches(value)) return;
    Branches& branches = detached.emplace_back();
    branches.array.swap(value.m_array);
    branches.object.swap(value.m_object);
}

// Kind and value without the entries.
void copy_plain(Json& to, Json const& from) {
    to.m_type = from.m_type;
    to.m_int = from.m_int;
    to.m_double = from.m_double;
    to.m_bool = from.m_bool;
    to.m_string = from.m_string;
}

// One level; entries that have entries of their own are left to `rest`.
void copy_entry(Json& to, Json const& from, std::vector<Copied>& rest) {
    copy_plain(to, from);
    if (has_branches(from)) rest.push_back({&to, &from});
}

void copy_entries(Json& to, Json const& from, std::vector<Copied>& rest) {
    // Room for all at once: `rest` points to the elements.
    to.m_array.reserve(from.m_array.size());
    for (Json const& element : from.m_array) copy_entry(to.m_array.emplace_back(), element, rest);
    for (auto const& [key, member] : from.m_object) {
        copy_entry(to.m_object.try_emplace(to.m_object.end(), key)->second, member, rest);
    }
}

// False for an array or object with entries, whose end is yet to be written.
bool write_start(std::ostream& out, Json const& value) {
    switch (value.m_type) {
        case Json::json_null:
            out << "null";
            return true;
        case Json::json_bool:
            out << (value.m_bool ? "true" : "false");
            return true;
        case Json::json_int:
            out << value.m_int;
            return true;
        case Json::json_double:
            // Kept: six significant digits; a whole double is written, and read back, as an int.
            out << value.m_double;
            return true;
        case Json::json_string:
            // Kept: no escapes; a string that holds a quote gives a text that is no JSON.
            out << '"' << value.m_string << '"';
            return true;
        case Json::json_array:
            out << '[';
            return false;
        case Json::json_object:
            out << '{';
            return false;
    }
    return true;
}

// The next entry to write, with what stands in front of it, or null behind the end mark.
Json const* write_next(std::ostream& out, Written& open) {
    if (open.value->m_type == Json::json_array) {
        Array const& array = open.value->m_array;
        if (open.next == array.size()) {
            out << ']';
            return nullptr;
        }
        if (open.next != 0) out << ',';
        return &array[open.next++];
    }
    Object const& object = open.value->m_object;
    if (open.nextPair == object.end()) {
        out << '}';
        return nullptr;
    }
    if (open.nextPair != object.begin()) out << ',';
    out << '"' << open.nextPair->first << "\":";
    return &(open.nextPair++)->second;
}

}  // namespace

Json::Json() : Json(json_null) {}

Json::Json(Type type) : m_type(type), m_int(0), m_double(0), m_bool(false) {}

Json::Json(bool value) : Json(json_bool) {
    m_bool = value;
}

Json::Json(int value) : Json(json_int) {
    m_int = value;
}

Json::Json(double value) : Json(json_double) {
    m_double = value;
}

Json::Json(std::string const& value) : Json(json_string) {
    m_string = value;
}

Json::Json(char const* value) : Json(json_string) {
    m_string = std::string(value);
}

Json::Json(Json const& other) : Json(json_null) {
    std::vector<Copied> rest;
    copy_entry(*this, other, rest);
    while (!rest.empty()) {
        Copied const next = rest.back();
        rest.pop_back();
        copy_entries(*next.to, *next.from, rest);
    }
}

Json::~Json() {
    clear();
}

Json::Type Json::type() const {
    return m_type;
}

bool Json::isNull() const {
    return m_type == json_null;
}

bool Json::isBool() const {
    return m_type == json_bool;
}

bool Json::isInt() const {
    return m_type == json_int;
}

bool Json::isDouble() const {
    return m_type == json_double;
}

bool Json::isString() const {
    return m_type == json_string;
}

bool Json::isArray() const {
    return m_type == json_array;
}

bool Json::isObject() const {
    return m_type == json_object;
}

size_t Json::size() const {
    // Kept: a string has the size 0 and is empty, whatever it holds.
    if (isArray()) return m_array.size();
    if (isObject()) return static_cast<unsigned int>(m_object.size());
    return 0;
}

bool Json::empty() const {
    if (isArray()) return m_array.empty();
    if (isObject()) return m_object.empty();
    return true;
}

bool Json::has(int index) const {
    return isArray() && index >= 0 && static_cast<size_t>(index) < m_array.size();
}

bool Json::has(std::string const& key) const {
    return isObject() && m_object.count(key) != 0;
}

bool Json::has(char const* key) const {
    return key != nullptr && has(std::string(key));
}

bool Json::asBool() const {
    require(isBool(), "function Json::asBool value type error");
    return m_bool;
}

int Json::asInt() const {
    require(isInt(), "function Json::asInt value type error");
    return m_int;
}

double Json::asDouble() const {
    require(isDouble(), "function Json::asDouble value type error");
    return m_double;
}

std::string Json::asString() const {
    require(isString(), "function Json::asString value type error");
    return m_string;
}

Json::operator bool() {
    return static_cast<Json const&>(*this);
}

Json::operator bool() const {
    require(isBool(), "function Json::operator (bool) requires bool value");
    return m_bool;
}

Json::operator int() {
    return static_cast<Json const&>(*this);
}

Json::operator int() const {
    require(isInt(), "function Json::operator (int) requires int value");
    return m_int;
}

Json::operator double() {
    return static_cast<Json const&>(*this);
}

Json::operator double() const {
    require(isDouble(), "function Json::operator (double) requires double value");
    return m_double;
}

Json::operator std::string() {
    return static_cast<Json const&>(*this);
}

Json::operator std::string() const {
    require(isString(), "function Json::operator (string) requires string value");
    return m_string;
}

Json const& Json::null() {
    // Never destroyed, so that references to it outlive every static object.
    static Json const* const s_null = new Json();
    return *s_null;
}

Json const& Json::get(int index) const {
    require(isArray(), "function Json::get [int] requires array value");
    return has(index) ? m_array[static_cast<size_t>(index)] : null();
}

Json const& Json::get(std::string const& key) const {
    require(isObject(), "function Json::get [const string &] requires object value");
    auto const found = m_object.find(key);
    return found != m_object.end() ? found->second : null();
}

Json const& Json::get(char const* key) const {
    return get(std::string(key));
}

Json const& Json::operator[](int index) const {
    return get(index);
}

Json const& Json::operator[](std::string const& key) const {
    return get(key);
}

Json const& Json::operator[](char const* key) const {
    return get(key);
}

Json& Json::operator[](int index) {
    if (isNull()) m_type = json_array;
    require(isArray(), "function Json::operator [int] requires array value");
    require(index >= 0, "function Json::operator [int] index less 0");

    size_t const place = static_cast<size_t>(index);
    if (place >= m_array.size()) {
        make_room(m_array, place + 1);
        m_array.resize(place + 1);
    }
    return m_array[place];
}

Json& Json::operator[](std::string const& key) {
    if (isNull()) m_type = json_object;
    require(isObject(), "function Json::operator [const string &] requires object value");
    return m_object[key];
}

Json& Json::operator[](char const* key) {
    return (*this)[std::string(key)];
}

Json& Json::append(Json const& value) {
    if (isNull()) m_type = json_array;
    require(isArray(), "function Json::append requires array value");
    // First of all a copy: `value` may be this array or stand in it.
    Json added(value);
    hand_over(m_array, added);
    return *this;
}

bool Json::remove(int index) {
    if (!has(index)) return false;
    for (size_t i = static_cast<size_t>(index); i + 1 < m_array.size(); ++i) {
        swap_values(m_array[i], m_array[i + 1]);
    }
    m_array.pop_back();
    return true;
}

bool Json::remove(std::string const& key) {
    return isObject() && m_object.erase(key) != 0;
}

bool Json::remove(char const* key) {
    return key != nullptr && remove(std::string(key));
}

void Json::clear() {
    // Kept: the kind stays, so a cleared int is 0 and not null.
    m_int = 0;
    m_double = 0;
    m_bool = false;
    m_string.clear();

    // Level by level, since a value that comes from a peer may be deeper than the stack.
    std::vector<Branches> detached;
    detach(*this, detached);
    while (!detached.empty()) {
        Branches branches;
        branches.array.swap(detached.back().array);
        branches.object.swap(detached.back().object);
        detached.pop_back();
        for (Json& element : branches.array) detach(element, detached);
        for (auto& pair : branches.object) detach(pair.second, detached);
    }
}

void Json::set(bool value) {
    clear();
    m_type = json_bool;
    m_bool = value;
}

void Json::set(int value) {
    clear();
    m_type = json_int;
    m_int = value;
}

void Json::set(double value) {
    clear();
    m_type = json_double;
    m_double = value;
}

void Json::set(std::string const& value) {
    std::string text(value);  // `value` may be this value's own
    clear();
    m_type = json_string;
    m_string.swap(text);
}

void Json::set(char const* value) {
    set(std::string(value));
}

void Json::set(Json const& other) {
    copy(other);
}

void Json::copy(Json const& other) {
    // Kept: a value assigned to itself is lost; the kind stays.
    if (this == &other) {
        clear();
        return;
    }
    Json taken(other);
    swap_values(*this, taken);
}

Json& Json::operator=(bool value) {
    copy(Json(value));
    return *this;
}

Json& Json::operator=(int value) {
    copy(Json(value));
    return *this;
}

Json& Json::operator=(double value) {
    copy(Json(value));
    return *this;
}

Json& Json::operator=(std::string const& value) {
    copy(Json(value));
    return *this;
}

Json& Json::operator=(char const* value) {
    copy(Json(value));
    return *this;
}

Json& Json::operator=(Json const& other) {
    copy(other);
    return *this;
}

bool Json::operator==(Json const& other) const {
    if (m_type != other.m_type) return false;
    switch (m_type) {
        case json_null:
            return true;
        case json_bool:
            return m_bool == other.m_bool;
        case json_int:
            return m_int == other.m_int;
        case json_double:
            return m_double <= other.m_double && m_double >= other.m_double;
        case json_string:
            return m_string == other.m_string;
        case json_array:
        case json_object:
            break;
    }
    // Kept: an array or an object equals nothing, not even itself.
    return false;
}

bool Json::operator==(bool value) const {
    return *this == Json(value);
}

bool Json::operator==(int value) const {
    return *this == Json(value);
}

bool Json::operator==(double value) const {
    return *this == Json(value);
}

bool Json::operator==(std::string const& value) const {
    return *this == Json(value);
}

bool Json::operator==(char const* value) const {
    return *this == Json(value);
}

bool Json::operator!=(Json const& other) const {
    return !(*this == other);
}

bool Json::operator!=(bool value) const {
    return *this != Json(value);
}

bool Json::operator!=(int value) const {
    return *this != Json(value);
}

bool Json::operator!=(double value) const {
    return *this != Json(value);
}

bool Json::operator!=(std::string const& value) const {
    return *this != Json(value);
}

bool Json::operator!=(char const* value) const {
    return *this != Json(value);
}

std::string Json::toString() const {
    std::ostringstream out;
    std::vector<Written> open;
    Json const* next = this;
    while (next != nullptr || !open.empty()) {
        if (next == nullptr) {
            next = write_next(out, open.back());
            if (next == nullptr) open.pop_back();
            continue;
        }
        if (!write_start(out, *next)) open.push_back({next, 0, next->m_object.begin()});
        next = nullptr;
    }
    return out.str();
}

void Json::parse(std::string const& text) {
    Parser parser;
    parser.load(text);
    // Kept: what follows the first value is not looked at.
    Json value = parser.parse();
    swap_values(*this, value);
}

}  // namespace json
}  // namespace libkyp
