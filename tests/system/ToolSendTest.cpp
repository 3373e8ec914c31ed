// The command-line tool with work that takes its time: `kyp send`, and `kyp stat` on a server that
// the tests play.
#include <cstdlib>
#include <filesystem>

#include "ToolFixture.h"
#include "support/TerminalProcess.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ToolSendTest : public ToolTest {
protected:
    ToolSendTest() { play_device(); }

    // Answers the next request and gives what it carried. `type` has its top bit set when the
    // device has the whole file.
    Bytes take(uint8_t type, uint32_t status = 0) {
        FrameParts const request = next_request();
        EXPECT_EQ(105, request.port);
        EXPECT_EQ(hex(address_head(4098, 1)),
                  hex(Bytes(request.rest.begin(), request.rest.begin() + 8)));
        answer(request, join({{type}, u32_be(77), u32_be(status)}));
        return Bytes(request.rest.begin() + 8, request.rest.end());
    }

    // Takes a whole file of `size` bytes and gives its content.
    Bytes take_file(size_t size) {
        take(1);
        Bytes content;
        while (content.size() < size) {
            size_t const left = size - content.size();
            Bytes const chunk = take(left <= 8192 ? 0x82 : 2);
            if (chunk.size() <= 9) break;
            content.insert(content.end(), chunk.begin() + 9, chunk.end());
        }
        if (size % 8192 == 0) {
            EXPECT_EQ(Bytes{}, take(0x82));
        }
        return content;
    }
};

TEST_F(ToolSendTest, SendsFilesOfAnySize) {
    for (size_t const size : {0u, 1u, 8191u, 8192u, 8193u, 100000u}) {
        SCOPED_TRACE(size);
        write_file("/tmp/image.bin", pattern(size));
        auto const child = start({"-q", "send", "/tmp/image.bin", "-t", "127.0.0.1", "--json"});
        accept();
        EXPECT_TRUE(pattern(size) == take_file(size));

        Ended const ended = end_of(child);
        EXPECT_EQ(0, ended.code) << ended.err;
        EXPECT_EQ("", ended.err);
        EXPECT_EQ(size, json_of(ended)["size"]);
    }
}

TEST_F(ToolSendTest, TellsTheDeviceWhereToPutIt) {
    write_file("/tmp/image.bin", text("x"));
    auto const child = start({"send", "/tmp/image.bin", "-t", "127.0.0.1", "-r", "boot/new.bin"});
    accept();

    EXPECT_EQ(
        hex(join({{1, 9, 12}, u32_be(1), u32_be(8192), u32_be(1), text("image.binboot/new.bin")})),
        hex(take(1)));
    take(0x82);

    EXPECT_EQ(0, child->wait_exit());
}

