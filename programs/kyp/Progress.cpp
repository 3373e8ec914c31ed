#include "kyp/Progress.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "kyp/Table.h"

namespace kyptool {

namespace {

constexpr auto kBarStep = std::chrono::milliseconds(100);
constexpr size_t kShortestBar = 10;
constexpr size_t kLongestBar = 40;
constexpr size_t kSizeWidth = 8;  // of "20.0 MiB"
constexpr size_t kLeftWidth = 9;  // of "0:07 left"

uint64_t percent_of(uint64_t bytes, uint64_t size) {
    if (size == 0) return 100;
    return static_cast<uint64_t>(100.0 * static_cast<double>(bytes) / static_cast<double>(size));
}

double rate_of(uint64_t bytes, Duration elapsed) {
    double const seconds = in_seconds(elapsed);
    return seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
}

std::string amounts(uint64_t bytes, uint64_t size) {
    return size_text(bytes) + " of " + size_text(size);
}

std::string rate_text(double rate) {
    return size_text(static_cast<uint64_t>(rate)) + "/s";
}

// Nothing is known of the time left before the first byte.
std::string left_text(uint64_t bytes, uint64_t size, double rate) {
    if (rate <= 0) return "-:-- left";
    double const seconds = static_cast<double>(size - bytes) / rate;
    return clock_text(std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000))) + " left";
}

// So that the bar does not move about while it grows.
std::string at_right(std::string const& text, size_t width) {
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string bar_text(uint64_t percent, size_t width) {
    size_t const done = width * percent / 100;
    std::string bar(done, '=');
    if (done > 0 && done < width) bar.back() = '>';
    return "[" + bar + std::string(width - done, ' ') + "]";
}

}  // namespace

CProgress::CProgress(CScreen& screen, std::string name, uint64_t size)
    : m_screen(screen),
      m_name(std::move(name)),
      m_size(size),
      m_isBar(screen.progress_is_terminal()),
      m_begin(Clock::now()),
      m_nextBar(m_begin),
      m_nextTenth(10) {}

void CProgress::report(uint64_t bytes) {
    auto const now = Clock::now();
    if (m_size == 0) return;  // over before it can be looked at
    bytes = std::min(bytes, m_size);
    if (m_isBar) {
        if (now < m_nextBar && bytes < m_size) return;
        m_nextBar = now + kBarStep;
        m_screen.progress(progress_bar(m_name, bytes, m_size, now - m_begin, m_screen.width()));
        return;
    }
    uint64_t const percent = percent_of(bytes, m_size);
    if (percent < m_nextTenth) return;
    m_nextTenth = percent / 10 * 10 + 10;
    m_screen.note(progress_line(m_name, bytes, m_size, now - m_begin) + "\n");
}

std::string progress_bar(std::string const& name, uint64_t bytes, uint64_t size, Duration elapsed,
                         size_t width) {
    uint64_t const percent = percent_of(bytes, size);
    double const rate = rate_of(bytes, elapsed);
    char head[8];
    snprintf(head, sizeof head, "%3d%%", static_cast<int>(percent));
    std::string const tail = "  " + at_right(amounts(bytes, size), 2 * kSizeWidth + 4) + "  " +
                             at_right(rate_text(rate), kSizeWidth + 2) + "  " +
                             at_right(left_text(bytes, size, rate), kLeftWidth);

    // One column stays free, so that no terminal goes to its next line. The bar gives way first.
    std::string text = name + " " + head;
    size_t const used = width_of(text) + width_of(tail) + 4;
    if (used + kShortestBar <= width) {
        text += " " + bar_text(percent, std::min(width - used, kLongestBar));
    }
    if (width_of(text) + width_of(tail) < width) return text + tail;
    return width_of(text) < width ? text : std::string(head);
}

std::string progress_line(std::string const& name, uint64_t bytes, uint64_t size,
                          Duration elapsed) {
    double const rate = rate_of(bytes, elapsed);
    return name + ": " + std::to_string(percent_of(bytes, size)) + "%, " + amounts(bytes, size) +
           ", " + rate_text(rate) + ", " + left_text(bytes, size, rate);
}

}  // namespace kyptool
