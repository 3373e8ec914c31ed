// Third act: two hosts, joined by one cable. The tool on the one finds the server on the other,
// asks it, and copies a file to it.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "Acts.h"
#include "Story.h"
#include "support/SecondHost.h"

namespace {

constexpr char const* kDevice = "10.20.30.40.1.1";
constexpr char const* kSpool = "/tmp/spool";
constexpr char const* kFile = "/tmp/recording.bin";
constexpr size_t kFileSize = 20'000'000;

// Shows a command as a user would type it, and what it writes.
void show(std::string const& program, std::vector<std::string> const& words) {
    std::vector<std::string> command = {program};
    std::string typed = "kyp";
    for (std::string const& word : words) {
        command.push_back(word);
        bool const quoted = word.find(' ') != std::string::npos;
        typed += quoted ? " '" + word + "'" : " " + word;
    }
    say("\n   $ %s\n", typed.c_str());
    Program tool(command);
    int const code = tool.wait();
    say("%s", indented(tool.output()).c_str());
    if (code != 0) fail("kyp " + words[0] + " ended with " + std::to_string(code));
}

void record_something() {
    std::ofstream file(kFile, std::ios::binary);
    std::mt19937 random(1);
    for (size_t i = 0; i < kFileSize; i += 4) {
        unsigned int const word = random();
        file.write(reinterpret_cast<char const*>(&word), sizeof word);
    }
    if (!file.flush()) fail(std::string("no room for ") + kFile);
}

std::string bytes_of(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

void show_two_hosts(Cast const& cast) {
    SecondHost const there;
    if (!there.ready()) fail("no second network namespace; the ip command makes the cable");
    mkdir(kSpool, 0700);
    name_this_device(kDevice);
    Program server({cast.kypserver, "--receive-files", "--spool-dir", kSpool},
                   [&there] { there.enter(); });
    server.wait_for("ready");
    Program component({cast.component});
    component.wait_for("example serves");
    say("1. Two hosts, %s here and %s there, joined by one cable. There, a kypserver\n"
        "   starts that takes files, and a component. Here, nothing is known of them.\n",
        SecondHost::kHere, SecondHost::kThere);

    say("2. Who is there?\n");
    show(cast.kyp, {"scan"});
    say("\n3. From here on the id will do:\n");
    show(cast.kyp, {"ping", kDevice, "--count", "5", "--interval", "0.1s"});
    show(cast.kyp, {"read", "--target", kDevice, "601"});
    show(cast.kyp, {"write", "--target", kDevice, "600", "21.5"});
    show(cast.kyp, {"call", "--target", kDevice, "100", "hello, device"});

    say("\n4. A file of 20 MB goes over:\n");
    record_something();
    show(cast.kyp, {"send", "--target", kDevice, kFile});
    if (bytes_of(kFile) != bytes_of(std::string(kSpool) + "/recording.bin")) {
        fail("the file differs from its copy");
    }
    say("\n   The copy in the server's spool folder is identical, byte by byte.\n");
}
