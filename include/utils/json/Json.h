// A JSON value of any kind, read from and written as text.
//
// The subset: no escapes in strings, no exponents, ints of 32 bits. Every failure is a
// std::logic_error whose text names the operation.
//
// Owns:     its elements and members; a copy is deep. However deep the nesting, no operation needs
//           more stack for it.
// Threads:  one at a time, but for null(), which any thread may call first.
// Lifetime: a reference to an element or a member holds until its array or object is changed.
#ifndef KYP_UTILS_JSON_JSON_H
#define KYP_UTILS_JSON_JSON_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "utils/Export.h"

namespace libkyp {
namespace json {

class KYP_API Json {
public:
    enum Type {
        json_null = 0,
        json_bool = 1,
        json_int = 2,
        json_double = 3,
        json_string = 4,
        json_array = 5,
        json_object = 6
    };

    Json();           // null
    Json(Type type);  // of that kind: zero or empty
    Json(bool value);
    Json(int value);
    Json(double value);
    Json(std::string const& value);
    Json(char const* value);
    Json(Json const& other);
    ~Json();

    Type type() const;
    bool isNull() const;
    bool isBool() const;
    bool isInt() const;
    bool isDouble() const;
    bool isString() const;
    bool isArray() const;
    bool isObject() const;

    // Entries of an array or an object. Every other kind, a string too, has none.
    size_t size() const;
    bool empty() const;

    // Whether this is an array with that index, or an object with that key.
    bool has(int index) const;
    bool has(std::string const& key) const;
    bool has(char const* key) const;

    // The value of exactly that kind: an int is no double. Any other kind throws.
    bool asBool() const;
    int asInt() const;
    double asDouble() const;
    std::string asString() const;
    operator bool();
    operator bool() const;
    operator int();
    operator int() const;
    operator double();
    operator double() const;
    operator std::string();
    operator std::string() const;

    // The one null value that stands for a missing entry.
    static Json const& null();

    // The entry, or null() when there is none. Throws on any kind but an array, or an object.
    Json const& get(int index) const;
    Json const& get(std::string const& key) const;
    Json const& get(char const* key) const;
    Json const& operator[](int index) const;
    Json const& operator[](std::string const& key) const;
    Json const& operator[](char const* key) const;

    // The entry, made when it is missing: an array grows by nulls up to `index`, an object gets a
    // null member. A null value becomes an array or an object first; other kinds throw, and so does
    // a negative index.
    Json& operator[](int index);
    Json& operator[](std::string const& key);
    Json& operator[](char const* key);

    // Adds a deep copy of `value` at the end. A null becomes an array first; other kinds throw.
    Json& append(Json const& value);

    // Takes an entry out. False when there is none, and on every other kind.
    bool remove(int index);
    bool remove(std::string const& key);
    bool remove(char const* key);

    // Empties the value; the kind stays. A cleared int is 0.
    void clear();

    // Take kind and value of the argument. A value that is given itself loses its value and keeps
    // its kind; a part of itself, or what it is part of, is copied first.
    void set(bool value);
    void set(int value);
    void set(double value);
    void set(std::string const& value);
    void set(char const* value);
    void set(Json const& other);
    void copy(Json const& other);
    Json& operator=(bool value);
    Json& operator=(int value);
    Json& operator=(double value);
    Json& operator=(std::string const& value);
    Json& operator=(char const* value);
    Json& operator=(Json const& other);

    // Equal in kind and value. An array or an object equals nothing, not even itself; so does NaN.
    bool operator==(Json const& other) const;
    bool operator==(bool value) const;
    bool operator==(int value) const;
    bool operator==(double value) const;
    bool operator==(std::string const& value) const;
    bool operator==(char const* value) const;
    bool operator!=(Json const& other) const;
    bool operator!=(bool value) const;
    bool operator!=(int value) const;
    bool operator!=(double value) const;
    bool operator!=(std::string const& value) const;
    bool operator!=(char const* value) const;

    // The value as JSON without blanks and line breaks, members in the order of their keys. Strings
    // and keys are written unescaped, doubles with six significant digits.
    std::string toString() const;

    // Reads the first value of `text`; what follows it is not looked at. Throws on bad text, and
    // this value is then unchanged.
    void parse(std::string const& text);

    Type m_type;

    // Those that the kind does not select are zero or empty.
    int m_int;
    double m_double;
    bool m_bool;
    std::string m_string;
    std::vector<Json> m_array;
    std::map<std::string, Json> m_object;
};

}  // namespace json
}  // namespace libkyp

#endif
