// One connection with one exchange at a time.
//
// Threads: each link belongs to one thread.
#ifndef KYP_BENCH_COMMON_LINK_H
#define KYP_BENCH_COMMON_LINK_H

#include <vector>

class Link {
public:
    virtual ~Link() = default;

    // Sends `payload`, waits for the answer of the same size. Ends the program on a failure: a
    // benchmark that lost an answer has nothing to report.
    virtual void exchange(std::vector<char> const& payload) = 0;
};

#endif
