// A JSON text and the position up to which it is parsed.
//
// Every fault in the text is a std::logic_error; its message carries no position.
//
// Owns:     a copy of the text.
// Threads:  one at a time.
// Lifetime: any; parsed values do not refer to it.
#ifndef KYP_UTILS_JSON_PARSER_H
#define KYP_UTILS_JSON_PARSER_H

#include <cstddef>
#include <string>

#include "utils/Export.h"
#include "utils/json/Json.h"

namespace libkyp {
namespace json {

class KYP_API Parser {
public:
    Parser();
    ~Parser();

    // Copies `text`; the next parse begins at its start.
    void load(std::string const& text);

    // Reads one value at the position and moves behind it. The nesting may have any depth.
    Json parse();

    // The parser's scanners. Each reads at the position and moves behind what it took.
    void skip_white_spaces();  // blank, tab, line feed, carriage return
    char get_next_token();     // the next character that is no white space
    Json parse_null();
    Json parse_bool();
    Json parse_number();
    std::string parse_string();  // from behind the opening quote

    std::string m_str;
    size_t m_idx;
};

}  // namespace json
}  // namespace libkyp

#endif
