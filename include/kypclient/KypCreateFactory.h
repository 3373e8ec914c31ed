// Makes client connections by type and keeps them: the authority on which handle is valid.
//
// Owns:     every IKypPeerConnection that it made or was given, until DelPeerConnection or
//           ClearPeerConnection.
// Threads:  any. m_mutex is held while connections are stopped, and their receive threads joined:
//           a connection, route or topic callback never calls into the manager from there.
//           Nothing keeps a connection alive between a look-up and its use: who releases a handle
//           makes sure that nobody else uses it.
// Lifetime: one per process, utility::instance<CPeerConnMgr>(), never destroyed.
#ifndef KYP_KYPCLIENT_KYPCREATEFACTORY_H
#define KYP_KYPCLIENT_KYPCREATEFACTORY_H

#include <map>
#include <mutex>
#include <set>
#include <string>

#include "kypcomm/KypTypes.h"
#include "utils/Export.h"
#include "utils/Singleton.h"

class IKypPeerConnection;
struct KypRequest;

class KYP_API CPeerConnMgr {
public:
    CPeerConnMgr();
    ~CPeerConnMgr();
    CPeerConnMgr(CPeerConnMgr const&) = delete;
    CPeerConnMgr& operator=(CPeerConnMgr const&) = delete;

    // Makes a connection of `type` and keeps it: 0 TCP with a KypTcpConnInfo, 2 and 4 Unix-domain
    // stream with a KypDomainConnInfo, 3 shared memory with a KypIvshmConnInfo. Waits up to
    // `timeoutMs`, at least 100, for the peer; a peer that does not answer still gives a
    // connection, which goes on trying by itself. Null with tlsErrno at KYP_ERR_PARAM for a wrong
    // record, KYP_ERR_PROTOCOL for type 1, KYP_ERR_CONN_TYPE for any other, or without shared
    // memory (see CreateIvshmClient).
    IKypPeerConnection* CreateFactoryConnection(int type, void* info, int infoSize, int timeoutMs);

    // The two transports, with the same results; the caller owns the connection. `timeoutMs` is
    // taken as it is. The receive thread runs when they return.
    IKypPeerConnection* CreateTcpClient(void* info, int infoSize, int timeoutMs);
    IKypPeerConnection* CreateDomainClient(void* info, int infoSize, int timeoutMs);

    // A client of the group of info->groupIndex, with the same results. Null with tlsErrno at
    // KYP_ERR_IVSHM_GROUP for a bad index, KYP_ERR_CLIENT_LIMIT when the group has 32 clients, or
    // as it was when the group's topics are not open. `timeoutMs` is not used.
    IKypPeerConnection* CreateIvshmClient(void* info, int infoSize, int timeoutMs);

    // Takes a connection over. Null is ignored.
    void AddPeerConnection(IKypPeerConnection* conn);

    // Stops and deletes `conn`; nothing happens when it is not kept here. Waits for its receive
    // thread.
    void DelPeerConnection(IKypPeerConnection* conn);

    // The connection whose address `handle` is, or null; `handle` is never followed.
    IKypPeerConnection* GetPeerConnection(void* handle);

    // The one TCP connection for requests by device id, made on first use; waits up to 1500 ms for
    // the device then. Null only when no connection could be made.
    IKypPeerConnection* GetPeerConnection(_KypDeviceId& id);

    // Stops and deletes every connection. Waits for their receive threads.
    void ClearPeerConnection();

    // Sends `req` to req->deviceId and waits for the answer. Returns its status, or -1 when it
    // could not be sent, with the reason in tlsErrno. KYP_ERR_PARAM for a null `req`.
    int AddKypRequest(KypRequest* req);

    std::mutex m_mutex;                                       // guards both containers
    std::set<IKypPeerConnection*> m_connections;              // all live connections
    std::map<std::string, IKypPeerConnection*> m_byDeviceId;  // by the device id's text; not owned
};

extern template class KYP_API utility::Singleton<CPeerConnMgr>;

#endif
