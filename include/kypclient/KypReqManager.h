// One TCP connection for each device id, made on first use: the small sibling of CPeerConnMgr.
//
// Owns:     nothing; its connections belong to the process-wide CPeerConnMgr, and an entry dangles
//           once they were released there.
// Threads:  any. The lock is not held while a connection is made.
// Lifetime: any.
#ifndef KYP_KYPCLIENT_KYPREQMANAGER_H
#define KYP_KYPCLIENT_KYPREQMANAGER_H

#include <map>
#include <mutex>

#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypTypes.h"
#include "utils/Export.h"

class IKypPeerConnection;

class KYP_API CKypReqManager {
public:
    CKypReqManager();
    ~CKypReqManager();
    CKypReqManager(CKypReqManager const&) = delete;
    CKypReqManager& operator=(CKypReqManager const&) = delete;

    // The connection to `id`; the first call for a device waits up to 1500 ms for it, and gives a
    // connection also when it cannot be reached. Null only when none could be made.
    IKypPeerConnection* GetConnection(_KypDeviceId& id);

    std::mutex m_mutex;                                         // guards m_connections
    std::map<_KypDeviceId, IKypPeerConnection*> m_connections;  // not owned
};

#endif
