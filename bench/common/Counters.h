// What a measured process counts when it runs with the counting library preloaded: a place of its
// own on one page that is shared by all processes which are given the same descriptor.
#ifndef KYP_BENCH_COMMON_COUNTERS_H
#define KYP_BENCH_COMMON_COUNTERS_H

#include <array>
#include <atomic>
#include <cstdint>

struct Counters {
    std::atomic<uint64_t> allocations;  // malloc, calloc, realloc and what stands on them
    std::atomic<uint64_t> inputOutput;  // recv, send, select, epoll_wait, epoll_ctl
};

constexpr int kCountedProcesses = 3;
using CountersPage = std::array<Counters, kCountedProcesses>;

// In the environment: the number of the shared descriptor, and the place of a process on the page.
constexpr char const* kCountersVariable = "KYP_BENCH_COUNTERS";
constexpr char const* kPlaceVariable = "KYP_BENCH_COUNTERS_PLACE";

#endif
