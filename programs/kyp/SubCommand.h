// `kyp sub`: shows the messages of topics as they come.
#ifndef KYP_PROGRAMS_KYP_SUBCOMMAND_H
#define KYP_PROGRAMS_KYP_SUBCOMMAND_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kyp/Command.h"
#include "kyp/Device.h"
#include "kyp/Payload.h"

namespace kyptool {

class CSubCommand : public ICommand {
public:
    CLI::App* enter(CLI::App& app, Settings& settings) override;
    void check(Settings const& settings) override;
    int run(Settings const& settings, CScreen& screen) override;
    int interrupted(Settings const& settings, CScreen& screen, int sig) override;

private:
    struct Message {
        uint32_t indexGroup;
        uint32_t indexOffset;
        char const* topic;
        std::string_view data;
    };

    static void on_message(unsigned int indexGroup, unsigned int indexOffset, char const* topic,
                           char const* data, unsigned int len, void* self);
    void on_link(int event);
    void subscribe_all(CDevice& device);
    void show_locked(Message const& message);
    std::string line_of(Message const& message) const;

    std::vector<std::string> m_topics;
    uint32_t m_count = 0;  // 0: as many as come
    std::optional<Duration> m_deadline;
    bool m_timestamps = false;
    View m_view = View::AUTO;

    Settings const* m_pSettings = nullptr;  // what the callbacks need of run()
    CScreen* m_pScreen = nullptr;

    std::mutex m_mutex;                 // guards all below, and orders what is printed
    std::condition_variable m_arrived;  // the last awaited message, or the end
    uint32_t m_received = 0;
    bool m_isDown = false;
    bool m_ended = false;
};

}  // namespace kyptool

#endif
