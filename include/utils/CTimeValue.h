// A moment of the wall clock, readable in several units and as a text.
//
// Threads:  none of its own; one owner at a time.
// Lifetime: a value.
#ifndef KYP_UTILS_CTIMEVALUE_H
#define KYP_UTILS_CTIMEVALUE_H

#include <cstdint>
#include <ctime>
#include <string>

#include "utils/Export.h"

class KYP_API CTimeValue {
public:
    // Takes the time now.
    CTimeValue();

    // `seconds` after the epoch.
    CTimeValue(long seconds);
    ~CTimeValue();

    // Takes the time now.
    void update();

    // Whole milliseconds, microseconds and seconds since the epoch.
    long getTimeMillisec();
    long getTimeInMicroSec();
    time_t to_timet();

    // Local time as "2025-10-31 09:08:07.006".
    std::string to_string();

    int64_t m_nanoseconds;  // since the epoch
};

#endif
