// The command-line tool on topics: `kyp pub` and `kyp sub`.
#include "ToolFixture.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class ToolTopicsTest : public ToolTest {
protected:
    // A subscriber whose subscription is in force.
    Child subscriber(Words words) {
        words.insert(words.begin(), "sub");
        Child child = start(words);
        EXPECT_TRUE(child->wait_for_output("subscribed to")) << child->all_output();
        return child;
    }
};

TEST_F(ToolTopicsTest, APublicationIsConfirmedByARequestBehindIt) {
    play_device();
    auto const child = start({"pub", "news", "hello", "-t", "127.0.0.1", "-g", "1", "-o", "0x10"});
    accept();

    FrameParts const published = next_request();
    EXPECT_EQ(103, published.port);
    EXPECT_EQ(8, published.cmd);
    EXPECT_EQ(hex(join({address_head(1, 16), pubsub_body("pub", "news", text("hello"), 1, 16)})),
              hex(published.rest));
    FrameParts const question = next_request();
    EXPECT_EQ(100, question.port);
    EXPECT_EQ(-1, child->wait_exit(std::chrono::milliseconds(0)));
    answer(question, {}, KYP_ERR_ROUTE_NOT_REGISTERED);

    Ended const ended = end_of(child);
    EXPECT_EQ(0, ended.code);
    EXPECT_EQ("published 5 bytes on news\n", ended.err);
    EXPECT_EQ("", ended.out);
}

TEST_F(ToolTopicsTest, APublicationThatNobodyReadIsNotReachable) {
    play_device();

    Ended const ended =
        kyp_as_it_is({"pub", "news", "hello", "-t", "127.0.0.1", "--timeout", "0.2"});

    EXPECT_EQ(3, ended.code);
    EXPECT_EQ(
        "kyp: 127.0.0.1 does not say whether it has read the message: recv message timeout "
        "(0x1008)\n",
        ended.err);
}

TEST_F(ToolTopicsTest, ShowsTheMessagesOfSeveralTopics) {
    start_server();
    auto const child = subscriber({"weather", "news", "-c", "3"});

    EXPECT_EQ(0, kyp({"pub", "news", "hello"}).code);
    EXPECT_EQ(0, kyp({"pub", "other", "unseen"}).code);
    EXPECT_EQ(0, kyp({"pub", "weather", "-x", "ff"}).code);
    EXPECT_EQ(0, kyp({"pub", "weather"}).code);

    Ended const ended = end_of(child);
    EXPECT_EQ(0, ended.code);
    EXPECT_EQ(
        "news: hello\n"
        "weather: 1 bytes\n"
        "00000000  ff                                                |.|\n"
        "weather: \n",
        ended.out);
    EXPECT_EQ("subscribed to weather, news\n", ended.err);
}

TEST_F(ToolTopicsTest, GivesProgramsOneObjectALine) {
    start_server();
    auto const child = subscriber({"news", "--json", "-c", "2"});

    EXPECT_EQ(0, kyp({"pub", "news", "he\"llo", "-g", "7", "-o", "8"}).code);
    EXPECT_EQ(0, kyp({"pub", "news", "-x", "00ff"}).code);

    auto const lines = json_lines(end_of(child).out);
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("news", lines[0]["topic"]);
    EXPECT_EQ(7, lines[0]["group"]);
    EXPECT_EQ(8, lines[0]["offset"]);
    EXPECT_EQ("he\"llo", lines[0]["text"]);
    EXPECT_THAT(lines[0]["time"].get<std::string>(),
                MatchesRegex("[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+\\.[0-9]+Z"));
    EXPECT_EQ("00ff", lines[1]["hex"]);
}

TEST_F(ToolTopicsTest, BeginsLinesWithTheTimeOnRequest) {
    start_server();
    auto const child = subscriber({"news", "-T", "-c", "1"});

    EXPECT_EQ(0, kyp({"pub", "news", "hello"}).code);

    EXPECT_THAT(end_of(child).out,
                MatchesRegex("[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[0-9]+ news: hello\n"));
}

TEST_F(ToolTopicsTest, RawIsTheDataOfAllMessages) {
    start_server();
    auto const child = subscriber({"news", "-F", "raw", "-c", "2"});

    EXPECT_EQ(0, kyp({"pub", "news", "one"}).code);
    EXPECT_EQ(0, kyp({"pub", "news", "-x", "00"}).code);

    EXPECT_EQ(std::string("one\0", 4), end_of(child).out);
}

TEST_F(ToolTopicsTest, ATimeWithoutACountEndsWell) {
    start_server();

    Ended const ended = kyp({"sub", "news", "-w", "0.1"});

    EXPECT_EQ(0, ended.code);
    EXPECT_EQ("", ended.out);
}

TEST_F(ToolTopicsTest, TooFewMessagesInTimeAreAFailure) {
    start_server();

    Ended const ended = kyp({"sub", "news", "-c", "2", "-w", "0.1"});

    EXPECT_EQ(3, ended.code);
    EXPECT_THAT(ended.err, HasSubstr("0 of 2 messages have come: recv message timeout (0x1008)"));
}

TEST_F(ToolTopicsTest, ASignalIsTheUsualEnd) {
    start_server();
    auto const child = subscriber({"news"});

    child->signal(SIGINT);

    EXPECT_EQ(0, child->wait_exit());
}

TEST_F(ToolTopicsTest, ForeignTextDoesNotMoveTheTerminal) {
    play_device();
    auto const child = start({"sub", "news", "-c", "1", "-t", "127.0.0.1"});
    accept();
    next_request();
    answer(next_request(), {});
    ASSERT_TRUE(child->wait_for_output("subscribed to"));
    m_peer.send(delivery_frame(0, "news", text("\x1b[2Jhello")));

    Ended const ended = end_of(child);
    EXPECT_THAT(ended.out, Not(HasSubstr("\x1b")));
    EXPECT_THAT(ended.out, HasSubstr("|.[2Jhello|"));
}

TEST_F(ToolTopicsTest, TellsThatTheDeviceIsGoneAndBack) {
    start_server();
    auto const child = subscriber({"news", "-t", "127.0.0.1"});

    m_server.reset();
    ASSERT_TRUE(child->wait_for_output(
        "127.0.0.1 is gone, trying to reach it again: connection disconnect (0x5)\n"));
    start_server();
    ASSERT_TRUE(child->wait_for_output("127.0.0.1 is back\n"));
    ASSERT_TRUE(eventually(
        [&] {
            kyp({"pub", "news", "again"});
            return child->output().find("news: again\n") != std::string::npos;
        },
        std::chrono::seconds(30)));
}

}  // namespace
