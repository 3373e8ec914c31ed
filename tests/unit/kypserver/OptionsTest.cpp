#include "kypserver/Options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kypserver {
namespace {

class OptionsTest : public testing::Test {
protected:
    std::optional<int> parse(std::vector<char const*> arguments) {
        arguments.insert(arguments.begin(), "kypserver");
        return parse_options(static_cast<int>(arguments.size()), arguments.data(), m_options);
    }

    // Parses, expects a refusal and gives what standard error says.
    std::string refusal(std::vector<char const*> arguments) {
        testing::internal::CaptureStderr();
        auto const code = parse(arguments);
        std::string const said = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(code.has_value());
        EXPECT_NE(0, code.value_or(0));
        return said;
    }

    Options m_options;
};

TEST_F(OptionsTest, WithoutArgumentsServesTheUsualEndpoints) {
    EXPECT_FALSE(parse({}).has_value());

    EXPECT_TRUE(m_options.tcp && m_options.udp && m_options.domain && m_options.scan);
    EXPECT_EQ("0.0.0.0", m_options.tcpAddress.host);
    EXPECT_EQ(9999, m_options.tcpAddress.port);
    EXPECT_EQ("0.0.0.0", m_options.udpAddress.host);
    EXPECT_EQ(38898, m_options.udpAddress.port);
    EXPECT_EQ("/var/tmp/kyp/kypserver", m_options.domainPath);
    EXPECT_EQ(3, m_options.loops);
    EXPECT_EQ(4, m_options.workers);
    EXPECT_EQ(4194304U, m_options.maxWaitingBytes);
    EXPECT_FALSE(m_options.allowSetId);
    EXPECT_EQ(0, m_options.verbose);
    EXPECT_FALSE(m_options.files.receive);
    EXPECT_EQ(105, m_options.files.port);
    EXPECT_EQ("/var/tmp/kyp/spool", m_options.files.spoolDir);
    EXPECT_EQ(1U << 30, m_options.files.maxFileSize);
    EXPECT_EQ(8U, m_options.files.maxTransfers);
}

TEST_F(OptionsTest, TakesEveryOption) {
    EXPECT_FALSE(parse({"--tcp-address",
                        "127.0.0.1:1234",
                        "--udp-address",
                        ":1235",
                        "--domain-path",
                        "/tmp/kyp",
                        "--loops",
                        "2",
                        "--workers",
                        "1",
                        "--priority",
                        "99",
                        "--max-clients",
                        "7",
                        "--max-waiting-bytes",
                        "64kb",
                        "--max-component-bytes",
                        "3mb",
                        "--max-held-bytes",
                        "2mb",
                        "--max-topics",
                        "3",
                        "--receive-files",
                        "--file-port",
                        "600",
                        "--spool-dir",
                        "/tmp/spool",
                        "--max-file-size",
                        "2gb",
                        "--max-transfers",
                        "5",
                        "--quiet-ms",
                        "0",
                        "--allow-set-id",
                        "-vv"})
                     .has_value());

    EXPECT_EQ("127.0.0.1", m_options.tcpAddress.host);
    EXPECT_EQ(1234, m_options.tcpAddress.port);
    EXPECT_EQ("0.0.0.0", m_options.udpAddress.host);
    EXPECT_EQ(1235, m_options.udpAddress.port);
    EXPECT_EQ("/tmp/kyp", m_options.domainPath);
    EXPECT_EQ(2, m_options.loops);
    EXPECT_EQ(1, m_options.workers);
    EXPECT_EQ(99, m_options.priority);
    EXPECT_EQ(7U, m_options.maxClients);
    EXPECT_TRUE(m_options.files.receive);
    EXPECT_EQ(600, m_options.files.port);
    EXPECT_EQ("/tmp/spool", m_options.files.spoolDir);
    EXPECT_EQ(size_t{2} << 30, m_options.files.maxFileSize);
    EXPECT_EQ(5U, m_options.files.maxTransfers);
    EXPECT_EQ(65536U, m_options.maxWaitingBytes);
    EXPECT_EQ(3145728U, m_options.maxComponentBytes);
    EXPECT_EQ(2097152U, m_options.maxHeldBytes);
    EXPECT_EQ(3U, m_options.maxTopics);
    EXPECT_EQ(0, m_options.quietMs);
    EXPECT_TRUE(m_options.allowSetId);
    EXPECT_EQ(2, m_options.verbose);
}

TEST_F(OptionsTest, EndpointsCanBeSwitchedOff) {
    EXPECT_FALSE(parse({"--no-tcp", "--no-udp", "--no-scan"}).has_value());

    EXPECT_FALSE(m_options.scan);
    EXPECT_FALSE(m_options.tcp);
    EXPECT_FALSE(m_options.udp);
    EXPECT_TRUE(m_options.domain);
}

TEST_F(OptionsTest, RefusesToServeNothing) {
    EXPECT_NE(
        std::string::npos,
        refusal({"--no-tcp", "--no-udp", "--no-domain"}).find("no endpoint is left to serve"));
}

TEST_F(OptionsTest, NamesTheOptionThatIsWrong) {
    std::string const longPath = "/" + std::string(107, 'p');
    std::vector<std::vector<char const*>> const rows = {{"--tcp-address", "localhost"},
                                                        {"--tcp-address", "1.2.3.4:65536"},
                                                        {"--udp-address", "1.2.3"},
                                                        {"--loops", "1"},
                                                        {"--loops", "65"},
                                                        {"--workers", "0"},
                                                        {"--priority", "100"},
                                                        {"--max-clients", "0"},
                                                        {"--max-waiting-bytes", "-1"},
                                                        {"--max-component-bytes", "-1"},
                                                        {"--quiet-ms", "-1"},
                                                        {"--max-held-bytes", "-1"},
                                                        {"--max-held-bytes", "12x"},
                                                        {"--domain-path", longPath.c_str()},
                                                        {"--file-port", "0"},
                                                        {"--file-port", "4097"},
                                                        {"--max-file-size", "-1"},
                                                        {"--max-transfers", "0"},
                                                        {"--unknown"}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row[0]);

        EXPECT_NE(std::string::npos, refusal(row).find(row[0]));
    }
}

