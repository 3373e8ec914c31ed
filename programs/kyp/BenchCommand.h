// `kyp bench`: how many round trips a device does, and how long each takes.
#ifndef KYP_PROGRAMS_KYP_BENCHCOMMAND_H
#define KYP_PROGRAMS_KYP_BENCHCOMMAND_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kyp/Command.h"
#include "kyp/Device.h"
#include "kyp/Samples.h"

namespace kyptool {

class CBenchCommand : public ICommand {
public:
    CLI::App* enter(CLI::App& app, Settings& settings) override;
    void check(Settings const& settings) override;
    int run(Settings const& settings, CScreen& screen) override;
    int interrupted(Settings const& settings, CScreen& screen, int sig) override;

private:
    // What one connection, or all of them together, did with requests of one size.
    struct Run {
        CSamples samples;
        uint64_t failed = 0;
        int status = 0;  // of the first that failed
        bool wasSent = true;
        Duration took{};
    };

    int run_sizes(Settings const& settings, CScreen& screen);
    Run measure(Settings const& settings, uint32_t size);
    void exchange_until_end(CDevice& device, std::string const& data, Duration timeout, Run& run);
    bool may_go_on(Run& run, Answer const& answer) const;
    void tell(Settings const& settings, CScreen& screen, uint32_t size, Run const& run) const;
    [[noreturn]] void fail(Settings const& settings, Run const& run) const;

    std::string m_sizesText = "32,1k,64k";
    std::vector<uint32_t> m_sizes;
    uint32_t m_connections = 1;
    uint32_t m_count = 0;  // 0: as many as there is time for
    Duration m_duration = std::chrono::seconds(2);
    uint32_t m_port = kPortEcho;

    std::vector<CDevice*> m_devices;
    std::atomic<bool> m_stop{false};  // relaxed: one more request or less
    std::atomic<int64_t> m_left{0};   // requests that --count still allows
    std::chrono::steady_clock::time_point m_end;

    std::mutex m_mutex;  // guards m_exit
    std::condition_variable m_done;
    std::optional<int> m_exit;  // what run() has come to
};

}  // namespace kyptool

#endif
