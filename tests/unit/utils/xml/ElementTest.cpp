#include "utils/xml/Element.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using libkyp::xml::Element;

TEST(ElementTest, BeginsWithWhatItIsGiven) {
    Element const named("kyp");
    Element const full("kyp", "text");

    EXPECT_EQ("", Element().name());
    EXPECT_EQ("", Element().text());
    EXPECT_EQ("kyp", named.name());
    EXPECT_EQ("", named.text());
    EXPECT_EQ("kyp", full.name());
    EXPECT_EQ("text", full.text());
}

TEST(ElementTest, NameAndTextCanBeAssigned) {
    Element element("a", "b");

    element.name(std::string("c"));
    element.text(std::string("d"));

    EXPECT_EQ("c", element.name());
    EXPECT_EQ("d", element.text());
}

TEST(ElementTest, ACopyIsDeep) {
    Element original("a", "t");
    original.attr("k", "v");
    original.append(Element("b"));

    Element copy(original);
    original.m_children[0].name("changed");
    original.attr("k", "changed");

    EXPECT_EQ("b", copy[0].name());
    EXPECT_EQ("v", copy.attr("k"));
    EXPECT_EQ("t", copy.text());
}

TEST(ElementTest, AnElementCanBecomeACopyOfItsOwnChild) {
    Element element("a", "t");
    element.attr("k", "v");
    element.append(Element("b", "1"));
    element.append(Element("x"));
    element.m_children[0].append(Element("c"));
    element.m_children[0].append(Element("d"));

    element = element[0];

    EXPECT_EQ("<b><c></c><d></d></b>", element.toString());
    EXPECT_EQ("1", element.text());
}

TEST(ElementTest, AnElementCanBeAppendedToItself) {
    Element element("a");
    element.append(Element("b"));

    element.append(element);
    element.append(element[0]);

    EXPECT_EQ("<a><b></b><a><b></b></a><b></b></a>", element.toString());
}

TEST(ElementTest, AnAppendedChildIsACopyAtTheEnd) {
    Element child("b");
    Element element("a");

    element.append(child);
    child.name("changed");
    element.append(child);

    ASSERT_EQ(2u, element.size());
    EXPECT_EQ("b", element[0].name());
    EXPECT_EQ("changed", element[1].name());
}

TEST(ElementTest, ReadingAMissingAttributeMakesItEmpty) {
    Element element("a");

    EXPECT_EQ("", element.attr("k"));

    EXPECT_EQ("<a k=\"\"></a>", element.toString());
}

TEST(ElementTest, AnAttributeCanBeChangedThroughItsReference) {
    Element element("a");

    element.attr("k") = "v";

    EXPECT_EQ("v", element.attr("k"));
}

TEST(ElementTest, KeepsAttributesFromBeingEmpty) {
    Element element("a");
    element.attr("k", "v");

    element.attr("missing", "");
    element.attr("k", "");

    EXPECT_EQ(0u, element.m_attrs.size());
}

TEST(ElementTest, AnAttributeIsReplaced) {
    Element element("a");

    element.attr("k", "v");
    element.attr("k", "w");

    EXPECT_EQ("<a k=\"w\"></a>", element.toString());
}

TEST(ElementTest, FindsChildrenByIndexAndByExactName) {
    Element element("a");
    element.append(Element("b", "1"));
    element.append(Element("b", "2"));

    EXPECT_EQ("1", element["b"].text());
    EXPECT_EQ("2", element[1].text());
    EXPECT_EQ(&Element::null(), &element["B"]);
    EXPECT_EQ(&Element::null(), &element["c"]);
    EXPECT_EQ(&Element::null(), &element[2]);
    EXPECT_EQ(&Element::null(), &element[-1]);
}

TEST(ElementTest, TheNullElementIsEmptyAndOneForAll) {
    EXPECT_EQ(&Element::null(), &Element::null());
    EXPECT_EQ("", Element::null().name());
    EXPECT_EQ("", Element::null().toString());
    EXPECT_EQ(&Element::null(), &Element::null()[0]["deep"]);
}

TEST(ElementTest, ClearEmptiesEverything) {
    Element element("a", "t");
    element.attr("k", "v");
    element.append(Element("b"));

    element.clear();

    EXPECT_EQ("", element.name());
    EXPECT_EQ("", element.text());
    EXPECT_EQ(0u, element.size());
    EXPECT_TRUE(element.m_attrs.empty());
}

TEST(ElementTest, WritesAttributesInOrderOfTheirBytes) {
    Element element("a", "t");
    element.attr("b", "2");
    element.attr("a", "3");
    element.attr("B", "1");

    EXPECT_EQ("<a B=\"1\" a=\"3\" b=\"2\">t</a>", element.toString());
}

TEST(ElementTest, WritesAnEmptyElementWithTwoTags) {
    EXPECT_EQ("<a></a>", Element("a").toString());
}

TEST(ElementTest, AnElementWithoutANameWritesNothing) {
    Element element("", "text");
    element.append(Element("b"));

    EXPECT_EQ("", element.toString());
}

TEST(ElementTest, KeepsTheTextBesideChildrenUnwritten) {
    Element element("a", "text");
    element.append(Element("b", "1"));
    element.append(Element("c"));

    EXPECT_EQ("<a><b>1</b><c></c></a>", element.toString());
}

TEST(ElementTest, EscapesNothing) {
    Element element("a", "x & <y>");
    element.attr("k", "\"'");

    EXPECT_EQ("<a k=\"\"'\">x & <y></a>", element.toString());
}

}  // namespace
