#include "kypclient/IvshmGroup.h"

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "kypclient/Ivshmclient.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/ivshm/IvshmTopics.h"
#include "utils/Log.h"
#include "utils/comm.h"

namespace {

constexpr int kRecvTimeoutMs = 200;  // bounds the reaction to stop()
constexpr unsigned int kClientIndexEnd = 0x21;
constexpr long kLockSliceNs = 50000000;

// The group that delivers on this thread and so holds its m_mutex already.
thread_local IvshmGroup const* t_delivering = nullptr;

// Locks the group for a delivery. False when it was asked to stop: stop() holds the mutex until the
// thread has ended, so waiting for it would never end.
bool lock_for_delivery(IvshmGroup& group) {
    while (!group.m_mutex.try_lock()) {
        if (group.m_bStop.load(std::memory_order_relaxed)) return false;

        timespec until{};
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += kLockSliceNs;
        if (until.tv_nsec >= 1000000000) {
            until.tv_sec += 1;
            until.tv_nsec -= 1000000000;
        }
        if (pthread_mutex_timedlock(group.m_mutex.native_handle(), &until) == 0) return true;
    }
    return true;
}

bool is_header_valid(ShmHeader const& shm, int clientId) {
    if (shm.magic != kShmMagic) {
        KYP_LOG(LOG_LEVEL_ERROR, "shmheader magic:%x error", shm.magic);
        return false;
    }
    if (static_cast<unsigned int>(clientId) - 1 >= kClientIndexEnd) {
        KYP_LOG(LOG_LEVEL_ERROR, "shmheader vclientid:%x exceeded",
                static_cast<unsigned int>(clientId));
        return false;
    }
    return true;
}

// Gives the frame of one message to its client, if there is one.
void deliver(IvshmGroup& group, unsigned char* message, unsigned long size) {
    ShmHeader shm{};
    std::memcpy(&shm, message, sizeof(shm));
    const int clientId = static_cast<int16_t>(shm.clientId);
    if (!is_header_valid(shm, clientId)) return;

    KYP_LOG(LOG_LEVEL_DEBUG, "recv ivshm clientid:%d,kypsize:%d", clientId,
            static_cast<int>(shm.dataSize));
    // Kept: the test above lets id 33 pass, for which there is no client.
    if (clientId > kShmClients) return;

    if (!lock_for_delivery(group)) return;
    std::lock_guard<std::mutex> lock(group.m_mutex, std::adopt_lock);
    CIvshmClient* const client = group.m_arrClient[clientId - 1];
    if (client == nullptr) return;
    t_delivering = &group;
    client->process_frame(message + sizeof(shm), static_cast<int>(size - sizeof(shm)));
    t_delivering = nullptr;
}

// Receives one message of at least a ShmHeader into `buf`.
bool receive(IvshmGroup& group, unsigned char* buf, unsigned long capacity, unsigned long& size) {
    void* const handle = group.m_hRead.load(std::memory_order_relaxed);
    size = capacity;
    if (handle == nullptr) {
        // Closed under the thread: nothing waits for us, so the pause is our own.
        CComm::Sleep(kRecvTimeoutMs);
        return false;
    }
    if (!ExtIvshmApiDef::GetInstance().Recv(handle, &size, buf, kRecvTimeoutMs)) return false;
    if (size >= sizeof(ShmHeader) && size <= capacity) return true;
    KYP_LOG(LOG_LEVEL_WARNING, "ivshm message of %lu bytes dropped,header needs %d,buffer has %lu",
            size, static_cast<int>(sizeof(ShmHeader)), capacity);
    return false;
}

}  // namespace

IvshmGroup* IvshmGroup::m_arrIvshmGroup[kShmGroups] = {};
std::mutex IvshmGroup::mutex;

IvshmGroup* IvshmGroup::makeIvshmGroup(MODE mode, int idx, int maxSize) {
    if (idx < 0 || idx >= kShmGroups) {
        tlsErrno = KYP_ERR_IVSHM_GROUP;
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex);
    IvshmGroup*& group = m_arrIvshmGroup[idx];
    // Kept: side and largest frame are those of the first caller, whatever later ones ask for.
    if (group == nullptr) {
        group = new IvshmGroup(mode, idx, maxSize);
        KYP_LOG(LOG_LEVEL_DEBUG, "create ivshm group,idx:%d,maxsizebyte:%d", idx, maxSize);
    }
    group->addRefCount();
    return group;
}

void IvshmGroup::destoryIvshmGroup(IvshmGroup* group) {
    if (group == nullptr) {
        tlsErrno = KYP_ERR_HANDLE;
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (group->subRefCount() != 0) return;
        KYP_LOG(LOG_LEVEL_INFO, "ivshm group idx:%d refcount==0 release object",
                group->getIvshmIdx());
        IvshmGroup** const slot =
            std::find(std::begin(m_arrIvshmGroup), std::end(m_arrIvshmGroup), group);
        if (slot != std::end(m_arrIvshmGroup)) *slot = nullptr;
    }
    // Without the class mutex: the thread may be delivering, and makes no client wait for it. It
    // ends before the topic that it reads is closed.
    group->stop();
    group->uninit_ivshm_topic();
    delete group;
}

IvshmGroup::IvshmGroup(MODE mode, int idx, int maxSize)
    : m_bStop(false),
      m_nRefCount(0),
      m_bInit(false),
      m_nIdx(idx),
      m_nMaxSize(maxSize),
      m_enMode(mode),
      m_hRead(nullptr),
      m_hWrite(nullptr),
      m_arrClient{} {}

