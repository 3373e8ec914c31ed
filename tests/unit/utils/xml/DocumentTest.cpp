#include "utils/xml/Document.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/LogCapture.h"
#include "utils/xml/Element.h"

namespace {

using libkyp::xml::Document;
using libkyp::xml::Element;

class DocumentTest : public ::testing::Test {
protected:
    DocumentTest()
        : m_path(::testing::TempDir() + "DocumentTest." + std::to_string(getpid()) + ".xml") {}
    ~DocumentTest() override { std::filesystem::remove(m_path); }

    bool parse(std::string const& text) {
        m_root.clear();
        m_document.load_string(text);
        return m_document.parse(m_root);
    }

    // Fails to parse `text`, which leaves exactly one ERROR line of that message.
    void expect_fault(std::string const& text, std::string const& message) {
        SCOPED_TRACE(text);
        LogCapture capture;
        EXPECT_FALSE(parse(text));
        EXPECT_EQ(1, capture.count("ERROR", message));
        EXPECT_EQ(1, capture.count_containing("[libkyp,"));
    }

    std::string m_path;
    Document m_document;
    Element m_root;
};

TEST_F(DocumentTest, ReadsAttributesAndTextAndWritesThemBack) {
    ASSERT_TRUE(parse("<a x=\"1\" y=\"2\">t</a>"));

    EXPECT_EQ("a", m_root.name());
    EXPECT_EQ("1", m_root.attr("x"));
    EXPECT_EQ("2", m_root.attr("y"));
    EXPECT_EQ(2u, m_root.m_attrs.size());
    EXPECT_EQ("t", m_root.text());
    EXPECT_EQ(0u, m_root.size());
    EXPECT_EQ("<a x=\"1\" y=\"2\">t</a>", m_root.toString());
}

TEST_F(DocumentTest, AShortElementHasNoChild) {
    ASSERT_TRUE(parse("<a/>"));

    EXPECT_EQ(0u, m_root.size());
    EXPECT_EQ("<a></a>", m_root.toString());
}

TEST_F(DocumentTest, KeepsOneUnnamedChildInAnEmptyElement) {
    ASSERT_TRUE(parse("<a></a>"));

    EXPECT_EQ(1u, m_root.size());
    EXPECT_EQ("", m_root[0].name());
    EXPECT_EQ("<a></a>", m_root.toString());
}

TEST_F(DocumentTest, SingleQuotesThrow) {
    try {
        parse("<a b='1'/>");
        FAIL() << "no exception";
    } catch (std::logic_error const& error) {
        EXPECT_STREQ("xml element attr value should be in double quotes", error.what());
    }
    EXPECT_EQ("a", m_root.name());
}

TEST_F(DocumentTest, AValueWithoutQuotesThrows) {
    EXPECT_THROW(parse("<a b=1/>"), std::logic_error);
    EXPECT_THROW(parse("<a b="), std::logic_error);
}

TEST_F(DocumentTest, ReadsChildrenInOrder) {
    ASSERT_TRUE(parse("<a><b>1</b><b>2</b></a>"));

    ASSERT_EQ(2u, m_root.size());
    EXPECT_EQ("1", m_root["b"].text());
    EXPECT_EQ("2", m_root[1].text());
    EXPECT_EQ(&Element::null(), &m_root[2]);
    EXPECT_EQ("<a><b>1</b><b>2</b></a>", m_root.toString());
}

TEST_F(DocumentTest, SkipsADeclarationAndAComment) {
    ASSERT_TRUE(parse("<?xml version=\"1.0\"?>\n<!-- a <b/> -->\n<kyp>\n</kyp>"));

    EXPECT_EQ("kyp", m_root.name());
}

TEST_F(DocumentTest, ADeclarationAloneIsASuccessWithNoElement) {
    LogCapture capture;

    EXPECT_TRUE(parse("<?xml version=\"1.0\"?>"));
    EXPECT_TRUE(parse("<?xml version=\"1.0\"?> <!-- c --> "));

    EXPECT_EQ("", m_root.name());
    EXPECT_EQ("", capture.text());
}

TEST_F(DocumentTest, KeepsASuccessForATextWithoutAnElement) {
    for (char const* const text : {"plain", "<1>", "< a>", "<", "<!doctype>", "</a>"}) {
        SCOPED_TRACE(text);
        m_root.name("before");
        m_document.load_string(text);
        EXPECT_TRUE(m_document.parse(m_root));
        EXPECT_EQ("before", m_root.name());
    }
}

TEST_F(DocumentTest, KeepsASecondCommentFromBeingSkipped) {
    EXPECT_TRUE(parse("<!-- 1 --><!-- 2 --><a/>"));

    EXPECT_EQ("", m_root.name());
}

TEST_F(DocumentTest, TextIsTakenLiterally) {
    ASSERT_TRUE(parse("<a> \n a & b &amp; \"c\" /> \n </a>"));

    EXPECT_EQ("a & b &amp; \"c\" /> \n ", m_root.text());
}

TEST_F(DocumentTest, ReadsTheDeviceFile) {
    ASSERT_TRUE(parse("<kyp><deviceInfo deviceId=\"192.168.1.2.1.1\"></deviceInfo></kyp>"));

    EXPECT_EQ("deviceInfo", m_root[0].name());
    EXPECT_EQ("192.168.1.2.1.1", Element(m_root["deviceInfo"]).attr("deviceId"));
    EXPECT_EQ("<kyp><deviceInfo deviceId=\"192.168.1.2.1.1\"></deviceInfo></kyp>",
              m_root.toString());
}

TEST_F(DocumentTest, NamesHoldLettersDigitsAndThreeMarks) {
    ASSERT_TRUE(parse("<_a-1:b_C _k-2:x=\"v\"/>"));

    EXPECT_EQ("_a-1:b_C", m_root.name());
    EXPECT_EQ("v", m_root.attr("_k-2:x"));
}

TEST_F(DocumentTest, ADotEndsAName) {
    expect_fault("<a.b/>", "xml element attr is error:");
    EXPECT_EQ("a", m_root.name());
}

TEST_F(DocumentTest, WhiteSpaceMayStandAroundTheEqualsSign) {
    ASSERT_TRUE(parse("\t\r\n <a \n x \t = \r\n \" 1 \" />"));

    EXPECT_EQ(" 1 ", m_root.attr("x"));
}

TEST_F(DocumentTest, KeepsAnEmptyAttributeFromBeingStored) {
    ASSERT_TRUE(parse("<a b=\"\" c=\"1\"/>"));

    EXPECT_EQ("<a c=\"1\"></a>", m_root.toString());
}

TEST_F(DocumentTest, TheSecondOfTwoEqualAttributesCounts) {
    ASSERT_TRUE(parse("<a b=\"1\" b=\"2\"/>"));

    EXPECT_EQ("2", m_root.attr("b"));
}

TEST_F(DocumentTest, SkipsAnyNumberOfCommentsInsideAnElement) {
    ASSERT_TRUE(parse("<a><b/><!-- 1 --><!-- <2> --><c/></a>"));

    EXPECT_EQ("<a><b></b><c></c></a>", m_root.toString());
}

TEST_F(DocumentTest, EndTagsMatchByExactName) {
    ASSERT_TRUE(parse("<a><ab>1</ab></a>"));

    EXPECT_EQ("1", m_root["ab"].text());
}

TEST_F(DocumentTest, KeepsTextBehindAChildForAnAttribute) {
    expect_fault("<a><b/>tail</a>", "xml element attr is error:tail");
    EXPECT_EQ(1u, m_root.size());

    ASSERT_TRUE(parse("<a><b/>x=\"1\"</a>"));
    EXPECT_EQ("1", m_root.attr("x"));
}

TEST_F(DocumentTest, AnEmptyTextIsAFault) {
    expect_fault("", "xml document is empty");
    expect_fault(" \t\r\n", "xml document is empty");
    expect_fault(std::string(" \0<a/>", 6), "xml document is empty");
}

TEST_F(DocumentTest, EachFaultHasItsLine) {
    struct Row {
        char const* text;
        char const* message;
    };
    constexpr Row kRows[] = {
        {"<?xml version=\"1.0\"", "xml declaration is error"},
        {"<!-- open", "xml comment is error"},
        {"<!-- open --", "xml comment is error"},
        {"<?xml?><!-- open", "xml comment is error"},
        {"<a/", "xml empty element is error"},
        {"<a/ >", "xml empty element is error"},
        {"<a>t</b>", "xml element a end tag not found"},
        {"<a></b>", "xml element a end tag not found"},
        {"<a></", "xml element a end tag not found"},
        {"<a></a", "xml element a end tag not found"},
        {"<a><b></a>", "xml element b end tag not found"},
        {"<a><b/><!-- open</a>", "xml comment is error"},
        {"<a><b/><c/ ></a>", "xml empty element is error"},
        {"<a k/>", "xml element attr is error:k"},
        {"<a k", "xml element attr is error:k"},
        {"<a 1=\"2\"/>", "xml element attr is error:"},
        {"<a k=\"1\"?>", "xml element attr is error:"},
    };
    for (Row const& row : kRows) expect_fault(row.text, row.message);
}

TEST_F(DocumentTest, AFaultKeepsWhatWasReadBefore) {
    EXPECT_FALSE(parse("<a x=\"1\"><b/><c/ ></a>"));

    EXPECT_EQ("a", m_root.name());
    EXPECT_EQ("1", m_root.attr("x"));
    EXPECT_EQ(1u, m_root.size());
}

TEST_F(DocumentTest, KeepsAnOpenElementForWholeAtTheEndOfTheText) {
    for (char const* const text : {"<a", "<a ", "<a x=\"1\"", "<a><b/>", "<a>t", "<a><b>t</b> "}) {
        SCOPED_TRACE(text);
        LogCapture capture;
        EXPECT_TRUE(parse(text));
        EXPECT_EQ("a", m_root.name());
        EXPECT_EQ("", capture.text());
    }
}

TEST_F(DocumentTest, AStartTagAtTheEndIsAcceptedWithALine) {
    LogCapture capture;

    EXPECT_TRUE(parse("<a> "));

    EXPECT_EQ(1, capture.count("ERROR", "xml document is empty"));
    EXPECT_EQ("<a></a>", m_root.toString());
}

TEST_F(DocumentTest, AnOpenTextEndsWithTheDocument) {
    ASSERT_TRUE(parse("<a>some text"));

    EXPECT_EQ("some text", m_root.text());
}

TEST_F(DocumentTest, AnOpenAttributeValueEndsWithTheDocument) {
    ASSERT_TRUE(parse("<a x=\"1></a>"));
    EXPECT_EQ("1></a>", m_root.attr("x"));

    ASSERT_TRUE(parse("<a x=\""));
    EXPECT_TRUE(m_root.m_attrs.empty());
}

TEST_F(DocumentTest, ParsingEndsWhereverADocumentIsCut) {
    std::string const whole =
        "<?xml version=\"1.0\"?><!-- c --><a x=\"1\"><b y=\"2\">t</b><!-- d --><c/></a>";
    for (size_t length = 0; length <= whole.size(); ++length) {
        SCOPED_TRACE(length);
        LogCapture capture;
        try {
            parse(whole.substr(0, length));
        } catch (std::logic_error const&) {
        }
    }
}

TEST_F(DocumentTest, ABracketThatBeginsNothingIsAFault) {
    expect_fault("<a><b/><1></a>", "xml element a holds a '<' that begins no element");
    expect_fault("<a>t<", "xml element a holds a '<' that begins no element");
    expect_fault("<a><!doctype></a>", "xml element a holds a '<' that begins no element");
}

TEST_F(DocumentTest, NestingIsBounded) {
    auto const nested = [](size_t count) {
        std::string text;
        for (size_t i = 0; i < count; ++i) text += "<a>";
        text += "t";
        for (size_t i = 0; i < count; ++i) text += "</a>";
        return text;
    };

    ASSERT_TRUE(parse(nested(1000)));
    EXPECT_EQ(nested(1000), m_root.toString());
    expect_fault(nested(1001), "xml element a is deeper than 1000");
    EXPECT_FALSE(parse(nested(200000)));
}

TEST_F(DocumentTest, KeepsTheParserBusyOnAWrongEndTagBeforeTheRightOne) {
    // The child may use 50 ms of processor time, which is when its parser has not come back.
    auto const spin = [this] {
        itimerval const budget = {{0, 0}, {0, 50000}};
        setitimer(ITIMER_PROF, &budget, nullptr);
        parse("<a>t</b></a>");
        _exit(0);
    };

    EXPECT_EXIT(spin(), ::testing::KilledBySignal(SIGPROF), "");
}

TEST_F(DocumentTest, ParsingGoesOnBehindTheLastElement) {
    m_document.load_string("<a/> <b/>");
    Element second;

    EXPECT_TRUE(m_document.parse(m_root));
    EXPECT_TRUE(m_document.parse(second));
    EXPECT_FALSE(m_document.parse(m_root));

    EXPECT_EQ("a", m_root.name());
    EXPECT_EQ("b", second.name());
}

TEST_F(DocumentTest, LoadingATextBeginsAtItsStart) {
    ASSERT_TRUE(parse("<a/>"));
    ASSERT_TRUE(parse("<b/>"));

    EXPECT_EQ("b", m_root.name());
}

TEST_F(DocumentTest, LoadsAFileWithoutParsingIt) {
    std::ofstream(m_path) << "<a>\r\n t</a>\n";

    ASSERT_TRUE(m_document.load_file(m_path));

    EXPECT_EQ("<a>\r\n t</a>\n", m_document.m_text);
    EXPECT_EQ(0u, m_document.m_position);
    EXPECT_TRUE(m_document.parse(m_root));
    EXPECT_EQ("t", m_root.text());
}

TEST_F(DocumentTest, ADirectoryReadsAsAnEmptyText) {
    LogCapture capture;
    m_document.load_string("<a/>");

    EXPECT_TRUE(m_document.load_file(::testing::TempDir()));

    EXPECT_EQ("", m_document.m_text);
    EXPECT_EQ("", capture.text());
}

TEST_F(DocumentTest, LoadsAnEmptyFile) {
    std::ofstream{m_path};
    m_document.load_string("<a/>");

    EXPECT_TRUE(m_document.load_file(m_path));

    EXPECT_EQ("", m_document.m_text);
}

TEST_F(DocumentTest, AMissingFileIsNoNews) {
    LogCapture capture;

    m_document.load_string("<a/>");

    EXPECT_FALSE(m_document.load_file("/no/such/file.xml"));

    EXPECT_EQ("", capture.text());
    EXPECT_EQ("<a/>", m_document.m_text);
}

TEST_F(DocumentTest, SavesTheContentAlone) {
    std::ofstream(m_path) << "something much longer than what comes";

    EXPECT_TRUE(m_document.save_file(m_path, "<a></a>"));

    std::ifstream file(m_path);
    std::ostringstream content;
    content << file.rdbuf();
    EXPECT_EQ("<a></a>", content.str());
}

TEST_F(DocumentTest, AFileThatCannotBeOpenedIsLogged) {
    LogCapture capture;

    EXPECT_FALSE(m_document.save_file("/no/such/file.xml", "<a></a>"));

    EXPECT_EQ(1, capture.count("ERROR", std::string("fstream open file:/no/such/file.xml "
                                                    "fail,error:") +
                                            strerror(ENOENT)));
}

TEST_F(DocumentTest, KeepsAFailedWriteSilent) {
    LogCapture capture;

    EXPECT_TRUE(m_document.save_file("/dev/full", "<a></a>"));

    EXPECT_EQ("", capture.text());
}

}  // namespace
