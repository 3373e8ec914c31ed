#include "kyp/Samples.h"

#include <algorithm>
#include <cmath>

namespace kyptool {

namespace {

double percentile(std::vector<int64_t> const& sorted, size_t percent) {
    size_t const rank = (sorted.size() * percent + 99) / 100;
    return static_cast<double>(sorted[std::max<size_t>(rank, 1) - 1]) / 1e6;
}

// Milliseconds with what is below a microsecond left out: nobody measures that here.
double rounded(double milliseconds) {
    return std::round(milliseconds * 1000) / 1000;
}

}  // namespace

void CSamples::add(Duration time) {
    m_times.push_back(time.count());
}

void CSamples::add(CSamples const& others) {
    m_times.insert(m_times.end(), others.m_times.begin(), others.m_times.end());
}

size_t CSamples::count() const {
    return m_times.size();
}

Summary CSamples::summary() const {
    if (m_times.empty()) return {};
    std::vector<int64_t> sorted = m_times;
    std::sort(sorted.begin(), sorted.end());
    return {percentile(sorted, 0), percentile(sorted, 50), percentile(sorted, 99),
            percentile(sorted, 100)};
}

void add_summary(Json& object, Summary const& summary) {
    object["min_ms"] = rounded(summary.min);
    object["median_ms"] = rounded(summary.median);
    object["p99_ms"] = rounded(summary.p99);
    object["max_ms"] = rounded(summary.max);
}

}  // namespace kyptool
