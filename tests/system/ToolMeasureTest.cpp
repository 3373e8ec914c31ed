// The command-line tool with a watch in its hand: `kyp ping` and `kyp bench`.
#include "ToolFixture.h"
#include "support/TerminalProcess.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class ToolMeasureTest : public ToolTest {};

TEST_F(ToolMeasureTest, PingTellsEachAnswerAndSumsUp) {
    start_server();

    Ended const ended = kyp({"ping", "-c", "3", "-i", "1ms", "-s", "100"});

    EXPECT_EQ(0, ended.code) << ended.err;
    EXPECT_EQ("ping port 100 of local: 100 bytes\n", ended.err);
    EXPECT_THAT(ended.out, MatchesRegex("seq=1 100 bytes time=[0-9.]+ ms\n"
                                        "seq=2 100 bytes time=[0-9.]+ ms\n"
                                        "seq=3 100 bytes time=[0-9.]+ ms\n"
                                        "--- local ---\n"
                                        "3 sent, 3 answered, 0% lost, time [0-9]+ ms\n"
                                        "round trip min/median/p99/max = "
                                        "[0-9.]+/[0-9.]+/[0-9.]+/[0-9.]+ ms\n"));
}

TEST_F(ToolMeasureTest, PingGivesProgramsOneObjectALine) {
    start_server();

    Ended const ended = kyp({"ping", "127.0.0.1", "-c", "2", "-i", "1ms", "--json"});

    auto const lines = json_lines(ended.out);
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(1, lines[0]["seq"]);
    EXPECT_EQ(32, lines[0]["bytes"]);
    EXPECT_EQ(true, lines[0]["intact"]);
    EXPECT_TRUE(lines[0]["time_ms"].is_number());
    EXPECT_EQ(2, lines[2]["sent"]);
    EXPECT_EQ(2, lines[2]["answered"]);
    EXPECT_GE(lines[2]["max_ms"], lines[2]["min_ms"]);
    EXPECT_EQ("", ended.err);
}

TEST_F(ToolMeasureTest, QuietPingOnlySumsUp) {
    start_server();

    Ended const ended = kyp({"ping", "-q", "-c", "2", "-i", "1ms"});

    EXPECT_THAT(ended.out, StartsWith("--- local ---\n"));
    EXPECT_EQ("", ended.err);
}

TEST_F(ToolMeasureTest, CtrlCSumsUpAtOnce) {
    play_device();
    TerminalProcess terminal({"kyp", "ping", "127.0.0.1", "--timeout", "60"});
    accept();
    FrameParts const request = next_request();
    answer(request, Bytes(request.rest.begin() + 8, request.rest.end()));
    ASSERT_TRUE(terminal.wait_for_output("seq=1 32 bytes"));
    next_request();  // which nobody answers

    terminal.interrupt();

    EXPECT_EQ(0, terminal.wait_exit(std::chrono::seconds(20)));
    EXPECT_THAT(terminal.output(), HasSubstr("2 sent, 1 answered, 50% lost"));
}

TEST_F(ToolMeasureTest, PingCountsWhatIsLost) {
    play_device();

    Ended const ended =
        kyp_as_it_is({"ping", "127.0.0.1", "-c", "2", "-i", "1ms", "--timeout", "0.05"});

    EXPECT_EQ(3, ended.code);
    EXPECT_THAT(ended.out,
                AllOf(HasSubstr("seq=1 recv message timeout (0x1008)\n"), EndsWith(" ms\n"),
                      HasSubstr("2 sent, 0 answered, 100% lost"), Not(HasSubstr("round trip"))));
}

TEST_F(ToolMeasureTest, PingTellsARefusal) {
    start_server();

    Ended const ended = kyp({"ping", "-p", "600", "-c", "1"});

    EXPECT_EQ(1, ended.code);
    EXPECT_THAT(ended.out, StartsWith("seq=1 router port not register (0x1006)\n"));
}

TEST_F(ToolMeasureTest, PingLooksAtWhatComesBack) {
    play_device();
    auto const child = start({"ping", "127.0.0.1", "-c", "1"});
    accept();
    answer(next_request(), text("something else"));

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_THAT(ended.out, HasSubstr("seq=1 14 bytes time="));
    EXPECT_THAT(ended.out, HasSubstr(" ms, not what was sent\n"));
}

