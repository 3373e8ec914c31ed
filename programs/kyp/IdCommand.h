// `kyp id`: asks a device for its id, or gives it a new one.
#ifndef KYP_PROGRAMS_KYP_IDCOMMAND_H
#define KYP_PROGRAMS_KYP_IDCOMMAND_H

#include <optional>
#include <string>

#include "kyp/Command.h"

namespace kyptool {

class CIdCommand : public ICommand {
public:
    CLI::App* enter(CLI::App& app, Settings& settings) override;
    void check(Settings const& settings) override;
    int run(Settings const& settings, CScreen& screen) override;

private:
    _KypDeviceId read_id(Settings const& settings) const;
    void assign_id(Settings const& settings, _KypDeviceId const& id) const;

    std::optional<std::string> m_newText;
    std::optional<_KypDeviceId> m_new;
};

}  // namespace kyptool

#endif
