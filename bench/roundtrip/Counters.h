// What a measured process counts when it runs with the counting library preloaded: one page shared
// by all processes that are given the same descriptor.
#ifndef KYP_BENCH_ROUNDTRIP_COUNTERS_H
#define KYP_BENCH_ROUNDTRIP_COUNTERS_H

#include <atomic>
#include <cstdint>

struct Counters {
    std::atomic<uint64_t> allocations;  // malloc, calloc, realloc and what stands on them
    std::atomic<uint64_t> inputOutput;  // recv, send, select, epoll_wait, epoll_ctl
};

// Holds the number of the shared descriptor in the environment.
constexpr char const* kCountersVariable = "KYP_BENCH_COUNTERS";

#endif
