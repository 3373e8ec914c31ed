#include "kypserver/Errands.h"

#include <pthread.h>

#include <utility>

namespace kypserver {

CErrands::CErrands() : m_bStop(false) {}

CErrands::~CErrands() {
    stop();
}

void CErrands::stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

void CErrands::after(std::chrono::milliseconds delay, std::function<void()> errand) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bStop) return;
    m_waiting.emplace(Clock::now() + delay, std::move(errand));
    if (!m_thread.joinable()) m_thread = std::thread([this] { run(); });
    m_changed.notify_all();
}

void CErrands::run() {
    pthread_setname_np(pthread_self(), "errands");
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_bStop) {
        if (m_waiting.empty()) {
            m_changed.wait(lock);
            continue;
        }
        Clock::time_point const due = m_waiting.begin()->first;
        if (Clock::now() < due) {
            m_changed.wait_until(lock, due);
            continue;
        }
        std::function<void()> errand = std::move(m_waiting.begin()->second);
        m_waiting.erase(m_waiting.begin());
        lock.unlock();
        errand();
        errand = nullptr;
        lock.lock();
    }
}

}  // namespace kypserver
