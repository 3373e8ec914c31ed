#include "common/Machine.h"

#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "common/Sockets.h"

namespace {

std::string cpu_model() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    }
    return "unknown processor";
}

}  // namespace

FILE* take_output(int fd) {
    FILE* const out = fdopen(fd >= 0 ? fd : dup(STDOUT_FILENO), "w");
    if (out == nullptr) fail("fdopen");
    if (freopen("/dev/null", "w", stdout) == nullptr) fail("/dev/null");
    return out;
}

void print_machine(FILE* out) {
    utsname kernel;
    uname(&kernel);
    fprintf(out, "%s, %u processors, Linux %s\n", cpu_model().c_str(),
            std::thread::hardware_concurrency(), kernel.release);
}

void use_processors(int count) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int i = 0; i < count; ++i) CPU_SET(i, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) fail("sched_setaffinity");
}