TEST_F(ToolMeasureTest, ADeadlineEndsAWaitForTheNextRequest) {
    start_server();

    Ended const ended = kyp({"ping", "-i", "600", "-w", "1"});

    EXPECT_EQ(0, ended.code);
    EXPECT_THAT(ended.out, HasSubstr("1 sent, 1 answered"));
}

TEST_F(ToolMeasureTest, ADeadlineEndsAWaitForAnAnswer) {
    play_device();

    Ended const ended = kyp({"ping", "127.0.0.1", "-w", "50ms"});

    EXPECT_EQ(3, ended.code);
    EXPECT_THAT(ended.out, HasSubstr("1 sent, 0 answered"));
}

TEST_F(ToolMeasureTest, FewerAnswersThanAskedForByTheDeadlineAreAFailure) {
    start_server();

    EXPECT_EQ(3, kyp({"ping", "-c", "1000000", "-i", "1ms", "-w", "300ms"}).code);
}

TEST_F(ToolMeasureTest, PingWaitsForADeviceThatStartsUp) {
    auto const child = start({"ping", "127.0.0.1", "-i", "100ms"});
    ASSERT_TRUE(child->wait_for_output("seq=1 connection disconnect (0x5)\n"));

    start_server();

    EXPECT_TRUE(child->wait_for_output(" 32 bytes time="));
    child->signal(SIGINT);
    EXPECT_EQ(0, child->wait_exit());
}

TEST_F(ToolMeasureTest, BenchCountsRoundTrips) {
    start_server();

    Ended const ended = kyp({"bench", "-s", "0,1k", "-c", "50", "-n", "3", "-d", "60", "--json"});

    EXPECT_EQ(0, ended.code) << ended.err;
    auto const lines = json_lines(ended.out);
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(0, lines[0]["size"]);
    EXPECT_EQ(1024, lines[1]["size"]);
    for (Json const& line : lines) {
        EXPECT_EQ(50, line["requests"]);
        EXPECT_EQ(0, line["failed"]);
        EXPECT_EQ(3, line["connections"]);
        EXPECT_GT(line["requests_per_second"], 0);
        EXPECT_GE(line["p99_ms"], line["median_ms"]);
    }
}

TEST_F(ToolMeasureTest, BenchPrintsATable) {
    start_server();

    Ended const ended = kyp({"bench", "127.0.0.1", "-s", "32", "-d", "20ms"});

    EXPECT_EQ(0, ended.code) << ended.err;
    EXPECT_EQ("port 100 of 127.0.0.1, 1 connection\n", ended.err);
    EXPECT_THAT(ended.out, MatchesRegex(" +size  requests .* max ms\n +32 +[0-9]+ .*\n"));
}

TEST_F(ToolMeasureTest, BenchTellsARefusal) {
    start_server();

    Ended const ended = kyp({"bench", "-p", "600", "-q"});

    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: port 600 of local: router port not register (0x1006)\n", ended.err);
}

TEST_F(ToolMeasureTest, BenchLooksAtWhatComesBack) {
    play_device();
    auto const child = start({"bench", "127.0.0.1", "-q"});
    accept();
    answer(next_request(), text("short"));

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: port 100 of 127.0.0.1 does not send back what it gets\n", ended.err);
}

TEST_F(ToolMeasureTest, CtrlCShowsWhatBenchHasMeasured) {
    start_server();
    auto const child = start({"bench", "-s", "32,64", "-d", "600"});
    ASSERT_TRUE(child->wait_for_output("max ms"));

    child->signal(SIGINT);

    EXPECT_EQ(0, child->wait_exit());
    EXPECT_THAT(child->output(), MatchesRegex(".*max ms\n +32 .*\n"));
}

TEST_F(ToolMeasureTest, BenchSpeaksToNobodyThatIsNotThere) {
    EXPECT_EQ(3, kyp({"bench", "127.0.0.1"}).code);
}

}  // namespace
