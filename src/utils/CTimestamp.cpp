#include "utils/CTimestamp.h"

#include <chrono>

namespace {

int64_t now_ns() {
    auto const sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
}

}  // namespace

static_assert(sizeof(CTimestamp) == 8, "one count of nanoseconds");

CTimestamp::CTimestamp() : m_nanoseconds(now_ns()) {}
CTimestamp::~CTimestamp() = default;

void CTimestamp::update() {
    m_nanoseconds = now_ns();
}

long CTimestamp::getElapsedTimeInMicroSec() {
    return (now_ns() - m_nanoseconds) / 1000;
}

double CTimestamp::getElapsedTimeInMilliSec() {
    return static_cast<double>(getElapsedTimeInMicroSec()) * 0.001;
}

double CTimestamp::getElapsedSecond() {
    return static_cast<double>(getElapsedTimeInMicroSec()) * 1e-6;
}
