// Decides the id of the device that this process runs on, and keeps it.
//
// The file /opt/kyp/kypdevice.xml wins; without it the id is made from the first usable IPv4
// address.
//
// Owns:     the id and the latest list of network adapters.
// Threads:  any. Two threads that ask first may both determine the id; they find the same one.
// Lifetime: singleton, to the end of the process.
#ifndef KYP_KYPCOMM_KYPDEVICEIDGENERATOR_H
#define KYP_KYPCOMM_KYPDEVICEIDGENERATOR_H

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>

#include "kypcomm/Adapter.h"
#include "kypcomm/KypTypes.h"
#include "utils/Export.h"
#include "utils/Singleton.h"

// Makes an id from the first of `adapters` that has an address, in the map's own order; "virbr0"
// counts only when it is alone. Returns 0; 0x1001 when `out` is null or no adapter has an address,
// 0x2002 for an empty map.
KYP_API int KypGetLocalDeviceId(_KypDeviceId* out,
                                const std::unordered_map<std::string, _NetAdapterObj>& adapters);

class KYP_API CKypDeviceIdGenerator {
public:
    CKypDeviceIdGenerator();
    ~CKypDeviceIdGenerator();

    // Lists the adapters anew. Returns their number; at 0 the old list stays.
    int LoadLocalNetAdaptersInfo();

    // A copy of the latest list that was not empty.
    std::unordered_map<std::string, _NetAdapterObj> GetAdapterList();

    // Takes the id from the file. Returns 0, or -1 when there is no file or none in it. A malformed
    // text gives the all-zero id, and that counts.
    int LoadKypDeviceIdFromXml();

    // Takes the id from the adapters, if one has an address; logged otherwise. Returns -1 always.
    int LoadKypDeviceIdFromNetAdapters();

    // The file, or else the adapters. Returns 0 always.
    int LoadDeviceId();

    // The id, determined on first use; all zero while there is neither a file nor an address, and
    // then each call tries again.
    _KypDeviceId GetLocalDeviceId();

    // Makes `id` the local one and writes it to the file. Returns 0 always.
    int SetLocalDeviceId(const _KypDeviceId& id);

    // Writes the file. Returns 0 always; a file that cannot be written is logged.
    int SaveKypDeviceIdToXml(const _KypDeviceId& id);

    std::atomic<bool> m_loaded;  // an id was found; never reset. Read without the mutex
    std::mutex m_mutex;          // guards the fields below
    _KypDeviceId m_deviceId;     // all zero until found or set
    std::unordered_map<std::string, _NetAdapterObj> m_adapters;  // by interface name
};

extern template class KYP_API utility::Singleton<CKypDeviceIdGenerator>;

#endif