IvshmGroup::~IvshmGroup() {
    m_nIdx = -1;
    stop();
    for (CIvshmClient* client : m_arrClient) {
        if (client != nullptr) client->m_pGroup = nullptr;
    }
}

int IvshmGroup::addRefCount() {
    return ++m_nRefCount;
}

int IvshmGroup::subRefCount() {
    return --m_nRefCount;
}

int IvshmGroup::getRefCount() {
    return m_nRefCount;
}

int IvshmGroup::getIvshmIdx() {
    return m_nIdx;
}

bool IvshmGroup::init_ivshm_topic() {
    if (m_bInit) return true;

    auto& api = ExtIvshmApiDef::GetInstance();
    const IvshmTopics topics = ivshm_topics(m_enMode, m_nIdx);
    // Kept: what the transport opens is not stored, so the topics count as closed, here and in a
    // connection of type 3, unless the handles were set before.
    if (m_hRead == nullptr) (void)api.InitIvshmTopic(topics.read, m_enMode);
    if (m_hWrite == nullptr) (void)api.InitIvshmTopic(topics.write, m_enMode);
    if (m_hRead == nullptr || m_hWrite == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "init rhandle:%x,whandle:%x fail", ivshm_handle_number(m_hRead),
                ivshm_handle_number(m_hWrite));
        return false;
    }
    m_bInit = true;
    KYP_LOG(LOG_LEVEL_DEBUG, "init read topic:%d,write topic:%d", topics.read, topics.write);
    return true;
}

void IvshmGroup::uninit_ivshm_topic() {
    if (!m_bInit.exchange(false)) return;
    auto& api = ExtIvshmApiDef::GetInstance();
    if (void* const handle = m_hRead.exchange(nullptr)) api.UninitIvshmTopic(handle);
    if (void* const handle = m_hWrite.exchange(nullptr)) api.UninitIvshmTopic(handle);
}

int IvshmGroup::start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bStop.store(false, std::memory_order_relaxed);
    if (!m_thread.joinable()) m_thread = std::thread(&IvshmGroup::svc, this);
    return 0;
}

int IvshmGroup::stop() {
    // Ahead of the mutex too: under a flood the thread would take that again and again.
    m_bStop.store(true, std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bStop.store(true, std::memory_order_relaxed);
    if (m_thread.joinable()) m_thread.join();
    return 0;
}

unsigned short IvshmGroup::openVClient() {
    std::lock_guard<std::mutex> lock(mutex);
    for (unsigned short i = 0; i < kShmClients; ++i) {
        if (m_arrVClient[i].IsOpen()) continue;
        return m_arrVClient[i].Open(static_cast<unsigned short>(i + 1));
    }
    tlsErrno = KYP_ERR_CLIENT_LIMIT;
    return 0;
}

int IvshmGroup::closeVClient(unsigned short id) {
    std::lock_guard<std::mutex> lock(mutex);
    if (id < 1 || id > kShmClients || !m_arrVClient[id - 1].IsOpen()) {
        tlsErrno = KYP_ERR_CLIENT_ID;
        return tlsErrno;
    }
    m_arrVClient[id - 1].Close();
    return 0;
}

CIvshmClient* IvshmGroup::makeIvshmClient() {
    std::lock_guard<std::mutex> lock(m_mutex);
    const unsigned short id = openVClient();
    if (id == 0) return nullptr;
    auto* const client = new CIvshmClient(this, id);
    m_arrClient[id - 1] = client;
    return client;
}

void IvshmGroup::destoryIvshmClient(CIvshmClient* client) {
    if (client == nullptr) {
        tlsErrno = KYP_ERR_HANDLE;
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    const unsigned short id = client->m_clientId;
    // Kept: a client with an id that cannot be is reported and destroyed all the same.
    if (static_cast<unsigned int>(id) - 1 >= kClientIndexEnd) tlsErrno = KYP_ERR_CLIENT_ID;
    if (id >= 1 && id <= kShmClients) m_arrClient[id - 1] = nullptr;
    (void)closeVClient(id);
    // Its place is given back already.
    if (client->m_pGroup == this) client->m_pGroup = nullptr;
    delete client;
}

bool IvshmGroup::raw_send(void* data, int size, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex, std::defer_lock);
    if (t_delivering != this) lock.lock();
    void* const handle = m_hWrite;
    if (handle == nullptr) {
        tlsErrno = KYP_ERR_IVSHM_HANDLE;
        KYP_LOG(LOG_LEVEL_ERROR, "invaild send handle");
        return false;
    }
    // A size that has wrapped would name more bytes than there are.
    if (size >= 0) {
        (void)ExtIvshmApiDef::GetInstance().Send(handle, static_cast<unsigned long>(size), data,
                                                 timeoutMs);
    }
    // Kept: a failure in all cases, also when the message is on its way.
    tlsErrno = KYP_ERR_IVSHM_TIMEOUT;
    return false;
}

int IvshmGroup::svc() {
    const int64_t wanted = int64_t{std::max(m_nMaxSize, 0)} + kShmBufferSlack;
    const std::unique_ptr<unsigned char[]> buf(
        wanted > INT32_MAX ? nullptr
                           : new (std::nothrow) unsigned char[static_cast<size_t>(wanted)]);
    if (buf == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "ivshm group has no buffer for frames of %d bytes", m_nMaxSize);
        return 0;
    }
    if (!m_bInit) return 0;
    while (!m_bStop.load(std::memory_order_relaxed)) {
        unsigned long size = 0;
        if (receive(*this, buf.get(), static_cast<unsigned long>(wanted), size)) {
            deliver(*this, buf.get(), size);
        }
    }
    return 0;
}
