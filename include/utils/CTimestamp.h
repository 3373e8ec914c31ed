// A moment of the wall clock, for measuring what has passed since.
//
// A step of the system clock moves every time measured with it.
// Threads:  none of its own; one owner at a time.
// Lifetime: a value.
#ifndef KYP_UTILS_CTIMESTAMP_H
#define KYP_UTILS_CTIMESTAMP_H

#include <cstdint>

#include "utils/Export.h"

class KYP_API CTimestamp {
public:
    // Takes the time now.
    CTimestamp();
    ~CTimestamp();

    // Takes the time now, so that elapsed times count from here.
    void update();

    // Whole microseconds from the stored moment to now; negative after the clock was set back.
    long getElapsedTimeInMicroSec();

    // The same in milliseconds and in seconds, at a resolution of one microsecond.
    double getElapsedTimeInMilliSec();
    double getElapsedSecond();

    int64_t m_nanoseconds;  // since the epoch
};

#endif
