#include "kypserver/ServerLog.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "utils/comm.h"

namespace kypserver {

namespace {

constexpr unsigned int kLinesPerSecond = 50;
constexpr size_t kLongestLine = 1024;

}  // namespace

CLineLimit::CLineLimit(unsigned int perSecond)
    : m_perSecond(perSecond), m_second(0), m_inSecond(0), m_leftOut(0) {}

bool CLineLimit::admit(time_t now, unsigned int* leftOut) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (now != m_second) {
        m_second = now;
        m_inSecond = 0;
    }
    if (m_inSecond >= m_perSecond) {
        ++m_leftOut;
        return false;
    }
    ++m_inSecond;
    *leftOut = m_leftOut;
    m_leftOut = 0;
    return true;
}

void report(char const* fmt, ...) {
    static CLineLimit limit(kLinesPerSecond);
    unsigned int leftOut = 0;
    if (!limit.admit(time(nullptr), &leftOut)) return;

    char message[kLongestLine];
    va_list args;
    va_start(args, fmt);
    vsnprintf(message, sizeof message, fmt, args);
    va_end(args);

    std::string const now = CComm::GetCurrentTimeMs();
    if (leftOut > 0) {
        fprintf(stderr, "%s kypserver: %u lines were left out\n", now.c_str(), leftOut);
    }
    fprintf(stderr, "%s kypserver: %s\n", now.c_str(), message);
}

}  // namespace kypserver
