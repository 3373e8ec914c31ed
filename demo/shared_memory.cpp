// Fourth act: a component serves another virtual machine over shared memory. Another process plays
// that machine, and the stand-in its transport.
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "Acts.h"
#include "Story.h"
#include "libkyp/libkyp.h"

namespace {

constexpr char const* kSettings = "/opt/kyp/libkyp.ini";
constexpr unsigned short kPort = 600;
constexpr int kDomain = 2;

// The stand-in tells first which topics are opened; the story says that once.
std::string last_line(std::string const& all) {
    size_t const end = all.size() < 2 ? std::string::npos : all.rfind('\n', all.size() - 2);
    return end == std::string::npos ? all : all.substr(end + 1);
}

// What the other machine shows of its answers.
std::string answers_of(Program& machine) {
    if (machine.wait() != 0) fail("the other machine had no answer");
    return last_line(machine.output());
}

std::string other_machine(std::string const& peer, std::vector<std::string> const& words) {
    std::vector<std::string> command = {peer};
    command.insert(command.end(), words.begin(), words.end());
    Program machine(command);
    return answers_of(machine);
}

void enable_shared_memory() {
    std::ofstream file(kSettings);
    file << "[example]\nivshm_enable=true\nivshm_group=0\n[ivshm]\ngroup0_maxsize=1000000\n";
    if (!file.flush()) fail(std::string(kSettings) + " cannot be written");
}

}  // namespace

void show_shared_memory(Cast const& cast) {
    enable_shared_memory();
    Program server({cast.kypserver});
    server.wait_for("ready");
    Program component({cast.component});
    component.wait_for("example serves");
    say("1. A kypserver starts, and the component, whose settings have now\n"
        "   \"ivshm_enable=true\": topics 0 and 1 of group 0. The transport between virtual\n"
        "   machines is played by a stand-in, the other machine by a process of its own.\n");

    say("2. The other machine asks port %u, past the server:\n   %s", kPort,
        other_machine(cast.peer, {"600", "hello from over there"}).c_str());
    char answer[64] = {};
    void* const client = libkyp_createInstance(nullptr, kDomain);
    if (client == nullptr) fail_with_status("libkyp_createInstance");
    if (ask(client, kPort, "hello from here", 15, answer, sizeof answer) != 15) {
        fail_with_status("a request to the component");
    }
    say("   A client of the server asks the same port of the same component:\n   %s\n", answer);

    say("3. Port 601 answers later, from a thread of its own:\n   %s",
        other_machine(cast.peer, {"601"}).c_str());

    say("4. 32 clients of the other machine at once, and one alone:\n   %s   %s",
        other_machine(cast.peer, {"--clients", "32", "--count", "500", "600", "x"}).c_str(),
        other_machine(cast.peer, {"--count", "5000", "600", "x"}).c_str());

    Program dying({cast.peer, "--clients", "32", "--count", "100000000", "600", "x"});
    dying.wait_for("the first answers are here");
    dying.crash();
    say("5. The other machine is killed in the middle of its work; the next one asks:\n   %s",
        other_machine(cast.peer, {"600", "nobody noticed"}).c_str());

    component.crash();
    Program waiting({cast.peer, "100", "asked while nobody was there"});
    component.start();
    say("6. The component is killed, the other machine asks, the component comes back:\n   %s",
        answers_of(waiting).c_str());

    libkyp_releaseInstance(client);
    libkyp_destory();
    (void)unlink(kSettings);
}
