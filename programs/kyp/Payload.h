// The data of a request as it is given, and that of an answer as it is shown.
#ifndef KYP_PROGRAMS_KYP_PAYLOAD_H
#define KYP_PROGRAMS_KYP_PAYLOAD_H

#include <optional>
#include <string>
#include <string_view>

#include "kyp/Screen.h"

namespace CLI {
class App;
}

namespace kyptool {

// Where data comes from: a word, hexadecimal digits, a file or standard input; nothing of these is
// no data.
class CDataSource {
public:
    // --hex, --file and the word, of which one may be given.
    void enter(CLI::App& app);

    // Throws CLI::ValidationError for more than one source and for digits that are none.
    void check() const;

    // Throws Failure for a file that cannot be read and for more than `most` bytes.
    std::string load(size_t most) const;

private:
    std::optional<std::string> m_text;
    std::optional<std::string> m_hex;
    std::optional<std::string> m_file;  // "-" is standard input
};

// "01 02ff" and "0102FF"; nothing for anything else.
std::optional<std::string> parse_hex(std::string const& digits);

// "01 02 ff".
std::string hex_pairs(std::string_view data);

// Sixteen bytes a line: offset, pairs and characters.
std::string hex_dump(std::string_view data);

enum class View { AUTO, TEXT, HEX, RAW };

// --format.
void add_view(CLI::App& app, View& view);

// `data` as `view` has it. TEXT shows control characters as \xNN and ends with a line end; AUTO is
// TEXT for what is text, and HEX for anything else; RAW is the data alone.
std::string render(std::string_view data, View view);

// Adds "size", and the data as "text" or, when it is none, as "hex".
void add_data(Json& object, std::string_view data);

}  // namespace kyptool

#endif
