// Port 104: tells the state of this server as one JSON object.
//
// Owns:     nothing that it tells of; the sections ask their owners.
// Threads:  serve() on any worker. The sections are called there, too.
// Lifetime: outlives the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_STATESERVICE_H
#define KYP_PROGRAMS_KYPSERVER_STATESERVICE_H

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "kypserver/Service.h"

namespace kypserver {

class CStateService : public IService {
public:
    static constexpr unsigned short kPort = 104;

    // Writes its part of the state into the object.
    using Section = std::function<void(nlohmann::ordered_json&)>;

    // Adds a part, behind those that are there. To be called before the workers start.
    void add(Section section);

    unsigned short port() const override;

    // Command 9 at 0/0 without data: answers the object as UTF-8 text without a terminator.
    // Anything else: 0x1009 command, 0x1002 group, 0x1003 offset, 0x1004 length. Commands that
    // await no answer get none.
    void serve(Request const& request) override;

    // The object as it stands now.
    std::string text() const;

private:
    std::vector<Section> m_sections;
};

}  // namespace kypserver

#endif
