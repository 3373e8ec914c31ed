// `kyp read`, `kyp write` and `kyp call`: one request to a logical port of the target, with the
// command that the name says.
#ifndef KYP_PROGRAMS_KYP_REQUESTCOMMAND_H
#define KYP_PROGRAMS_KYP_REQUESTCOMMAND_H

#include <cstdint>

#include "kyp/Command.h"
#include "kyp/Payload.h"

namespace kyptool {

class CRequestCommand : public ICommand {
public:
    enum Kind { READ, WRITE, CALL };

    explicit CRequestCommand(Kind kind);

    CLI::App* enter(CLI::App& app, Settings& settings) override;
    void check(Settings const& settings) override;
    int run(Settings const& settings, CScreen& screen) override;

private:
    Kind const m_kind;
    uint32_t m_port = 0;
    uint32_t m_indexGroup = 0;
    uint32_t m_indexOffset = 0;
    CDataSource m_data;
    View m_view = View::AUTO;
};

}  // namespace kyptool

#endif
