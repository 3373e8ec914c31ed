// `kyp stat`: asks a kypserver how it is.
#ifndef KYP_PROGRAMS_KYP_STATCOMMAND_H
#define KYP_PROGRAMS_KYP_STATCOMMAND_H

#include <optional>
#include <string>

#include "kyp/Command.h"
#include "kyp/Device.h"

namespace kyptool {

class CStatCommand : public ICommand {
public:
    CLI::App* enter(CLI::App& app, Settings& settings) override;
    int run(Settings const& settings, CScreen& screen) override;
    int interrupted(Settings const& settings, CScreen& screen, int sig) override;

private:
    std::string ask(Settings const& settings, CDevice& device) const;
    void show(Settings const& settings, CScreen& screen, std::string const& state);

    std::optional<Duration> m_watch;
    bool m_isFirst = true;
};

// A JSON object for people: its plain values as lines, its objects and lists of objects as tables
// below. What is no JSON object throws Failure.
std::string state_text(std::string const& json);

}  // namespace kyptool

#endif
