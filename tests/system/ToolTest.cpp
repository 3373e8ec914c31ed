// The command-line tool as people and scripts run it: words in, screen and exit code out.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "ToolFixture.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST_F(ToolTest, HelpAndVersionAreResults) {
    Ended const help = kyp_as_it_is({"--help"});
    EXPECT_EQ(0, help.code);
    EXPECT_THAT(help.out, AllOf(HasSubstr("Usage: kyp"), HasSubstr("Exit codes:")));
    EXPECT_EQ("", help.err);

    EXPECT_EQ("kyp 0.3.1\n", kyp_as_it_is({"--version"}).out);
}

TEST_F(ToolTest, WrongUsageLeavesStandardOutputAlone) {
    Ended const ended = kyp_as_it_is({"bogus"});

    EXPECT_EQ(2, ended.code);
    EXPECT_EQ("", ended.out);
    EXPECT_EQ("kyp: nothing here takes 'bogus'\nSee 'kyp --help'.\n", ended.err);
}

// ---- id

TEST_F(ToolTest, AsksTheLocalServerForItsIdOverItsSocket) {
    std::ofstream("/opt/kyp/kypdevice.xml")
        << R"(<?xml version="1.0"?><kyp><deviceInfo deviceId="1.2.3.4.5.6"/></kyp>)";
    start_server({"--no-tcp", "--no-udp"});

    Ended const ended = kyp({"id"});

    EXPECT_EQ(0, ended.code) << ended.err;
    EXPECT_EQ("1.2.3.4.5.6\n", ended.out);
}

TEST_F(ToolTest, AsksADeviceForItsIdByDatagram) {
    RawUdp device(38898);
    auto const child = start({"id", "127.0.0.1", "--json"});
    RawDatagram const request = device.receive();
    FrameParts const parts = take_apart(request.data);
    EXPECT_EQ(101, parts.port);
    EXPECT_EQ(1, parts.cmd);
    device.send_to(request.port, response_frame(101, 1, parts.invokeId, {9, 8, 7, 6, 5, 4}));

    Ended const ended = end_of(child);
    EXPECT_EQ(0, ended.code) << ended.err;
    EXPECT_EQ("9.8.7.6.5.4", json_of(ended)["id"]);
}

TEST_F(ToolTest, ADeviceMayRefuseANewId) {
    start_server();

    for (Words const& words :
         {Words{"id", "--set", "1.2.3.4.5.6"}, Words{"id", "127.0.0.1", "--set", "1.2.3.4.5.6"}}) {
        Ended const ended = kyp(words);
        EXPECT_EQ(1, ended.code);
        EXPECT_EQ("", ended.out);
        EXPECT_THAT(ended.err, HasSubstr("unsupport function call (0x1018)"));
    }
}

TEST_F(ToolTest, GivesADeviceANewId) {
    start_server({"--allow-set-id"});

    EXPECT_EQ("127.0.0.1 is 1.2.3.4.5.6 now\n",
              kyp({"id", "127.0.0.1", "--set", "1.2.3.4.5.6"}).err);
    EXPECT_EQ("1.2.3.4.5.6\n", kyp({"id"}).out);
    EXPECT_EQ("local is 1.2.3.4.5.7 now\n", kyp({"id", "--set", "1.2.3.4.5.7"}).err);
    EXPECT_EQ("1.2.3.4.5.7\n", kyp({"id", "9.9.9.9.9.9@127.0.0.1"}).out);
}

TEST_F(ToolTest, NobodyToAskIsNotReachable) {
    Ended const ended = kyp_as_it_is({"id", "127.0.0.1", "--timeout", "0.1"});

    EXPECT_EQ(3, ended.code);
    EXPECT_EQ("kyp: the id of 127.0.0.1: recv message timeout (0x1008)\n", ended.err);
}

// ---- read, write, call

TEST_F(ToolTest, SendsTheCommandThatItsNameSays) {
    struct Row {
        Words words;
        uint16_t cmd;
        char const* payload;
    };
    Row const rows[] = {
        {{"read", "600"}, 2, ""},
        {{"write", "600", "data"}, 4, "data"},
        {{"call", "600", "data"}, 9, "data"},
        {{"call", "600"}, 9, ""},
    };
    play_device();
    for (Row const& row : rows) {
        SCOPED_TRACE(row.words[0]);
        Words words = row.words;
        words.insert(words.end(), {"-t", "127.0.0.1", "-g", "0x11223344", "-o", "5"});
        auto const child = start(words);
        accept();

        FrameParts const request = next_request();
        EXPECT_EQ(600, request.port);
        EXPECT_EQ(row.cmd, request.cmd);
        EXPECT_EQ(hex(join({address_head(0x11223344, 5), text(row.payload)})), hex(request.rest));
        answer(request, text("answer"));

        Ended const ended = end_of(child);
        EXPECT_EQ(0, ended.code) << ended.err;
        bool const isWrite = row.cmd == 4;
        EXPECT_EQ(isWrite ? "" : "answer\n", ended.out);
        EXPECT_EQ(isWrite ? "port 600 of 127.0.0.1 took 4 bytes\n" : "", ended.err);
    }
}

