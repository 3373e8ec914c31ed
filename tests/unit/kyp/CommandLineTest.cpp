#include "kyp/CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kyp/Failure.h"

namespace {

using namespace kyptool;
using namespace std::chrono_literals;
using testing::HasSubstr;

class CommandLineTest : public testing::Test {
protected:
    // Parses the words and keeps what was printed.
    std::optional<int> parse(std::vector<char const*> words) {
        words.insert(words.begin(), "kyp");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        auto const code = m_line.parse(static_cast<int>(words.size()), words.data());
        m_out = testing::internal::GetCapturedStdout();
        m_err = testing::internal::GetCapturedStderr();
        return code;
    }

    CCommandLine m_line;
    std::string m_out;
    std::string m_err;
};

TEST_F(CommandLineTest, KnowsWhatToDoByDefault) {
    unsetenv("KYP_TARGET");
    ASSERT_FALSE(parse({"ping"})) << m_err;

    Settings const& settings = m_line.settings();
    EXPECT_EQ("local", settings.target.text);
    EXPECT_EQ(2s, settings.timeout);
    EXPECT_FALSE(settings.json);
    EXPECT_FALSE(settings.quiet);
    EXPECT_EQ(0, settings.verbose);
}

TEST_F(CommandLineTest, TakesGlobalOptionsInFrontOfACommand) {
    ASSERT_FALSE(parse({"--json", "-q", "-vv", "-t", "10.0.0.1", "--timeout", "50ms", "ping"}));

    Settings const& settings = m_line.settings();
    EXPECT_EQ("10.0.0.1", settings.target.text);
    EXPECT_EQ(50ms, settings.timeout);
    EXPECT_TRUE(settings.json);
    EXPECT_TRUE(settings.quiet);
    EXPECT_EQ(2, settings.verbose);
}

TEST_F(CommandLineTest, TakesGlobalOptionsBehindACommand) {
    ASSERT_FALSE(parse({"call", "100", "-t", "10.0.0.1", "--timeout", "3", "--json", "-v"}));

    Settings const& settings = m_line.settings();
    EXPECT_EQ("10.0.0.1", settings.target.text);
    EXPECT_EQ(3s, settings.timeout);
    EXPECT_TRUE(settings.json);
    EXPECT_EQ(1, settings.verbose);
}

TEST_F(CommandLineTest, TakesTheTargetAsAWord) {
    for (char const* name : {"id", "ping", "stat", "bench"}) {
        SCOPED_TRACE(name);
        CCommandLine line;
        std::vector<char const*> const words = {"kyp", name, "10.0.0.1"};
        ASSERT_FALSE(line.parse(3, words.data()));
        EXPECT_EQ("10.0.0.1", line.settings().target.text);
    }
}

TEST_F(CommandLineTest, TakesTheTargetFromTheEnvironmentLast) {
    setenv("KYP_TARGET", "10.0.0.9", 1);
    ASSERT_FALSE(parse({"ping"}));
    EXPECT_EQ("10.0.0.9", m_line.settings().target.text);

    CCommandLine line;
    std::vector<char const*> const words = {"kyp", "ping", "10.0.0.1"};
    ASSERT_FALSE(line.parse(3, words.data()));
    EXPECT_EQ("10.0.0.1", line.settings().target.text);
}

TEST_F(CommandLineTest, HelpAndVersionAreFine) {
    EXPECT_EQ(EXIT_FINE, parse({"--help"}));
    EXPECT_THAT(m_out, HasSubstr("Exit codes:"));
    EXPECT_EQ(EXIT_FINE, parse({"--version"}));
    EXPECT_EQ("kyp 0.3.1\n", m_out);
}

TEST_F(CommandLineTest, SaysWhatIsWrongAndWhereHelpIs) {
    struct Row {
        std::vector<char const*> words;
        char const* reason;
    };
    Row const rows[] = {
        {{}, "no command was given\nSee 'kyp --help'."},
        {{"bogus"}, "nothing here takes 'bogus'\nSee 'kyp --help'."},
        {{"ping", "local", "more"}, "nothing here takes 'more'\nSee 'kyp ping --help'."},
        {{"call"}, "PORT is required\nSee 'kyp call --help'."},
        {{"call", "0"}, "'0' is no number of 1 to 4096"},
        {{"call", "4097"}, "'4097' is no number of 1 to 4096"},
        {{"call", "5", "-g", "0x100000000"}, "is no number of 0 to 4294967295"},
        {{"call", "5", "x", "--hex", "00"}, "give one of DATA, --hex and --file"},
        {{"call", "5", "--hex", "0"}, "'0' are no hexadecimal pairs"},
        {{"call", "5", "--format", "xml"}, "'xml' is none of auto, text, hex and raw"},
        {{"read", "5", "data"}, "nothing here takes 'data'"},
        {{"-t", "foo", "ping"}, "'foo' is none of 'local', the path of a socket"},
        {{"--timeout", "soon", "ping"}, "'soon' is no time such as 2, 0.5s or 200ms"},
        {{"id", "--set", "1.2"}, "'1.2' is no device id"},
        {{"id", "--set", "0.0.0.0.0.0"}, "'0.0.0.0.0.0' is no device id"},
        {{"ping", "-c", "0"}, "'0' is no number from 1 on"},
        {{"ping", "-s", "6291428"}, "is no size of 0 to 6291427 bytes"},
        {{"pub", ""}, "a topic has a name"},
        {{"sub"}, "TOPIC is required"},
        {{"send"}, "FILE is required"},
        {{"scan", "-d", "long"}, "'long' is no time"},
        {{"stat", "--watch=x"}, "'x' is no time such as 2 or 0.5s"},
        {{"bench", "-s", "1,,2"}, "'1,,2' is no list of sizes"},
        {{"bench", "-n", "257"}, "'257' is no number of 1 to 256"},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.reason);
        CCommandLine line;
        std::vector<char const*> words = row.words;
        words.insert(words.begin(), "kyp");
        testing::internal::CaptureStderr();
        EXPECT_EQ(EXIT_USAGE, line.parse(static_cast<int>(words.size()), words.data()));
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(row.reason));
    }
}

TEST_F(CommandLineTest, EveryCommandTellsItsOptionsAndTheGlobalOnes) {
    for (char const* name :
         {"scan", "id", "ping", "read", "write", "call", "pub", "sub", "send", "stat", "bench"}) {
        SCOPED_TRACE(name);
        CCommandLine line;
        std::vector<char const*> const words = {"kyp", name, "--help"};
        testing::internal::CaptureStdout();
        EXPECT_EQ(EXIT_FINE, line.parse(3, words.data()));
        std::string const help = testing::internal::GetCapturedStdout();
        EXPECT_THAT(help, HasSubstr("--target"));
        EXPECT_THAT(help, HasSubstr("--timeout"));
    }
}

}  // namespace
