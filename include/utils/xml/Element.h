// A node of an XML tree: name, text, attributes and child nodes by value.
//
// Owns:     its children; a copy is deep.
// Threads:  one at a time, but for null(), which any thread may call first.
// Lifetime: a reference to a child or an attribute's value holds until its element is changed.
#ifndef KYP_UTILS_XML_ELEMENT_H
#define KYP_UTILS_XML_ELEMENT_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "utils/Export.h"

namespace libkyp {
namespace xml {

class KYP_API Element {
public:
    Element();
    Element(std::string const& name);
    Element(std::string const& name, std::string const& text);
    Element(Element const& other);
    Element& operator=(Element const& other);  // `other` may be one of its own children
    ~Element();

    std::string name() const;
    std::string text() const;
    void name(std::string const& name);
    void text(std::string const& text);

    // The value under `key`, made empty when it is missing.
    std::string& attr(std::string const& key);

    // Stores `value` under `key`. An empty value erases the key.
    void attr(std::string const& key, std::string const& value);

    // Number of children.
    size_t size();

    // Adds a deep copy of `child` behind the others.
    void append(Element const& child);

    // The child at `index`, or null() when there is none.
    Element const& operator[](int index) const;

    // The first child of exactly that name, or null().
    Element const& operator[](std::string const& name) const;

    // The one empty element that stands for a missing child.
    static Element const& null();

    // Empties name, text, attributes and children.
    void clear();

    // The element as XML, without escapes and line breaks. Without a name it is the empty text;
    // with children its own text is left out.
    std::string toString() const;

    std::string m_name;  // empty: the element writes nothing
    std::string m_text;
    std::vector<Element> m_children;  // document order
    std::map<std::string, std::string> m_attrs;
};

}  // namespace xml
}  // namespace libkyp

#endif
