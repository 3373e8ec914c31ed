// Times of round trips and what people want to know of many of them.
//
// Threads: one at a time.
#ifndef KYP_PROGRAMS_KYP_SAMPLES_H
#define KYP_PROGRAMS_KYP_SAMPLES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kyp/Screen.h"
#include "kyp/Values.h"

namespace kyptool {

// All 0 without a sample. In milliseconds.
struct Summary {
    double min = 0;
    double median = 0;
    double p99 = 0;
    double max = 0;
};

class CSamples {
public:
    void add(Duration time);
    void add(CSamples const& others);
    size_t count() const;

    // The p-th percentile is the smallest sample that p percent of all do not exceed.
    Summary summary() const;

private:
    std::vector<int64_t> m_times;  // nanoseconds
};

// Adds "min_ms", "median_ms", "p99_ms" and "max_ms".
void add_summary(Json& object, Summary const& summary);

}  // namespace kyptool

#endif
