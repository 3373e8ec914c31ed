#include "utils/xml/Document.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "utils/Log.h"
#include "utils/xml/Element.h"

namespace libkyp {
namespace xml {

namespace {

// Elements inside each other. Deeper ones are refused before they use up the thread's stack.
constexpr int kMaxDepth = 1000;

bool is_white_space(char character) {
    return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

bool is_name_start(char character) {
    return isalpha(static_cast<unsigned char>(character)) != 0 || character == '_';
}

bool is_name_part(char character) {
    return isalnum(static_cast<unsigned char>(character)) != 0 || character == '-' ||
           character == ':' || character == '_';
}

// Appends what `child` holds to the children of `parent` without a deep copy.
void hand_over(Element& parent, Element& child) {
    Element& last = parent.m_children.emplace_back();
    last.m_name.swap(child.m_name);
    last.m_text.swap(child.m_text);
    last.m_children.swap(child.m_children);
    last.m_attrs.swap(child.m_attrs);
}

// NUL behind the end of the text.
char peek(Document const& doc, size_t ahead = 0) {
    return ahead < doc.m_text.size() - doc.m_position ? doc.m_text[doc.m_position + ahead] : '\0';
}

bool starts_with(Document const& doc, char const* mark) {
    return doc.m_text.compare(doc.m_position, strlen(mark), mark) == 0;
}

bool skip_behind(Document& doc, char const* mark) {
    size_t const found = doc.m_text.find(mark, doc.m_position);
    if (found == std::string::npos) return false;
    doc.m_position = found + strlen(mark);
    return true;
}

bool parse_element(Document& doc, Element& root, int depth);

// What may stand before an element: one declaration, one comment, white space.
bool parse_prolog(Document& doc) {
    if (starts_with(doc, "<?xml") && !doc.parse_declaration()) {
        KYP_LOG(LOG_LEVEL_ERROR, "xml declaration is error");
        return false;
    }
    doc.skip_white_spaces();
    // Kept: one comment is skipped; behind a second one no element is looked for.
    if (starts_with(doc, "<!--") && !doc.parse_comment()) {
        KYP_LOG(LOG_LEVEL_ERROR, "xml comment is error");
        return false;
    }
    doc.skip_white_spaces();
    return true;
}

bool parse_end_tag(Document& doc, Element const& root, bool* ended) {
    std::string const tag = "</" + root.name() + ">";
    size_t const found = doc.m_text.find(tag, doc.m_position);
    if (found == std::string::npos) {
        KYP_LOG(LOG_LEVEL_ERROR, "xml element %s end tag not found", root.name().c_str());
        return false;
    }
    if (found == doc.m_position) {
        doc.m_position += tag.size();
        *ended = true;
        return true;
    }
    // Kept: with a wrong end tag here and the right one further on the parser stays here for ever.
    std::this_thread::yield();
    return true;
}

bool parse_child(Document& doc, Element& root, int depth) {
    size_t const start = doc.m_position;
    Element child;
    if (!parse_element(doc, child, depth + 1)) return false;
    if (doc.m_position == start) {
        // A '<' that begins nothing would be found again and again.
        KYP_LOG(LOG_LEVEL_ERROR, "xml element %s holds a '<' that begins no element",
                root.name().c_str());
        return false;
    }
    hand_over(root, child);
    return true;
}

bool parse_after_start_tag(Document& doc, Element& root, int depth) {
    ++doc.m_position;
    std::string const text = doc.parse_element_text();
    doc.skip_white_spaces();
    if (!text.empty()) {
        root.text(text);
        return true;
    }

    // Kept: an element without text gets a child at once, one without a name where none begins.
    bool const atEnd = peek(doc) == '\0';
    Element child;
    // The end of the text is logged by the child and accepted by its parent.
    if (!parse_element(doc, child, depth + 1) && !atEnd) return false;
    hand_over(root, child);
    return true;
}

bool parse_attr(Document& doc, Element& root) {
    std::string const key = doc.parse_element_attr_key();
    doc.skip_white_spaces();
    if (peek(doc) != '=') {
        KYP_LOG(LOG_LEVEL_ERROR, "xml element attr is error:%s", key.c_str());
        return false;
    }
    ++doc.m_position;
    root.attr(key, doc.parse_element_attr_val());
    return true;
}

// All behind the name: attributes, text, children and the end, in whatever order they come.
bool parse_content(Document& doc, Element& root, int depth) {
    bool ended = false;
    while (!ended) {
        char const next = peek(doc);
        bool good = true;
        // Kept: the end of the text closes every open element, inside a tag too.
        if (next == '\0') return true;
        if (next == '/') {
            if (peek(doc, 1) != '>') {
                KYP_LOG(LOG_LEVEL_ERROR, "xml empty element is error");
                return false;
            }
            doc.m_position += 2;
            return true;
        }
        if (starts_with(doc, "</")) {
            good = parse_end_tag(doc, root, &ended);
        } else if (starts_with(doc, "<!--")) {
            good = doc.parse_comment();
            if (!good) KYP_LOG(LOG_LEVEL_ERROR, "xml comment is error");
        } else if (next == '<') {
            good = parse_child(doc, root, depth);
        } else if (next == '>') {
            good = parse_after_start_tag(doc, root, depth);
        } else {
            // Kept: also text behind a child is taken for an attribute, mostly a faulty one.
            good = parse_attr(doc, root);
        }
        if (!good) return false;
        if (!ended) doc.skip_white_spaces();
    }
    return true;
}

bool parse_element(Document& doc, Element& root, int depth) {
    doc.skip_white_spaces();
    if (peek(doc) == '\0') {
        KYP_LOG(LOG_LEVEL_ERROR, "xml document is empty");
        return false;
    }
    if (!parse_prolog(doc)) return false;
    // Kept: a text without an element is a success and leaves `root` as it is.
    if (peek(doc) != '<' || !is_name_start(peek(doc, 1))) return true;

    ++doc.m_position;
    root.name(doc.parse_element_name());
    doc.skip_white_spaces();
    if (depth >= kMaxDepth) {
        KYP_LOG(LOG_LEVEL_ERROR, "xml element %s is deeper than %d", root.name().c_str(),
                kMaxDepth);
        return false;
    }
    return parse_content(doc, root, depth);
}

}  // namespace

Document::Document() : m_position(0) {}

Document::~Document() = default;

bool Document::load_file(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) return false;

