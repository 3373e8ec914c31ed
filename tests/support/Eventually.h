// Waits for a condition with a deadline; the one way in which a test waits for another thread.
#ifndef KYP_TESTS_SUPPORT_EVENTUALLY_H
#define KYP_TESTS_SUPPORT_EVENTUALLY_H

#include <chrono>
#include <thread>

// True as soon as `condition()` holds, false when `deadline` has passed without it.
template <typename Condition>
bool eventually(Condition condition,
                std::chrono::milliseconds deadline = std::chrono::seconds(10)) {
    auto const end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

#endif
