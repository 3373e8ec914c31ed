// The server end of a pair of shared-memory topics: one thread that takes each frame straight to
// its port's route, past event loops and workers, and the connections on which routes answer.
//
// Owns:     the topic handles while they are open, and the connections, which are never released:
//           a route may answer at any later time.
// Threads:  svc() runs on the group's thread, and so do the routes: one that blocks stops the
//           channel's receipt. raw_send() and ivshm_conn::send_message() from any thread; senders
//           take turns. m_mutex is never held during receipt. init, start, stop and uninit belong
//           to one thread at a time, which is not the group's own.
// Lifetime: made -> init_ivshm_topic -> start -> stop, to the end of the process:
//           destoryIvshmGroup() leaves a group as it is.
#ifndef KYP_COMPMODULE_IVSHM_SVR_GROUP_H
#define KYP_COMPMODULE_IVSHM_SVR_GROUP_H

#include <atomic>
#include <mutex>
#include <thread>

#include "kypcomm/KypWire.h"
#include "kypcomm/ivshm/IvshmExtFunDef.h"
#include "kypcomm/ivshm/ShmHeader.h"
#include "kypcore/IConnection.h"
#include "utils/Export.h"

class IvshmSvrGroup;
class pbuf;

// One virtual client, from its first frame on. get_fd() is its id.
class KYP_API ivshm_conn : public IConnection {
public:
    ivshm_conn(IvshmSvrGroup* group, int processId, int clientId);
    ~ivshm_conn() override;

    // Only the form with heads exists on this road. The other two send nothing and return 0.
    int send_message(char const* data, int size) override;

    // Sends a reply and waits up to `timeout` milliseconds for room. Returns 0 also when it could
    // not be sent; tlsErrno then tells why (see IvshmSvrGroup::raw_send).
    int send_message(_AoEHeader const& aoe, unsigned short port, char const* data, int size,
                     int timeout) override;

    // `buf` goes back to nobody: it stays with the caller.
    int send_message(pbuf* buf, _AoEHeader const& aoe) override;

    int get_fd() override;

    unsigned short m_clientId;
    int m_processId;          // as the client's first frame told it; goes into every reply
    IvshmSvrGroup* m_pGroup;  // not owned; null when the group has ended
};

class KYP_API IvshmSvrGroup {
public:
    // A new group for index 0 or 1, with one reference; `maxSize` is the largest frame in bytes.
    // Null with tlsErrno 0x101a for any other index. Opens nothing.
    static IvshmSvrGroup* makeIvshmGroup(int idx, int maxSize);

    // Leaves `group` running and sets tlsErrno to 0x2001. Null touches nothing.
    static void destoryIvshmGroup(IvshmSvrGroup* group);

    IvshmSvrGroup(MODE mode, int idx, int maxSize);

    // The thread has been stopped before.
    ~IvshmSvrGroup();
    IvshmSvrGroup(IvshmSvrGroup const&) = delete;
    IvshmSvrGroup& operator=(IvshmSvrGroup const&) = delete;

    // Each returns the new count.
    int addRefCount();
    int subRefCount();
    int getRefCount();

    int getIvshmIdx();

    // Opens both topics. True when they are open, also from before.
    bool init_ivshm_topic();

    // Closes both. A later init_ivshm_topic() does not open them again.
    void uninit_ivshm_topic();

    // Starts the thread, which must not run yet. Returns 0.
    int start();

    // Ends the thread and waits for it, up to 2 seconds on an idle channel. Returns 0.
    int stop();

    // Sends one message, ShmHeader included, waiting up to `timeoutMs` for room. False with
    // tlsErrno 0x101d without an open topic, 0x101e when it could not be sent.
    bool raw_send(void* data, int size, int timeoutMs);

    // The receive loop; returns 0 after stop().
    int svc();

    static IvshmSvrGroup* m_arrIvshmGroup[kShmGroups];  // by index; stays empty
    static std::mutex mutex;                            // guards making a group

    std::atomic<bool> m_bStop;  // asks svc() to end; relaxed, read every round
    std::mutex m_mutex;         // held during a send
    std::thread m_thread;       // runs svc()
    std::atomic<bool> m_bInit;  // init_ivshm_topic() has succeeded
    std::atomic<int> m_nRefCount;
    int m_nIdx;                          // -1 after destruction
    int m_nMaxSize;                      // largest frame in bytes
    MODE m_enMode;                       // kIvshmServer
    std::atomic<void*> m_hRead;          // null while closed
    std::atomic<void*> m_hWrite;         // null while closed
    ivshm_conn* m_arrConn[kShmClients];  // by client id - 1, null until its first frame; written by
                                         // svc()
};

#endif
