// `kyp send`: sends a file to a device.
#ifndef KYP_PROGRAMS_KYP_SENDCOMMAND_H
#define KYP_PROGRAMS_KYP_SENDCOMMAND_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "kyp/Command.h"

namespace kyptool {

class CSendCommand : public ICommand {
public:
    CLI::App* enter(CLI::App& app, Settings& settings) override;
    void check(Settings const& settings) override;
    int run(Settings const& settings, CScreen& screen) override;
    int interrupted(Settings const& settings, CScreen& screen, int sig) override;

private:
    static int on_progress(_KypDeviceId id, int transferId, float progress, int error, int state,
                           void* self);
    uint64_t check_file() const;
    void transfer(Settings const& settings, CScreen& screen, uint64_t size);
    void judge(Settings const& settings) const;
    void tell(Settings const& settings, CScreen& screen, uint64_t size, Duration took) const;

    std::string m_file;
    std::string m_remotePath;
    uint32_t m_port = 105;

    float m_done = 0;            // all of it is 1
    int m_error = 0;             // that ended the transfer
    int m_cause = 0;             // the thread's status behind it
    bool m_isConfirmed = false;  // the device says that it has the whole file

    std::atomic<bool> m_cancel{false};
    std::mutex m_mutex;  // guards m_hasEnded
    std::condition_variable m_ended;
    bool m_hasEnded = false;
};

}  // namespace kyptool

#endif
