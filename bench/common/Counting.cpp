#include "common/Counting.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "common/Sockets.h"

void run_counted(std::string const& library, std::vector<std::string> command, FILE* out) {
    int const page = memfd_create("counters", 0);
    if (page < 0 || ftruncate(page, sizeof(CountersPage)) != 0) fail("memfd_create");
    fflush(out);
    command.insert(command.end(), {"--out", std::to_string(fileno(out))});
    setenv(kCountersVariable, std::to_string(page).c_str(), 1);
    unsetenv(kPlaceVariable);
    setenv("LD_PRELOAD", library.c_str(), 1);
    wait_for(spawn(command));
    unsetenv("LD_PRELOAD");
    close(page);
}

Counting::Counting() {
    char const* const number = getenv(kCountersVariable);
    if (number == nullptr) fail(kCountersVariable);
    void* const page = mmap(nullptr, sizeof(CountersPage), PROT_READ, MAP_SHARED, atoi(number), 0);
    if (page == MAP_FAILED) fail("mmap");
    m_page = static_cast<CountersPage const*>(page);
}

void Counting::next_child_counts_at(int place) {
    setenv(kPlaceVariable, std::to_string(place).c_str(), 1);
}

Counting::Reading Counting::read(int place) const {
    Counters const& counters = (*m_page)[static_cast<std::size_t>(place)];
    return {counters.allocations, counters.inputOutput};
}

Counting::Reading Counting::read_all() const {
    Reading sum;
    for (int place = 0; place < kCountedProcesses; ++place) {
        Reading const one = read(place);
        sum.allocations += one.allocations;
        sum.inputOutput += one.inputOutput;
    }
    return sum;
}