TEST_F(OptionsTest, ThePathMayHave107Characters) {
    std::string const path = "/" + std::string(106, 'p');

    EXPECT_FALSE(parse({"--domain-path", path.c_str()}).has_value());
}

TEST_F(OptionsTest, HelpAndVersionEndWithSuccess) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, parse({"--help"}));
    EXPECT_EQ(0, parse({"--version"}));
    std::string const said = testing::internal::GetCapturedStdout();

    EXPECT_NE(std::string::npos, said.find("--max-waiting-bytes"));
    EXPECT_NE(std::string::npos, said.find("kypserver 0.3.1\n"));
}

TEST(ParseAddressTest, KeepsWhatTheTextLeavesOut) {
    struct Row {
        char const* text;
        bool good;
        char const* host;
        uint16_t port;
    };
    for (Row const& row :
         {Row{"1.2.3.4", true, "1.2.3.4", 9}, Row{":80", true, "0.0.0.0", 80},
          Row{"1.2.3.4:0", true, "1.2.3.4", 0}, Row{"1.2.3.4:65535", true, "1.2.3.4", 65535},
          Row{"1.2.3.4:65536", false, "0.0.0.0", 9}, Row{"1.2.3.4:", false, "0.0.0.0", 9},
          Row{"", false, "0.0.0.0", 9}, Row{":", false, "0.0.0.0", 9},
          Row{"1.2.3.4:8a", false, "0.0.0.0", 9}, Row{"host:80", false, "0.0.0.0", 9},
          Row{"::1", false, "0.0.0.0", 9}}) {
        SCOPED_TRACE(row.text);
        Address address = {"0.0.0.0", 9};

        EXPECT_EQ(row.good, parse_address(row.text, address));
        EXPECT_EQ(row.host, address.host);
        EXPECT_EQ(row.port, address.port);
    }
}

}  // namespace
}  // namespace kypserver
