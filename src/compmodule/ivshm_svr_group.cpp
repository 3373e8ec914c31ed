#include "compmodule/ivshm_svr_group.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "kypcomm/Frame.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/ivshm/IvshmTopics.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/router/RouteManage.h"
#include "utils/Log.h"
#include "utils/comm.h"

namespace {

constexpr int kRecvTimeoutMs = 2000;  // bounds the reaction to stop()
constexpr unsigned int kHighestClientIndex = 32;
constexpr unsigned long kRequestHeads =
    sizeof(_KypHeader) + sizeof(_AoEHeader) + sizeof(AoERequestHeader);
constexpr uint32_t kRequestHeadsInBody = sizeof(_AoEHeader) + sizeof(AoERequestHeader);
constexpr unsigned int kReplyHeads = sizeof(ShmHeader) + sizeof(_KypHeader) + sizeof(_AoEHeader);

// A request taken apart; the payload lies in the receive buffer.
struct Request {
    _KypHeader kyp;
    _AoEHeader aoe;
    AoERequestHeader address;
    unsigned char* payload;
    int size;
};

// A group that nobody holds any more is never released; being found from here, it is not lost
// either.
std::vector<IvshmSvrGroup*>& all_groups() {
    static auto* const s_groups = new std::vector<IvshmSvrGroup*>;
    return *s_groups;
}

unsigned char* take_after(void* head, unsigned char* bytes, size_t size) {
    std::memcpy(head, bytes, size);
    return bytes + size;
}

// Receives one message of at least a ShmHeader into `buf`.
bool receive(IvshmSvrGroup& group, unsigned char* buf, unsigned long capacity,
             unsigned long& size) {
    void* const handle = group.m_hRead.load(std::memory_order_relaxed);
    size = capacity;
    if (handle == nullptr) {
        // Closed under the thread: nothing waits for us, so the pause is our own.
        CComm::Sleep(kRecvTimeoutMs);
    } else if (ExtIvshmApiDef::GetInstance().Recv(handle, &size, buf, kRecvTimeoutMs)) {
        if (size >= sizeof(ShmHeader) && size <= capacity) return true;
        KYP_LOG(LOG_LEVEL_WARNING,
                "ivshm message of %lu bytes dropped,header needs %d,buffer has %lu", size,
                static_cast<int>(sizeof(ShmHeader)), capacity);
        return false;
    }
    // Kept: an idle channel logs an error every two seconds.
    KYP_LOG(LOG_LEVEL_ERROR, "ivshm read buffer timeout");
    return false;
}

bool is_header_valid(ShmHeader const& shm, int clientId) {
    if (shm.magic != kShmMagic) {
        KYP_LOG(LOG_LEVEL_ERROR, "shmheader magic:%x error", shm.magic);
        return false;
    }
    if (static_cast<unsigned int>(clientId) - 1 > kHighestClientIndex) {
        KYP_LOG(LOG_LEVEL_ERROR, "shmheader vclientid:%x exceeded",
                static_cast<unsigned int>(clientId));
        return false;
    }
    return true;
}

// Takes the frame of `size` bytes at `frame` apart. The lengths are the peer's, so none is followed
// past the bytes that came.
bool take_apart(ShmHeader const& shm, unsigned char* frame, unsigned long size, Request& request) {
    uint32_t bodyLen = 0;
    if (size >= kRequestHeads) {
        unsigned char* next = take_after(&request.kyp, frame, sizeof(request.kyp));
        next = take_after(&request.aoe, next, sizeof(request.aoe));
        request.payload = take_after(&request.address, next, sizeof(request.address));
        bodyLen = request.kyp.nMsgLen;
    }
    if (bodyLen < kRequestHeadsInBody || bodyLen > size - sizeof(_KypHeader) ||
        shm.dataSize > size) {
        KYP_LOG(LOG_LEVEL_WARNING,
                "ivshm frame of %lu bytes dropped,clientid:%d,KypDataSize:%u,KypHeader len:%u",
                size, static_cast<int>(shm.clientId), shm.dataSize, bodyLen);
        return false;
    }
    request.size = static_cast<int>(bodyLen - kRequestHeadsInBody);
    return true;
}

ivshm_conn* connection_of(IvshmSvrGroup& group, int clientId, ShmHeader const& shm) {
    ivshm_conn*& conn = group.m_arrConn[clientId - 1];
    // Kept: a client that comes back as another process under the same id is answered with the
    // process id of the first.
    if (conn == nullptr) conn = new ivshm_conn(&group, static_cast<int>(shm.processId), clientId);
    return conn;
}

void serve(IvshmSvrGroup& group, unsigned char* message, unsigned long size) {
    ShmHeader shm{};
    unsigned char* const frame = take_after(&shm, message, sizeof(shm));
    const int clientId = static_cast<int16_t>(shm.clientId);
    if (!is_header_valid(shm, clientId)) return;

    KYP_LOG(LOG_LEVEL_TRACE, "recv ivshm frame,clientid:%d,KypDataSize:%d", clientId,
            static_cast<int>(shm.dataSize));
    // Kept: the test above lets id 33 pass, for which there is no connection.
    if (clientId > kShmClients) return;

    Request request{};
    if (!take_apart(shm, frame, size - sizeof(shm), request)) return;

    (void)utility::instance<RouteManage>().comp_datacallback(
        request.payload, request.size, request.kyp, request.aoe, request.address,
        connection_of(group, clientId, shm));
}

}  // namespace