TEST_F(ToolTest, TakesDataFromManyPlaces) {
    start_server();
    write_file("/tmp/data", text("from a file"));

    EXPECT_EQ("a word\n", kyp({"call", "100", "a word"}).out);
    EXPECT_EQ("--dashes\n", kyp({"call", "100", "--", "--dashes"}).out);
    EXPECT_EQ("AB\n", kyp({"call", "100", "--hex", "41 42"}).out);
    EXPECT_EQ("from a file\n", kyp({"call", "100", "--file", "/tmp/data"}).out);
    EXPECT_EQ("from a pipe\n", shell("printf 'from a pipe' | kyp call 100 --file -").out);
    EXPECT_EQ("", kyp({"call", "100"}).out);
}

TEST_F(ToolTest, ShowsAnswersInManyForms) {
    start_server();
    Words const call = {"call", "100", "--hex", "41 1b 00"};
    auto const with = [&call](Words const& more) {
        Words words = call;
        words.insert(words.end(), more.begin(), more.end());
        return kyp(words).out;
    };
    std::string const dump = "00000000  41 1b 00                                          |A..|\n";

    EXPECT_EQ(dump, with({}));
    EXPECT_EQ(dump, with({"--format", "hex"}));
    EXPECT_EQ("A\\x1b\\x00\n", with({"--format", "text"}));
    EXPECT_EQ(std::string("A\x1b\0", 3), with({"--format", "raw"}));
    EXPECT_EQ(R"({"target":"local","port":100,"sent":3,"size":3,"hex":"411b00"})"
              "\n",
              with({"--json"}));
}

TEST_F(ToolTest, CarriesMegabytesUnchanged) {
    start_server();
    write_file("/tmp/data", pattern(6291427));

    Ended const ended =
        shell("kyp call 100 -f /tmp/data -F raw | cmp - /tmp/data && echo the same");
    EXPECT_EQ("the same\n", ended.out) << ended.err;

    write_file("/tmp/data", pattern(6291428));
    Ended const more = kyp({"call", "100", "-f", "/tmp/data"});
    EXPECT_EQ(2, more.code);
    EXPECT_EQ("kyp: the data has more than 6291427 bytes\n", more.err);
}

TEST_F(ToolTest, TellsWhyThePeerSaidNo) {
    start_server();

    for (char const* target : {"local", "127.0.0.1", "127.0.0.1.1.1"}) {
        SCOPED_TRACE(target);
        Ended const ended = kyp({"read", "600", "-t", target});
        EXPECT_EQ(1, ended.code);
        EXPECT_EQ("", ended.out);
        EXPECT_EQ(
            "kyp: port 600 of " + std::string(target) + ": router port not register (0x1006)\n",
            ended.err);
    }
}

TEST_F(ToolTest, TellsProgramsWhyThePeerSaidNo) {
    start_server();

    Ended const ended = kyp({"read", "600", "--json"});

    EXPECT_EQ(1, ended.code);
    Json const error = json_of(ended)["error"];
    EXPECT_EQ(0x1006, error["code"]);
    EXPECT_EQ("router port not register", error["text"]);
}

TEST_F(ToolTest, TellsAPeersOwnCodeAsItIs) {
    play_device();
    auto const child = start({"read", "600", "-t", "127.0.0.1"});
    accept();
    answer(next_request(), {}, 0x7777);

    Ended const ended = end_of(child);
    EXPECT_EQ(1, ended.code);
    EXPECT_EQ("kyp: port 600 of 127.0.0.1: Unknown error code (0x7777)\n", ended.err);
}

TEST_F(ToolTest, NoAnswerInTimeIsNotReachable) {
    play_device();

    Ended const ended = kyp_as_it_is({"read", "600", "-t", "127.0.0.1", "--timeout", "0.2"});

    EXPECT_EQ(3, ended.code);
    EXPECT_EQ("kyp: port 600 of 127.0.0.1: recv message timeout (0x1008)\n", ended.err);
}

TEST_F(ToolTest, NobodyThereIsNotReachable) {
    Ended const device = kyp({"read", "600", "-t", "127.0.0.1"});
    EXPECT_EQ(3, device.code);
    EXPECT_EQ("kyp: 127.0.0.1 cannot be reached: connect timeout (0x6)\n", device.err);

    Ended const local = kyp({"read", "600"});
    EXPECT_EQ(3, local.code);
    EXPECT_EQ("kyp: no server at /var/tmp/kyp/kypserver: kyp server not runing (0x2005)\n",
              local.err);

    Ended const noRoad = kyp({"read", "600", "-t", "10.9.9.9"});
    EXPECT_EQ(3, noRoad.code);
}

TEST_F(ToolTest, AServerThatDoesNotAcceptIsNotWaitedForForEver) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/tmp/full");
    int const listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int const first = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto const* const name = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(0, bind(listener, name, sizeof address));
    ASSERT_EQ(0, listen(listener, 0));  // room for one that waits; the tool is the second
    ASSERT_EQ(0, connect(first, name, sizeof address));

    Ended const ended = kyp_as_it_is({"read", "600", "-t", "/tmp/full", "--timeout", "0.2"});
    EXPECT_EQ(3, ended.code);
    EXPECT_THAT(ended.err, HasSubstr("no server at /tmp/full"));
    close(first);
    close(listener);
}

