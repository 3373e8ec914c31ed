#include "utils/CTimeValue.h"

#include <chrono>
#include <cstdio>

namespace {

constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kNsPerMillisecond = 1000000;
constexpr int64_t kNsPerMicrosecond = 1000;

int64_t now_ns() {
    auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
}

// A count of seconds beyond the range wraps.
int64_t seconds_to_ns(long seconds) {
    return static_cast<int64_t>(static_cast<uint64_t>(seconds) *
                                static_cast<uint64_t>(kNsPerSecond));
}

}  // namespace

static_assert(sizeof(CTimeValue) == 8, "one count of nanoseconds");

CTimeValue::CTimeValue() : m_nanoseconds(now_ns()) {}

CTimeValue::CTimeValue(long seconds) : m_nanoseconds(seconds_to_ns(seconds)) {}

CTimeValue::~CTimeValue() = default;

void CTimeValue::update() {
    m_nanoseconds = now_ns();
}

long CTimeValue::getTimeMillisec() {
    return m_nanoseconds / kNsPerMillisecond;
}

long CTimeValue::getTimeInMicroSec() {
    return m_nanoseconds / kNsPerMicrosecond;
}

time_t CTimeValue::to_timet() {
    return m_nanoseconds / kNsPerSecond;
}

std::string CTimeValue::to_string() {
    time_t const seconds = to_timet();
    // localtime()'s text without its shared buffer: a changed TZ counts, and threads do not meet.
    tzset();
    tm local = {};
    localtime_r(&seconds, &local);

    char text[96];
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>(getTimeMillisec() % 1000));
    return text;
}
