#include "kypclient/routetable/RouterTable.h"

#include <sstream>
#include <utility>

#include "kypcomm/KypDeviceId.h"
#include "utils/Log.h"

template class utility::Singleton<CRouterTable>;

namespace {

std::string id_text(_KypDeviceId const& id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

std::string host_from_id(_KypDeviceId const& id) {
    std::ostringstream text;
    text << unsigned{id.bytes[0]} << '.' << unsigned{id.bytes[1]} << '.' << unsigned{id.bytes[2]}
         << '.' << unsigned{id.bytes[3]};
    return text.str();
}

}  // namespace

CRouterTable::CRouterTable() = default;
CRouterTable::~CRouterTable() = default;

int CRouterTable::AddDeviceId2RouterTable(_KypDeviceId id, std::string host) {
    std::string const key = id_text(id);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_table[key] = std::move(host);
    return 0;
}

std::string CRouterTable::GetHostIpFromDeviceId(_KypDeviceId& id) {
    std::string const key = id_text(id);
    std::string host = host_from_id(id);

    std::lock_guard<std::mutex> lock(m_mutex);
    auto const entry = m_table.find(key);
    if (entry == m_table.end()) {
        KYP_LOG(LOG_LEVEL_TRACE, "KypDeviceId:%s not find router table,generate Host Ip:%s",
                key.c_str(), host.c_str());
        return host;
    }
    host = entry->second;
    KYP_LOG(LOG_LEVEL_TRACE, "from router table KypDeviceId:%s Get Host Ip:%s", key.c_str(),
            host.c_str());
    return host;
}
