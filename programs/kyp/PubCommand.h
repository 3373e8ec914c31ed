// `kyp pub`: sends a message to everybody who has subscribed to a topic.
#ifndef KYP_PROGRAMS_KYP_PUBCOMMAND_H
#define KYP_PROGRAMS_KYP_PUBCOMMAND_H

#include <cstdint>
#include <string>

#include "kyp/Command.h"
#include "kyp/Payload.h"

namespace kyptool {

class CPubCommand : public ICommand {
public:
    CLI::App* enter(CLI::App& app, Settings& settings) override;
    void check(Settings const& settings) override;
    int run(Settings const& settings, CScreen& screen) override;

private:
    std::string m_topic;
    uint32_t m_indexGroup = 0;
    uint32_t m_indexOffset = 0;
    CDataSource m_data;
};

}  // namespace kyptool

#endif
