#include "common/Exchanges.h"

#include <algorithm>
#include <thread>

void time_exchanges(Link& link, std::vector<char> const& payload, int count, Samples& samples) {
    for (int i = 0; i < count; ++i) {
        auto const begin = Clock::now();
        link.exchange(payload);
        samples.add((Clock::now() - begin).count());
    }
}

double throughput(Links& links, std::vector<char> const& payload, int exchanges) {
    int const each = exchanges / static_cast<int>(links.size());
    std::vector<std::thread> threads;
    threads.reserve(links.size());
    auto const begin = Clock::now();
    for (auto& link : links) {
        threads.emplace_back([&payload, each, &link] {
            for (int i = 0; i < each; ++i) link->exchange(payload);
        });
    }
    for (auto& thread : threads) thread.join();
    std::chrono::duration<double> const seconds = Clock::now() - begin;
    return each * static_cast<double>(links.size()) / seconds.count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}
