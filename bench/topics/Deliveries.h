// What has come to the subscribers of one group, and when.
//
// Threads:  arrived() for one subscriber on one thread; the rest on the publisher's.
#ifndef KYP_BENCH_TOPICS_DELIVERIES_H
#define KYP_BENCH_TOPICS_DELIVERIES_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "common/Samples.h"

class Deliveries {
public:
    // `timed` messages for each subscriber have room.
    Deliveries(std::size_t subscribers, std::size_t timed);

    std::size_t subscribers() const { return m_subscribers.size(); }

    // Marks a message as published now, or as one that only looks whether a subscriber is there.
    // It has room for 8 bytes.
    static void stamp(std::vector<char>& payload);
    static void stamp_as_probe(std::vector<char>& payload);

    void arrived(std::size_t subscriber, char const* payload);

    bool all_are_there() const;

    // Waits until `count` messages, all subscribers together, have arrived. Ends the program when
    // that takes more than five seconds.
    void wait_for(uint64_t count);
    uint64_t count() const { return m_count; }

    // From now on each delivery's time is kept, as long as there is room.
    void keep_times() { m_keepTimes = true; }

    // All subscribers' times. When all that was published has arrived.
    Samples times() const;

private:
    struct Subscriber {
        std::atomic<bool> isThere{false};
        std::vector<int64_t> times;  // nanoseconds
    };

    std::vector<Subscriber> m_subscribers;
    std::atomic<bool> m_keepTimes{false};
    std::atomic<uint64_t> m_count{0};
    std::atomic<uint64_t> m_awaited{UINT64_MAX};
    std::mutex m_mutex;
    std::condition_variable m_reached;
};

#endif
