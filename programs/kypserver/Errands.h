// Runs what must not run on a worker: what may take its time, and what is to happen a little later.
//
// Owns:     one thread, started with the first errand, and the errands that wait.
// Threads:  any may give an errand; they run one after the other, the earliest first.
// Lifetime: stop() comes before the end of whatever the errands use.
#ifndef KYP_PROGRAMS_KYPSERVER_ERRANDS_H
#define KYP_PROGRAMS_KYPSERVER_ERRANDS_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace kypserver {

class CErrands {
public:
    CErrands();
    ~CErrands();
    CErrands(CErrands const&) = delete;
    CErrands& operator=(CErrands const&) = delete;

    // Drops the errands that wait and waits for the one that runs; later ones are dropped, too. By
    // the main thread; the destructor does the same.
    void stop();

    // Runs `errand` on the thread of errands as soon as `delay` has passed.
    void after(std::chrono::milliseconds delay, std::function<void()> errand);

private:
    using Clock = std::chrono::steady_clock;

    void run();

    std::mutex m_mutex;  // guards the rest; not held while an errand runs
    std::condition_variable m_changed;
    std::multimap<Clock::time_point, std::function<void()>> m_waiting;
    bool m_bStop;
    std::thread m_thread;
};

}  // namespace kypserver

#endif
