// The place of one virtual client in its group: open under an id, or closed.
//
// Threads:  any. IsOpen() takes no lock.
// Lifetime: the group's.
#ifndef KYP_KYPCOMM_IVSHM_VCLIENT_H
#define KYP_KYPCOMM_IVSHM_VCLIENT_H

#include <atomic>
#include <mutex>

#include "utils/Export.h"

class KYP_API VClient {
public:
    VClient();
    ~VClient();
    VClient(VClient const&) = delete;
    VClient& operator=(VClient const&) = delete;

    // Opens the place under `id` and returns it.
    unsigned short Open(unsigned short id);
    void Close();
    bool IsOpen();

    std::atomic<unsigned short> m_id;  // 0 when closed; written under m_mutex
    std::mutex m_mutex;
};

#endif