    // Inserting the buffer into a stream ends a failed read, of a directory say, like the file's
    // end; iterators over it would throw.
    std::ostringstream content;
    content << file.rdbuf();
    load_string(content.str());
    return true;
}

void Document::load_string(std::string const& text) {
    m_text = text;
    m_position = 0;
}

bool Document::save_file(std::string const& path, std::string const& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file.is_open()) {
        KYP_LOG(LOG_LEVEL_ERROR, "fstream open file:%s fail,error:%s", path.c_str(),
                strerror(errno));
        return false;
    }
    // Kept: a failure to write is not reported.
    file << content;
    return true;
}

bool Document::parse(Element& root) {
    return parse_element(*this, root, 0);
}

void Document::skip_white_spaces() {
    while (is_white_space(peek(*this))) ++m_position;
}

bool Document::parse_declaration() {
    skip_white_spaces();
    return skip_behind(*this, "?>");
}

bool Document::parse_comment() {
    skip_white_spaces();
    return skip_behind(*this, "-->");
}

std::string Document::parse_element_name() {
    skip_white_spaces();
    size_t const start = m_position;
    if (is_name_start(peek(*this))) ++m_position;
    while (m_position > start && is_name_part(peek(*this))) ++m_position;
    return m_text.substr(start, m_position - start);
}

std::string Document::parse_element_attr_key() {
    return parse_element_name();
}

std::string Document::parse_element_text() {
    skip_white_spaces();
    size_t const start = m_position;
    m_position = std::min(m_text.find('<', start), m_text.size());
    return m_text.substr(start, m_position - start);
}

std::string Document::parse_element_attr_val() {
    skip_white_spaces();
    if (peek(*this) != '"') {
        throw std::logic_error("xml element attr value should be in double quotes");
    }
    size_t const start = m_position + 1;
    size_t const end = std::min(m_text.find('"', start), m_text.size());
    m_position = std::min(end + 1, m_text.size());
    return m_text.substr(start, end - start);
}

}  // namespace xml
}  // namespace libkyp
