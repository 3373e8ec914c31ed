// All connection records of the process, the ones in use, the ones ready and the ones waiting.
//
// Owns:     every record, through m_listAll; the other lists only refer to them.
// Threads:  any; IdelRecyConnections() belongs to the first loop's thread, close_connections() to
//           the connection's. Lock order: m_recyMutex, then m_connMutex, then a record's
//           m_sendMutex.
// Lifetime: a singleton. Records are never freed before clear_connections(), so every pointer to
//           one stays good; a closed one waits m_nRecyDelay seconds before it serves a new peer.
#ifndef KYP_KYPCORE_SOCKCONNPOOL_H
#define KYP_KYPCORE_SOCKCONNPOOL_H

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>

#include "utils/Export.h"
#include "utils/Singleton.h"

class CSocketConnection;

class KYP_API CSockConnPool {
public:
    CSockConnPool();

    // clear_connections().
    ~CSockConnPool();

    // Adds `count` records that are ready for use. Returns 0; nothing happens below 1.
    int init_connections(int count);

    // Destroys every record. For shutdown: the other lists and the counters stay as they are.
    void clear_connections();

    // A record for `fd`, the one freed longest ago or a new one. Never null.
    CSocketConnection* get_connection(int fd);

    // Empties the record and puts it with those that are ready, at once.
    void free_connection(CSocketConnection* conn);

    // The end of a connection: observers are told, the record is queued for reuse, its socket
    // closed. A second call for the same record does no harm. Once the connection is registered
    // this belongs to its loop's thread, which may be reading the descriptor.
    void close_connections(CSocketConnection* conn);

    // Tells and drops the observers, then queues the record once. Returns 0.
    int inRecyConnectQueue(CSocketConnection* conn);

    // Frees the records that have waited long enough.
    void IdelRecyConnections();

    std::atomic<int64_t> m_nRecyDelay;        // seconds; 60
    std::list<CSocketConnection*> m_listAll;  // owned
    std::list<CSocketConnection*> m_listFree;
    std::list<CSocketConnection*> m_listRecy;
    std::mutex m_connMutex;     // guards m_listAll and m_listFree
    std::mutex m_recyMutex;     // guards m_listRecy
    std::atomic<int> m_nTotal;  // size of m_listAll
    std::atomic<int> m_nFree;   // size of m_listFree
    std::atomic<int> m_nRecy;  // size of m_listRecy; keeps the idle round of the recycler lock-free
};

extern template class KYP_API utility::Singleton<CSockConnPool>;

#endif