TEST_F(ToolTest, SpeaksToAServerAtAnyPath) {
    for (char const* path : {"/tmp/other", "/tmp/100%d"}) {
        SCOPED_TRACE(path);
        RawListener listener = RawListener::unix_path(path);
        auto const child = start({"read", "600", "-t", path});
        m_peer = listener.accept();
        ASSERT_TRUE(m_peer.connected());
        answer(next_request(), text("here"));
        EXPECT_EQ("here\n", end_of(child).out);
    }
}

TEST_F(ToolTest, TakesTheTargetFromTheEnvironment) {
    start_server({"--no-domain"});

    Ended const ended = shell("KYP_TARGET=127.0.0.1; export KYP_TARGET; kyp call 100 hello");

    EXPECT_EQ("hello\n", ended.out) << ended.err;
}

// ---- the screen

TEST_F(ToolTest, TheLibrarysLogGoesToStandardErrorOnRequestAlone) {
    start_server();

    EXPECT_EQ("", kyp({"call", "100", "hello"}).err);

    Ended const verbose = kyp({"-v", "call", "100", "hello"});
    EXPECT_EQ("hello\n", verbose.out);
    EXPECT_THAT(verbose.err, AllOf(HasSubstr("libkyp Version 0.3.1"), Not(HasSubstr(",TRACE,"))));

    Ended const all = kyp({"-vv", "call", "100", "hello"});
    EXPECT_EQ("hello\n", all.out);
    EXPECT_THAT(all.err, HasSubstr(",TRACE,"));
}

TEST_F(ToolTest, QuietLeavesResultsAndErrorsAlone) {
    start_server();

    Ended const write = kyp({"-q", "write", "100", "hello"});
    EXPECT_EQ(0, write.code);
    EXPECT_EQ("", write.out + write.err);
    EXPECT_EQ("hello\n", kyp({"-q", "call", "100", "hello"}).out);
    EXPECT_THAT(kyp({"-q", "read", "600"}).err, HasSubstr("(0x1006)"));
}

TEST_F(ToolTest, LeavesNoFilesBehind) {
    auto const files = [] {
        std::vector<std::string> paths;
        for (auto const& entry : std::filesystem::directory_iterator("/tmp")) {
            paths.push_back(entry.path());
        }
        return paths;
    };
    start_server();
    std::vector<std::string> const before = files();
    EXPECT_EQ(0, kyp({"call", "100", "hello"}).code);
    EXPECT_EQ(1, kyp({"read", "600"}).code);
    auto const child = start({"sub", "news"});
    ASSERT_TRUE(child->wait_for_output("subscribed"));
    child->signal(SIGTERM);
    EXPECT_EQ(0, child->wait_exit());

    EXPECT_EQ(before, files());
}

TEST_F(ToolTest, ASignalEndsACommandThatWaits) {
    play_device();
    auto const child = start({"read", "600", "-t", "127.0.0.1"});
    accept();
    next_request();

    child->signal(SIGINT);
    EXPECT_EQ(128 + SIGINT, child->wait_exit());
}

TEST_F(ToolTest, ASecondSignalEndsAToolThatNobodyReads) {
    start_server();
    ASSERT_EQ(0, mkfifo("/tmp/results", 0600));
    int const reader = open("/tmp/results", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::string const path = program_path("kyp");
    ChildProcess child({"/bin/sh", "-c", "exec " + path + " ping -i 0 >/tmp/results"});
    ASSERT_TRUE(eventually([&] {
        int waiting = 0;
        return ioctl(reader, FIONREAD, &waiting) == 0 && waiting > 0;
    }));
    // The last byte that there is room for: behind it the tool can write no more.
    int const writer = open("/tmp/results", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    while (write(writer, "", 1) == 1) {
    }

    child.signal(SIGINT);
    EXPECT_TRUE(eventually([&] {
        child.signal(SIGINT);
        return child.wait_exit(std::chrono::milliseconds(0)) == 128 + SIGINT;
    }));
    close(writer);
    close(reader);
}

TEST_F(ToolTest, ResultsThatCannotBeWrittenAreAFailure) {
    start_server();

    Ended const ended = shell("kyp call 100 hello >/dev/full");

    EXPECT_EQ(2, ended.code);
    EXPECT_EQ("kyp: the result cannot be written: No space left on device\n", ended.err);
}

TEST_F(ToolTest, AReaderThatHasGoneEndsTheToolAsItEndsOthers) {
    start_server();

    Ended const ended = shell("kyp ping -i 0.01 | head -n 1 >/dev/null; exit ${PIPESTATUS[0]}");

    EXPECT_EQ(128 + SIGPIPE, ended.code);
    EXPECT_EQ("ping port 100 of local: 32 bytes\n", ended.err);
}

}  // namespace
