// `kyp ping`: sends data to the echo port in even steps and says how long it took to come back.
#ifndef KYP_PROGRAMS_KYP_PINGCOMMAND_H
#define KYP_PROGRAMS_KYP_PINGCOMMAND_H

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "kyp/Command.h"
#include "kyp/Device.h"
#include "kyp/Samples.h"

namespace kyptool {

class CPingCommand : public ICommand {
public:
    CLI::App* enter(CLI::App& app, Settings& settings) override;
    int run(Settings const& settings, CScreen& screen) override;
    int interrupted(Settings const& settings, CScreen& screen, int sig) override;

private:
    using Clock = std::chrono::steady_clock;

    void ping_once(Settings const& settings, CScreen& screen, CDevice& device);
    void tell(Settings const& settings, CScreen& screen, uint32_t seq, Answer const& answer,
              bool isSame, Duration took);
    bool wait_for_next(Clock::time_point due) const;
    int finish_locked(Settings const& settings, CScreen& screen);

    std::optional<uint32_t> m_count;
    Duration m_interval = std::chrono::seconds(1);
    std::optional<Duration> m_deadline;
    uint32_t m_size = 32;
    uint32_t m_port = kPortEcho;

    Clock::time_point m_begin;
    std::mutex m_mutex;    // guards all below, and orders what is printed
    bool m_ended = false;  // the summary was printed
    uint32_t m_sent = 0;
    uint32_t m_refused = 0;
    int m_lastStatus = 0;  // of the last one that failed
    CSamples m_samples;
};

}  // namespace kyptool

#endif
