// The client end of a pair of shared-memory topics. Up to 32 logical clients share it; one thread
// takes what comes and gives each frame to the client that the message names.
//
// Owns:     the topic handles while they are open. Not its clients: the table only points to them.
// Threads:  any. svc() runs on the group's thread, and so do the routes, topics and connections of
//           its clients, with m_mutex held: they may send, and must not make or destroy clients.
//           Lock order: m_mutex before the class mutex. stop() holds m_mutex until the thread has
//           ended; a frame that is in hand then is dropped.
// Lifetime: found by index, at most two, alive by reference count. A client that outlives its group
//           sends nothing any more.
#ifndef KYP_KYPCLIENT_IVSHMGROUP_H
#define KYP_KYPCLIENT_IVSHMGROUP_H

#include <atomic>
#include <mutex>
#include <thread>

#include "kypcomm/ivshm/IvshmExtFunDef.h"
#include "kypcomm/ivshm/ShmHeader.h"
#include "kypcomm/ivshm/VClient.h"
#include "utils/Export.h"

class CIvshmClient;

class KYP_API IvshmGroup {
public:
    // The group of index 0 or 1 with one more reference; it is made for the first caller, and
    // `mode` and `maxSize`, the largest frame in bytes, are his. Null with tlsErrno 0x101a for any
    // other index. Opens nothing.
    static IvshmGroup* makeIvshmGroup(MODE mode, int idx, int maxSize);

    // Gives a reference back; the last one stops the thread, waiting up to 200 ms for it, closes
    // the topics and destroys the group. Null only sets tlsErrno to 0x2001.
    static void destoryIvshmGroup(IvshmGroup* group);

    IvshmGroup(MODE mode, int idx, int maxSize);

    // Stops the thread. Clients that are left have no group from here on.
    ~IvshmGroup();
    IvshmGroup(IvshmGroup const&) = delete;
    IvshmGroup& operator=(IvshmGroup const&) = delete;

    // Each returns the new count.
    int addRefCount();
    int subRefCount();
    int getRefCount();

    int getIvshmIdx();

    // True when both handles are there, also from before. It opens a topic whose handle is missing,
    // but does not keep the handle: who wants open topics sets m_hRead and m_hWrite before.
    bool init_ivshm_topic();

    // Closes both topics, when they are open.
    void uninit_ivshm_topic();

    // Starts the thread if there is none. Without open topics it ends at once. Returns 0.
    int start();

    // Ends the thread and waits for it, up to 200 ms on an idle channel. Returns 0.
    int stop();

    // Opens the lowest closed place and returns its id, 1..32, or 0 with tlsErrno 0x101b.
    unsigned short openVClient();

    // Closes an open place. Returns 0, or sets tlsErrno to and returns 0x101c for any other id.
    int closeVClient(unsigned short id);

    // A new client, for the caller to give to destoryIvshmClient() or to delete. Null with tlsErrno
    // 0x101b when there are 32.
    CIvshmClient* makeIvshmClient();

    // Takes the client out of the table, closes its place and deletes it.
    void destoryIvshmClient(CIvshmClient* client);

    // Sends one message, ShmHeader included, waiting up to `timeoutMs` for room. False in all
    // cases, with tlsErrno 0x101d without an open topic and 0x101e otherwise.
    bool raw_send(void* data, int size, int timeoutMs);

    // The receive loop; returns 0 after stop().
    int svc();

    static IvshmGroup* m_arrIvshmGroup[kShmGroups];  // by index; guarded by `mutex`
    static std::mutex mutex;  // guards the array above and the places of all clients

    std::atomic<bool> m_bStop;  // asks svc() to end; relaxed, read every round
    std::thread m_thread;       // runs svc()
    std::mutex m_mutex;         // guards m_arrClient; held during a send and a delivery
    std::atomic<int> m_nRefCount;
    std::atomic<bool> m_bInit;               // both topics are open
    int m_nIdx;                              // -1 after destruction
    int m_nMaxSize;                          // largest frame in bytes
    MODE m_enMode;                           // kIvshmClient
    std::atomic<void*> m_hRead;              // null while closed
    std::atomic<void*> m_hWrite;             // null while closed
    VClient m_arrVClient[kShmClients];       // place i is that of id i + 1; guarded by `mutex`
    CIvshmClient* m_arrClient[kShmClients];  // client of id i + 1, or null; not owned
};

#endif
