// Which host stands behind a device id.
//
// Owns:     its entries; they are only ever added or overwritten.
// Threads:  any; m_mutex guards the table.
// Lifetime: one per process, utility::instance<CRouterTable>(), never destroyed.
#ifndef KYP_KYPCLIENT_ROUTETABLE_ROUTERTABLE_H
#define KYP_KYPCLIENT_ROUTETABLE_ROUTERTABLE_H

#include <map>
#include <mutex>
#include <string>

#include "kypcomm/KypTypes.h"
#include "utils/Export.h"
#include "utils/Singleton.h"

class KYP_API CRouterTable {
public:
    CRouterTable();
    ~CRouterTable();
    CRouterTable(CRouterTable const&) = delete;
    CRouterTable& operator=(CRouterTable const&) = delete;

    // Connections to `id` go to `host` from now on; the last writer wins. Returns 0.
    int AddDeviceId2RouterTable(_KypDeviceId id, std::string host);

    // The host entered for `id`, or its first four bytes as an IPv4 address when there is none.
    std::string GetHostIpFromDeviceId(_KypDeviceId& id);

    std::mutex m_mutex;
    std::map<std::string, std::string> m_table;  // device id's text to host; guarded by m_mutex
};

extern template class KYP_API utility::Singleton<CRouterTable>;

#endif
