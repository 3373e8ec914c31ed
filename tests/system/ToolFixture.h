// What the tests of the command-line tool share: the tool run to its end, a server beside it, and a
// device that the test plays itself.
#ifndef KYP_TESTS_SYSTEM_TOOLFIXTURE_H
#define KYP_TESTS_SYSTEM_TOOLFIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"
#include "support/RawPeer.h"

using Words = std::vector<std::string>;
using Json = nlohmann::json;

// A run of the tool that has ended.
struct Ended {
    int code;
    std::string out;
    std::string err;
};

class ToolTest : public testing::Test {
protected:
    using Child = std::unique_ptr<ChildProcess>;

    ToolTest() { unsetenv("KYP_TARGET"); }

    // With time enough for a machine under load.
    static Words patient(Words words) {
        words.insert(words.begin(), {"kyp", "--timeout", "20"});
        return words;
    }

    static Child start(Words const& words) {
        return std::make_unique<ChildProcess>(patient(words));
    }

    static Ended end_of(Child const& child) {
        int const code = child->wait_exit();
        return {code, child->output(), child->errors()};
    }

    static Ended kyp(Words const& words) { return end_of(start(words)); }

    // The tool as it comes, without a longer timeout.
    static Ended kyp_as_it_is(Words words) {
        words.insert(words.begin(), "kyp");
        return end_of(std::make_unique<ChildProcess>(words));
    }

    // "kyp" of this build in the lines of a shell.
    static Ended shell(std::string const& line) {
        std::string const path = program_path("kyp");
        return end_of(std::make_unique<ChildProcess>(
            Words{"/bin/bash", "-c", "kyp() { " + path + " --timeout 20 \"$@\"; }; " + line}));
    }

    void start_server(Words const& options = {}) {
        Words command = {"kypserver"};
        command.insert(command.end(), options.begin(), options.end());
        m_server = std::make_unique<ChildProcess>(command);
        ASSERT_TRUE(m_server->wait_for_output("kypserver ready")) << m_server->all_output();
    }

    // Plays the device at 127.0.0.1: its first connection is m_peer.
    void play_device() { m_listener = RawListener::tcp(9999); }

    void accept() {
        m_peer = m_listener.accept();
        ASSERT_TRUE(m_peer.connected());
    }

    // The next request, taken apart.
    FrameParts next_request() { return take_apart(m_peer.receive_frame()); }

    void answer(FrameParts const& request, Bytes const& payload, uint32_t error = 0) {
        m_peer.send(response_frame(request.port, request.cmd, request.invokeId, payload, error));
    }

    static std::vector<Json> json_lines(std::string const& text) {
        std::vector<Json> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) lines.push_back(Json::parse(line));
        return lines;
    }

    static Json json_of(Ended const& ended) {
        auto const lines = json_lines(ended.out);
        return lines.size() == 1 ? lines[0] : Json("not one line: " + ended.out);
    }

    static void write_file(std::string const& path, Bytes const& data) {
        std::ofstream file(path, std::ios::binary);
        file.write(reinterpret_cast<char const*>(data.data()),
                   static_cast<std::streamsize>(data.size()));
    }

    Child m_server;
    RawListener m_listener;
    RawPeer m_peer;
};

#endif
