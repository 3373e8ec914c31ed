#include "kypserver/StateService.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "kypcomm/KypStatus.h"

namespace kypserver {

void CStateService::add(Section section) {
    m_sections.push_back(std::move(section));
}

unsigned short CStateService::port() const {
    return kPort;
}

void CStateService::serve(Request const& request) {
    if (is_one_way(request.head.cmd)) return;
    if (request.head.cmd != KYP_CMD_READ_WRITE) return answer(request, KYP_ERR_COMMAND);
    unsigned int const fault = address_fault(request, 0, 0, 0);
    if (fault != KYP_OK) return answer(request, fault);

    std::string const state = text();
    answer(request, 0, state.data(), static_cast<int>(state.size()));
}

std::string CStateService::text() const {
    nlohmann::ordered_json state = nlohmann::ordered_json::object();
    for (Section const& section : m_sections) section(state);
    // What a peer has named may be no UTF-8.
    return state.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace kypserver
