// Exchanges over links, timed one by one and all together.
#ifndef KYP_BENCH_COMMON_EXCHANGES_H
#define KYP_BENCH_COMMON_EXCHANGES_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

#include "common/Link.h"
#include "common/Samples.h"

using Clock = std::chrono::steady_clock;
using Links = std::vector<std::unique_ptr<Link>>;

// One after the other on this thread; each adds its time to `samples`.
void time_exchanges(Link& link, std::vector<char> const& payload, int count, Samples& samples);

// Requests per second of `links`, each with a thread of its own; `exchanges` of them in all, or
// fewer than one for each link less.
double throughput(Links& links, std::vector<char> const& payload, int exchanges);

double median(std::vector<double> values);

#endif
