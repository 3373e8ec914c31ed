// How far long work has come: a bar that moves on a terminal, a line for each tenth elsewhere.
//
// Threads: one.
#ifndef KYP_PROGRAMS_KYP_PROGRESS_H
#define KYP_PROGRAMS_KYP_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

#include "kyp/Screen.h"
#include "kyp/Values.h"

namespace kyptool {

class CProgress {
public:
    // `name` of something that has `size` bytes.
    CProgress(CScreen& screen, std::string name, uint64_t size);

    // `bytes` are done.
    void report(uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;

    CScreen& m_screen;
    std::string const m_name;
    uint64_t const m_size;
    bool const m_isBar;
    Clock::time_point const m_begin;
    Clock::time_point m_nextBar;
    uint64_t m_nextTenth;
};

// "image.bin  42% [=====>      ]  8.4 MiB of 20.0 MiB  5.6 MiB/s  0:02 left", within `width`
// columns as far as that goes.
std::string progress_bar(std::string const& name, uint64_t bytes, uint64_t size, Duration elapsed,
                         size_t width);

// "image.bin: 40%, 8.0 MiB of 20.0 MiB, 5.6 MiB/s, 0:02 left".
std::string progress_line(std::string const& name, uint64_t bytes, uint64_t size, Duration elapsed);

}  // namespace kyptool

#endif
