// Counting runs: this program once more, with the counting library in front of the C library of it
// and of all its children. No time is taken there.
#ifndef KYP_BENCH_COMMON_COUNTING_H
#define KYP_BENCH_COMMON_COUNTING_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "common/Counters.h"

// Runs `command` with `library` preloaded and waits for its end. Its log goes where this process's
// goes; "--out N" is added, for its table to go to `out`.
void run_counted(std::string const& library, std::vector<std::string> command, FILE* out);

// For the process of a counting run: what it and its children have counted.
class Counting {
public:
    Counting();

    // Children that are started from now on count at `place`; this process does at 0.
    static void next_child_counts_at(int place);

    struct Reading {
        uint64_t allocations = 0;
        uint64_t inputOutput = 0;
    };
    Reading read(int place) const;
    Reading read_all() const;

private:
    CountersPage const* m_page;
};

#endif