ivshm_conn::ivshm_conn(IvshmSvrGroup* group, int processId, int clientId)
    : m_clientId(static_cast<unsigned short>(clientId)), m_processId(processId), m_pGroup(group) {}

ivshm_conn::~ivshm_conn() = default;

int ivshm_conn::send_message(char const*, int) {
    // Kept: a frame that carries its heads already is dropped, and so is a buffer, below.
    return 0;
}

int ivshm_conn::send_message(_AoEHeader const& aoe, unsigned short port, char const* data, int size,
                             int timeout) {
    if (m_pGroup == nullptr) {
        tlsErrno = KYP_ERR_HANDLE;
        return 0;
    }
    const unsigned int length = data == nullptr || size < 0 ? 0 : static_cast<unsigned int>(size);
    Frame frame(length + kReplyHeads, nullptr);
    frame.prepend(data, length);
    frame.prepend(&aoe, sizeof(aoe));
    const _KypHeader header{0, kKypVersion, port,
                            static_cast<uint32_t>(length + sizeof(_AoEHeader))};
    frame.prepend(&header, sizeof(header));
    const ShmHeader shm{
        kShmMagic,   kShmType, 0, kShmVersion, 0, m_clientId, static_cast<uint32_t>(m_processId),
        frame.size()};
    frame.prepend(&shm, sizeof(shm));
    // Kept: a reply that could not be sent is reported as 0 all the same.
    (void)m_pGroup->raw_send(frame.data(), static_cast<int>(frame.size()), timeout);
    delete[] frame.rawData();
    return 0;
}

int ivshm_conn::send_message(pbuf*, _AoEHeader const&) {
    return 0;
}

int ivshm_conn::get_fd() {
    return m_clientId;
}

IvshmSvrGroup* IvshmSvrGroup::m_arrIvshmGroup[kShmGroups] = {};
std::mutex IvshmSvrGroup::mutex;

IvshmSvrGroup* IvshmSvrGroup::makeIvshmGroup(int idx, int maxSize) {
    if (idx < 0 || idx >= kShmGroups) {
        tlsErrno = KYP_ERR_IVSHM_GROUP;
        KYP_LOG(LOG_LEVEL_ERROR, "ivshm group idx:%d invaild", idx);
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex);
    IvshmSvrGroup* group = m_arrIvshmGroup[idx];
    if (group == nullptr) {
        // Kept: not entered in the array, so each call makes a group of its own.
        group = new IvshmSvrGroup(kIvshmServer, idx, maxSize);
        all_groups().push_back(group);
        KYP_LOG(LOG_LEVEL_DEBUG, "create ivshm group idx:%d,maxsizebyte:%d", idx, maxSize);
    }
    group->addRefCount();
    return group;
}

void IvshmSvrGroup::destoryIvshmGroup(IvshmSvrGroup* group) {
    if (group == nullptr) return;
    // Kept: a group is never released, whatever its count.
    tlsErrno = KYP_ERR_HANDLE;
}

IvshmSvrGroup::IvshmSvrGroup(MODE mode, int idx, int maxSize)
    : m_bStop(false),
      m_bInit(false),
      m_nRefCount(0),
      m_nIdx(idx),
      m_nMaxSize(maxSize),
      m_enMode(mode),
      m_hRead(nullptr),
      m_hWrite(nullptr),
      m_arrConn{} {}

