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

private:
    bool parse_element(Element& root, int depth);
    bool parse_prolog();
    bool parse_content(Element& root, int depth);
    bool parse_after_start_tag(Element& root, int depth);
    bool parse_child(Element& root, int depth);
    bool parse_attr(Element& root);
    bool parse_end_tag(Element const& root, bool* ended);

    void skip_white_spaces();
    bool parse_declaration();
    bool parse_comment();
    std::string parse_element_name();
    std::string parse_element_attr_key();
    std::string parse_element_text();
    std::string parse_element_attr_val();

    bool starts_with(char const* mark) const;
    bool skip_behind(char const* mark);
    char peek(size_t ahead = 0) const;

public:
    std::string m_text;
    size_t m_position;
};

}  // namespace xml
}  // namespace libkyp

#endif
