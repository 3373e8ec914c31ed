// `kyp scan`: finds the devices of the local networks.
#ifndef KYP_PROGRAMS_KYP_SCANCOMMAND_H
#define KYP_PROGRAMS_KYP_SCANCOMMAND_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "kyp/Command.h"
#include "kypcomm/KypScanInfo.h"

namespace kyptool {

class CScanCommand : public ICommand {
public:
    CLI::App* enter(CLI::App& app, Settings& settings) override;
    int run(Settings const& settings, CScreen& screen) override;
    int interrupted(Settings const& settings, CScreen& screen, int sig) override;

private:
    using Clock = std::chrono::steady_clock;

    static void on_device(_KypDevice device, void* self);
    void add(_KypDevice const& device);
    void scan(Clock::time_point end);
    void show_devices(Settings const& settings, CScreen& screen) const;
    void remember(CScreen& screen) const;
    int finish(Settings const& settings, CScreen& screen);

    Duration m_duration = std::chrono::seconds(3);
    uint32_t m_count = 0;  // 0: as many as answer
    bool m_explain = false;

    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;                 // guards all below
    std::condition_variable m_changed;  // a device more, the stop, or the end
    std::map<std::pair<std::string, std::string>, _KypDevice> m_devices;  // by address and id
    std::optional<int> m_exit;                                            // what run() came to
};

}  // namespace kyptool

#endif
