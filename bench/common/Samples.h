// Round-trip times of one cell of the table: collected in rounds, reported as percentiles.
#ifndef KYP_BENCH_COMMON_SAMPLES_H
#define KYP_BENCH_COMMON_SAMPLES_H

#include <algorithm>
#include <cstdint>
#include <vector>

class Samples {
public:
    void add(int64_t nanoseconds) { m_values.push_back(nanoseconds); }

    // The value below which `share` (0 to 1) of the samples lie, in microseconds.
    double percentile_us(double share) {
        if (m_values.empty()) return 0;
        auto const place =
            static_cast<std::ptrdiff_t>(share * static_cast<double>(m_values.size() - 1));
        std::nth_element(m_values.begin(), m_values.begin() + place, m_values.end());
        return static_cast<double>(m_values[static_cast<std::size_t>(place)]) / 1000.0;
    }

private:
    std::vector<int64_t> m_values;
};

#endif
