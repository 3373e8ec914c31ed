// An XML text and the position up to which it is parsed.
//
// The subset: one declaration, comments, elements, attributes in double quotes, text. Entities stay
// as they are written. The end of the text ends every scan.
//
// Owns:     a copy of the text.
// Threads:  one at a time.
// Lifetime: any; parsed elements do not refer to it.
#ifndef KYP_UTILS_XML_DOCUMENT_H
#define KYP_UTILS_XML_DOCUMENT_H

#include <cstddef>
#include <string>

#include "utils/Export.h"

namespace libkyp {
namespace xml {

class Element;

class KYP_API Document {
public:
    Document();
    ~Document();

    // Takes a file's content as the text. False, without a log line, when it cannot be opened. What
    // cannot be read, a directory for one, gives an empty text.
    bool load_file(std::string const& path);

    // Copies `text`; the next parse begins at its start.
    void load_string(std::string const& text);

    // Makes `content` the content of the file. False, with the reason logged, when the file cannot
    // be opened; a failure to write is not reported.
    bool save_file(std::string const& path, std::string const& content);

    // Reads one element at the position into `root`. True also when there is none here, with `root`
    // untouched. On false the reason is logged and `root` keeps what was read before the fault.
    // Throws std::logic_error when an attribute's value is not in double quotes.
    //
    // A wrong end tag with the right one further on keeps the parser busy for ever.
    bool parse(Element& root);

    // The parser's scanners. Each skips white space, then reads at the position and moves behind
    // what it took. A missing end mark is false, a missing name is empty; neither moves on.
    void skip_white_spaces();
    bool parse_declaration();
    bool parse_comment();
    std::string parse_element_name();
    std::string parse_element_attr_key();
    std::string parse_element_text();
    std::string parse_element_attr_val();

    std::string m_text;
    size_t m_position;  // at most the text's size
};

}  // namespace xml
}  // namespace libkyp

#endif
