#include "utils/xml/Element.h"

namespace libkyp {
namespace xml {

Element::Element() = default;

Element::Element(std::string const& name) : m_name(name) {}

Element::Element(std::string const& name, std::string const& text) : m_name(name), m_text(text) {}

Element::Element(Element const& other) = default;

Element& Element::operator=(Element const& other) {
    // By way of a copy, since `other` may stand among the children that go away.
    Element copy(other);
    m_name.swap(copy.m_name);
    m_text.swap(copy.m_text);
    m_children.swap(copy.m_children);
    m_attrs.swap(copy.m_attrs);
    return *this;
}

Element::~Element() {
    clear();
}

std::string Element::name() const {
    return m_name;
}

std::string Element::text() const {
    return m_text;
}

void Element::name(std::string const& name) {
    m_name = name;
}

void Element::text(std::string const& text) {
    m_text = text;
}

std::string& Element::attr(std::string const& key) {
    return m_attrs[key];
}

void Element::attr(std::string const& key, std::string const& value) {
    // Kept: an attribute cannot be stored with an empty value; the key is erased instead.
    if (value.empty()) {
        m_attrs.erase(key);
    } else {
        m_attrs[key] = value;
    }
}

size_t Element::size() {
    return m_children.size();
}

void Element::append(Element const& child) {
    m_children.push_back(child);
}

Element const& Element::operator[](int index) const {
    if (index < 0 || static_cast<size_t>(index) >= m_children.size()) return null();
    return m_children[static_cast<size_t>(index)];
}

Element const& Element::operator[](std::string const& name) const {
    for (Element const& child : m_children) {
        if (child.m_name == name) return child;
    }
    return null();
}

Element const& Element::null() {
    // Never destroyed, so that references to it outlive every static object.
    static Element const* const s_null = new Element();
    return *s_null;
}

void Element::clear() {
    m_name.clear();
    m_text.clear();
    m_attrs.clear();
    m_children.clear();
}

std::string Element::toString() const {
    if (m_name.empty()) return std::string();

    std::string xml = "<" + m_name;
    for (auto const& [key, value] : m_attrs) {
        xml.append(" ").append(key).append("=\"").append(value).append("\"");
    }
    xml += ">";
    if (m_children.empty()) xml += m_text;
    // Kept: the text of an element that has children is not written.
    for (Element const& child : m_children) xml += child.toString();
    return xml + "</" + m_name + ">";
}

}  // namespace xml
}  // namespace libkyp