IvshmSvrGroup::~IvshmSvrGroup() {
    m_nIdx = -1;
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto& groups = all_groups();
        groups.erase(std::remove(groups.begin(), groups.end(), this), groups.end());
    }
    // The connections stay for whoever still answers on them; what they send goes nowhere.
    for (ivshm_conn* conn : m_arrConn) {
        if (conn != nullptr) conn->m_pGroup = nullptr;
    }
}

int IvshmSvrGroup::addRefCount() {
    return ++m_nRefCount;
}

int IvshmSvrGroup::subRefCount() {
    return --m_nRefCount;
}

int IvshmSvrGroup::getRefCount() {
    return m_nRefCount;
}

int IvshmSvrGroup::getIvshmIdx() {
    return m_nIdx;
}

bool IvshmSvrGroup::init_ivshm_topic() {
    if (m_bInit) return true;

    auto& api = ExtIvshmApiDef::GetInstance();
    const IvshmTopics topics = ivshm_topics(m_enMode, m_nIdx);
    if (m_hRead == nullptr) m_hRead = api.InitIvshmTopic(topics.read, m_enMode);
    if (m_hWrite == nullptr) m_hWrite = api.InitIvshmTopic(topics.write, m_enMode);
    if (m_hRead == nullptr || m_hWrite == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "init <rhandle:%x,topic:%d>,<whandle:%x,topic:%d> fail",
                ivshm_handle_number(m_hRead), topics.read, ivshm_handle_number(m_hWrite),
                topics.write);
        return false;
    }
    m_bInit = true;
    KYP_LOG(LOG_LEVEL_DEBUG, "init read topic:%d,write topic:%d", topics.read, topics.write);
    return true;
}

void IvshmSvrGroup::uninit_ivshm_topic() {
    auto& api = ExtIvshmApiDef::GetInstance();
    // Kept: m_bInit stays as it is, so the topics count as open and are not opened again.
    if (void* const handle = m_hRead.exchange(nullptr)) api.UninitIvshmTopic(handle);
    if (void* const handle = m_hWrite.exchange(nullptr)) api.UninitIvshmTopic(handle);
}

int IvshmSvrGroup::start() {
    m_bStop.store(false, std::memory_order_relaxed);
    // Kept: starting a group that runs ends the process.
    m_thread = std::thread(&IvshmSvrGroup::svc, this);
    return 0;
}

int IvshmSvrGroup::stop() {
    m_bStop.store(true, std::memory_order_relaxed);
    if (m_thread.joinable()) m_thread.join();
    return 0;
}

bool IvshmSvrGroup::raw_send(void* data, int size, int timeoutMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    void* const handle = m_hWrite;
    if (handle == nullptr) {
        tlsErrno = KYP_ERR_IVSHM_HANDLE;
        return false;
    }
    // A size that has wrapped would name more bytes than there are.
    if (size >= 0 && ExtIvshmApiDef::GetInstance().Send(handle, static_cast<unsigned long>(size),
                                                        data, timeoutMs)) {
        return true;
    }
    KYP_LOG(LOG_LEVEL_WARNING, "ivshm group idx:%d send of %d bytes fail,timeout:%d ms", m_nIdx,
            size, timeoutMs);
    tlsErrno = KYP_ERR_IVSHM_TIMEOUT;
    return false;
}

int IvshmSvrGroup::svc() {
    const int64_t wanted = int64_t{std::max(m_nMaxSize, 0)} + kShmBufferSlack;
    // Kept: does not go back to the pool, which is one buffer poorer.
    const std::unique_ptr<pbuf> buf(
        wanted > INT32_MAX
            ? nullptr
            : take_pbuf(utility::instance<client_bufpool>(), static_cast<int>(wanted)));
    if (buf == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "ivshm group idx:%d has no buffer for frames of %d bytes", m_nIdx,
                m_nMaxSize);
        return 0;
    }
    while (!m_bStop.load(std::memory_order_relaxed)) {
        unsigned long size = 0;
        if (receive(*this, buf->rawData(), static_cast<unsigned long>(wanted), size)) {
            serve(*this, buf->rawData(), size);
        }
    }
    return 0;
}