TEST_F(ToolSendTest, PrintsPlainLinesOffTheTerminal) {
    write_file("/tmp/image.bin", pattern(81920));
    auto const child = start({"send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    take_file(81920);

    Ended const ended = end_of(child);
    EXPECT_EQ(0, ended.code);
    EXPECT_EQ("", ended.out);
    EXPECT_THAT(ended.err, Not(HasSubstr("\r")));
    EXPECT_THAT(ended.err, StartsWith("image.bin: 10%, 8.0 KiB of 80.0 KiB, "));
    EXPECT_THAT(ended.err, HasSubstr("\nimage.bin: 90%, 72.0 KiB of 80.0 KiB, "));
    EXPECT_THAT(ended.err, HasSubstr("\nsent image.bin to 127.0.0.1: 80.0 KiB in "));
}

TEST_F(ToolSendTest, MovesABarOnATerminal) {
    write_file("/tmp/image.bin", pattern(81920));
    TerminalProcess terminal(
        {"kyp", "--timeout", "20", "send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    take_file(81920);

    EXPECT_EQ(0, terminal.wait_exit());
    EXPECT_THAT(terminal.output(), StartsWith("\rimage.bin   0% ["));
    EXPECT_THAT(terminal.output(), HasSubstr("\rimage.bin 100% [=="));
    EXPECT_THAT(terminal.output(), HasSubstr("\nsent image.bin to 127.0.0.1: 80.0 KiB in "));
}

TEST_F(ToolSendTest, TellsWhyTheDeviceDoesNotTakeIt) {
    write_file("/tmp/image.bin", pattern(100000));
    auto const child = start({"send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    take(1, KYP_ERR_CREATE_FILE);

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: image.bin to port 105 of 127.0.0.1: create file fail (0x3000)\n", ended.err);
    EXPECT_TRUE(m_peer.drain_until_closed());
}

TEST_F(ToolSendTest, AFullDiskEndsItInTheMiddle) {
    write_file("/tmp/image.bin", pattern(100000));
    auto const child = start({"-q", "send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    take(1);
    take(2);
    take(2, KYP_ERR_DISK_FULL);

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: image.bin to port 105 of 127.0.0.1: disk is full (0x2009)\n", ended.err);
}

TEST_F(ToolSendTest, APortThatNobodyServesIsARefusal) {
    write_file("/tmp/image.bin", text("x"));
    auto const child = start({"send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    answer(next_request(), {}, KYP_ERR_ROUTE_NOT_REGISTERED);

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: image.bin to port 105 of 127.0.0.1: router port not register (0x1006)\n",
              ended.err);
}

TEST_F(ToolSendTest, ADeviceThatFallsSilentIsNotReachable) {
    write_file("/tmp/image.bin", pattern(100000));
    auto const child = start({"-q", "send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    take(1);

    Ended const ended = end_of(child);
    EXPECT_EQ(3, ended.code);
    EXPECT_EQ("kyp: image.bin to port 105 of 127.0.0.1: recv message timeout (0x1008)\n",
              ended.err);
}

TEST_F(ToolSendTest, ADeviceThatDoesNotConfirmTheWholeHasNotTakenIt) {
    write_file("/tmp/image.bin", text("x"));
    auto const child = start({"-q", "send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    take(1);
    take(2);

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_THAT(ended.err, HasSubstr("the device does not say that it has the whole file"));
}

TEST_F(ToolSendTest, GarbageInTheMiddleIsNoSuccess) {
    write_file("/tmp/image.bin", pattern(20000));
    auto const child = start({"-q", "send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    take(1);
    FrameParts const request = next_request();
    answer(request, pattern(500));

    EXPECT_NE(0, child->wait_exit());
}

TEST_F(ToolSendTest, ALocalServerTakesFilesToo) {
    write_file("/tmp/image.bin", pattern(10000));
    RawListener listener = RawListener::unix_path("/tmp/socket");
    auto const child = start({"-q", "send", "/tmp/image.bin", "-t", "/tmp/socket"});
    m_peer = listener.accept();
    EXPECT_TRUE(pattern(10000) == take_file(10000));

    EXPECT_EQ(0, child->wait_exit());
}

TEST_F(ToolSendTest, CtrlCCancelsBetweenTwoChunks) {
    ASSERT_EQ(0, system("truncate -s 1G /tmp/image.bin"));
    TerminalProcess terminal(
        {"kyp", "--timeout", "20", "send", "/tmp/image.bin", "-t", "127.0.0.1"});
    accept();
    take(1);
    take(2);
    ASSERT_TRUE(terminal.wait_for_output("image.bin   0% ["));

    terminal.interrupt();
    // Answered as long as chunks come.
    for (Bytes frame = m_peer.receive_frame(); !frame.empty(); frame = m_peer.receive_frame()) {
        answer(take_apart(frame), join({{2}, u32_be(77), u32_be(0)}));
    }

    EXPECT_EQ(128 + SIGINT, terminal.wait_exit());
    EXPECT_THAT(terminal.output(), HasSubstr("cancelled: what the device has is not the whole of "
                                             "/tmp/image.bin\r\n"));
}

class ToolSendToServerTest : public ToolTest {
protected:
    ToolSendToServerTest() { start_server({"--receive-files"}); }
};

TEST_F(ToolSendToServerTest, AServerHasTheSameBytes) {
    write_file("/tmp/image.bin", pattern(20 << 20));

    for (char const* target : {"127.0.0.1", "local"}) {
        SCOPED_TRACE(target);
        Ended const ended = kyp({"-q", "send", "/tmp/image.bin", "-t", target});
        EXPECT_EQ(0, ended.code) << ended.err;
        EXPECT_EQ(0, system("cmp /tmp/image.bin /var/tmp/kyp/spool/image.bin && rm "
                            "/var/tmp/kyp/spool/image.bin"));
    }
}

TEST_F(ToolSendToServerTest, ACancelledFileIsNotThere) {
    ASSERT_EQ(0, system("truncate -s 1000M /tmp/image.bin"));
    TerminalProcess terminal(
        {"kyp", "--timeout", "20", "send", "/tmp/image.bin", "-t", "127.0.0.1"});
    ASSERT_TRUE(terminal.wait_for_output("image.bin   0% ["));
    ASSERT_TRUE(eventually([] { return !std::filesystem::is_empty("/var/tmp/kyp/spool"); }));

    terminal.interrupt();

    EXPECT_EQ(128 + SIGINT, terminal.wait_exit());
    EXPECT_TRUE(eventually([] { return std::filesystem::is_empty("/var/tmp/kyp/spool"); }));
}

TEST_F(ToolSendToServerTest, AServerTellsWhatIsTooLarge) {
    ASSERT_EQ(0, system("truncate -s 2G /tmp/image.bin"));

    Ended const ended = kyp({"-q", "send", "/tmp/image.bin"});

    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: image.bin to port 105 of local: packet length too long (0x100d)\n", ended.err);
}

TEST_F(ToolSendTest, LooksAtTheFileBeforeItAsks) {
    struct Row {
        std::string file;
        std::string why;
    };
    Row const rows[] = {
        {"/nowhere", "No such file or directory"},
        {"/tmp", "it is no regular file"},
        {"/dev/zero", "it is no regular file"},
        {"/tmp/" + std::string(251, 'a'), "its path has more than 255 bytes"},
        {"/tmp/large", "it has 4 GiB or more"},
    };
    ASSERT_EQ(0, system("truncate -s 4G /tmp/large"));
    for (Row const& row : rows) {
        SCOPED_TRACE(row.why);
        Ended const ended = kyp({"send", row.file, "-t", "127.0.0.1"});
        EXPECT_EQ(2, ended.code);
        EXPECT_EQ("kyp: " + row.file + " cannot be sent: " + row.why + "\n", ended.err);
    }
    EXPECT_FALSE(m_listener.accept(std::chrono::milliseconds(0)).connected());
}

// ---- stat

TEST_F(ToolSendTest, StatShowsWhateverTheServerTells) {
    auto const child = start({"stat", "127.0.0.1"});
    accept();
    FrameParts const request = next_request();
    EXPECT_EQ(104, request.port);
    EXPECT_EQ(9, request.cmd);
    EXPECT_EQ(hex(address_head(0, 0)), hex(request.rest));
    answer(request, text(R"({"version":"9","clients":[{"id":1,"new":"\u001b[2J"}],"x":{"y":2}})"));

    Ended const ended = end_of(child);
    EXPECT_EQ(0, ended.code);
    EXPECT_EQ(
        "version  9\n\n"
        "clients\n"
        "id  new\n"
        " 1  \\x1b[2J\n\n"
        "x\n"
        "y  2\n",
        ended.out);
}

TEST_F(ToolSendTest, StatGivesProgramsTheObjectItself) {
    auto const child = start({"stat", "127.0.0.1", "--json"});
    accept();
    answer(next_request(), text(R"({ "b": 1, "a": [ 1, 2 ] })"));

    EXPECT_EQ("{\"b\":1,\"a\":[1,2]}\n", end_of(child).out);
}

TEST_F(ToolSendTest, StatTellsThatAServerHasNone) {
    auto const child = start({"stat", "127.0.0.1"});
    accept();
    answer(next_request(), {}, KYP_ERR_ROUTE_NOT_REGISTERED);

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: the state of 127.0.0.1: router port not register (0x1006)\n", ended.err);
}

TEST_F(ToolSendTest, StatRefusesWhatIsNoState) {
    auto const child = start({"stat", "127.0.0.1"});
    accept();
    answer(next_request(), text("\x1bgarbage"));

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: the answer is no JSON object: \\x1bgarbage\n", ended.err);
}

TEST_F(ToolSendTest, StatRefusesAStateThatIsNestedTooDeeply) {
    size_t const depth = 2000000;
    for (Words const& words : {Words{"stat", "127.0.0.1"}, Words{"stat", "127.0.0.1", "--json"}}) {
        SCOPED_TRACE(words.back());
        auto const child = start(words);
        accept();
        answer(next_request(),
               text("{\"a\":" + std::string(depth, '[') + std::string(depth, ']') + "}"));

        Ended const ended = end_of(child);
        EXPECT_EQ(1, ended.code);
        EXPECT_EQ("kyp: the answer is nested too deeply\n", ended.err);
    }
}

TEST_F(ToolSendTest, StatWatchesUntilItIsStopped) {
    auto const child = start({"stat", "127.0.0.1", "--watch", "1ms"});
    accept();
    answer(next_request(), text(R"({"n":1})"));
    answer(next_request(), text(R"({"n":2})"));
    ASSERT_TRUE(child->wait_for_output("n  1\n\nn  2\n"));

    child->signal(SIGINT);

    EXPECT_EQ(0, child->wait_exit());
    EXPECT_THAT(child->output(), Not(HasSubstr("\x1b")));
}

TEST_F(ToolSendTest, StatStaysInItsPlaceOnATerminal) {
    TerminalProcess terminal({"kyp", "stat", "--timeout", "20", "127.0.0.1", "--watch=1ms"});
    accept();
    answer(next_request(), text(R"({"n":1})"));
    answer(next_request(), text(R"({"n":2})"));

    ASSERT_TRUE(terminal.wait_for_output("n  2\r\n"));
    EXPECT_THAT(terminal.output(), HasSubstr("\x1b[H\x1b[2J\x1b[3Jn  1\r\n\x1b[H"));
}

TEST_F(ToolSendTest, StatSpeaksToTheRealServer) {
    m_listener.close();
    start_server();

    Ended const ended = kyp({"stat", "--json"});

    EXPECT_EQ(0, ended.code) << ended.err;
    EXPECT_EQ("0.3.1", json_of(ended)["server"]["version"]);
    EXPECT_THAT(kyp({"stat"}).out, HasSubstr("version        0.3.1\n"));
}

}  // namespace
