#include "kypclient/CFileTransfer.h"

#include <cstring>
#include <sstream>

#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/filesys/CFile.h"
#include "kypcomm/protocol/FilePacket.h"
#include "libkyp/libkyp.h"
#include "utils/Log.h"

namespace {

constexpr int kPacketSize = 10240;
constexpr int kAnswerSize = 1024;
constexpr int kExchangeTimeoutMs = 1000;
constexpr int kInfoHeadSize = sizeof(KypFileInfoHead);
constexpr int kChunkHeadSize = sizeof(KypFileChunkHead);

// Chunks of `size` bytes; an arithmetic shift, so that an empty file has none.
uint32_t chunks_of(uint32_t size) {
    return static_cast<uint32_t>(((static_cast<int64_t>(size) - 1) >> 13) + 1);
}
static_assert(kFileChunkSize == 1U << 13, "the shift above");

// Copies `path` to the zeroed `room`, of which the last byte stays zero. False when it was cut.
template <size_t kRoom>
bool copy_path(char (&room)[kRoom], char const* path) {
    if (path == nullptr) return true;
    size_t const length = std::strlen(path);
    std::memcpy(room, path, length < kRoom ? length : kRoom - 1);
    if (length < kRoom) return true;

    KYP_LOG(LOG_LEVEL_ERROR, "remote path length:%d too long,cut to:%s", static_cast<int>(length),
            room);
    return false;
}

// True when CFile has cut it too.
bool is_cut_local_path(char const* path) {
    return path != nullptr && std::strlen(path) >= sizeof(CFile::m_fullPath);
}

// Sends `len` bytes to `port` and takes the answer; what a short one lacks is zero.
bool exchange(void* handler, uint16_t port, char* data, int len, KypFileAnswer* answer) {
    if (libkyp_sync_send(handler, port, kFileGroup, kFileOffset, data,
                         static_cast<unsigned int>(len), kExchangeTimeoutMs) <= 0) {
        return false;
    }
    char received[kAnswerSize] = {};
    if (libkyp_sync_recv(handler, nullptr, received, kAnswerSize, kExchangeTimeoutMs) <= 0) {
        return false;
    }
    std::memcpy(answer, received, sizeof(*answer));
    return true;
}

void take_answer(CFileTransfer* transfer, KypFileAnswer const& answer, int sent) {
    uint8_t const type = answer.type & kFileTypeMask;
    bool const isKnown = type == KYP_FILE_INFO || type == KYP_FILE_CHUNK;
    // Kept: the length of what was sent decides what is read of the answer, so the one that ends a
    // file of whole chunks, to a packet without any byte, cannot refuse it.
    if (type == KYP_FILE_INFO && sent > 1) transfer->SetSSRC(utils_ntohl(answer.number));
    if (isKnown && sent > 5) transfer->m_error = utils_ntohl(answer.status);

    // Kept: a refusal fails the state and not the transfer, whose next chunk follows.
    if (transfer->m_error != KYP_OK) {
        transfer->m_state = KYP_FILE_FAILED;
        return;
    }
    // Kept: the answer alone decides. A last chunk that was not confirmed as such leaves the
    // transfer running when it ends, and one confirmed too early calls it finished and goes on.
    bool const isWhole = (answer.type & kFileLastBit) != 0;
    transfer->m_state = isWhole ? KYP_FILE_FINISHED : KYP_FILE_RUNNING;
}

void fail(CFileTransfer* transfer, uint32_t status) {
    transfer->m_error = status;
    transfer->m_abort = true;
    transfer->m_state = KYP_FILE_FAILED;
}

}  // namespace

CFileTransfer::CFileTransfer(_KypDeviceAddr addr, const char* localPath, const char* remotePath,
                             unsigned int indexGroup, unsigned int indexOffset,
                             unsigned int transferId)
    : m_sendInfo(true),
      m_abort(false),
      m_state(KYP_FILE_WAITING),
      m_transferId(transferId),
      m_chunkSeq(0),
      m_chunkNum(0),
      m_ssrc(0),
      m_error(KYP_OK),
      m_userData(nullptr),
      m_deviceAddr(addr),
      m_handler(nullptr),
      m_callback(nullptr),
      m_remotePath{} {
    // Kept: every exchange goes to the one address of the file service.
    (void)indexGroup;
    (void)indexOffset;
    bool const isWhole = copy_path(m_remotePath, remotePath) && !is_cut_local_path(localPath);
    m_file = std::make_shared<CFile>(localPath);
    if (m_file->OpenFile() == KYP_OK) {
        (void)CalcChunkNum();
    } else {
        m_error = KYP_ERR_OPEN_FILE;
    }
    // Says more than that a file of the shorter name is not there, and matters also when it is.
    if (!isWhole) m_error = KYP_ERR_INPUT_PARAM;
}

CFileTransfer::~CFileTransfer() = default;

int CFileTransfer::CalcChunkNum() {
    if (m_file == nullptr || !m_file->IsOpen()) return 0;
    uint32_t const size = m_file->GetFileSizeByte();
    m_chunkNum = chunks_of(size);
    KYP_LOG(LOG_LEVEL_TRACE, "file Size:%ld,chunk num:%d", static_cast<long>(size),
            static_cast<int>(m_chunkNum));
    return 0;
}

void CFileTransfer::SetSSRC(unsigned int ssrc) {
    m_ssrc = ssrc;
}

unsigned int CFileTransfer::GetSSRC() {
    return m_ssrc;
}

void CFileTransfer::SetTransferHandler(void* handler) {
    m_handler = handler;
}

int CFileTransfer::SetNotifyCallback(KypFileCallback callback, void* user) {
    m_callback = callback;
    m_userData = user;
    NotifyProgress();
    return 0;
}

std::string CFileTransfer::GetRemoteDeviceId() {
    std::ostringstream text;
    text << m_deviceAddr.deviceId;
    return text.str();
}

bool CFileTransfer::IsTransferEnd() {
    return m_file == nullptr || m_abort || m_file->IsEof();
}

int CFileTransfer::SendFile() {
    if (m_file == nullptr || !m_file->IsOpen()) return -1;

    char packet[kPacketSize] = {};
    int length = 0;
    if (m_sendInfo) {
        m_state = KYP_FILE_RUNNING;
        int const head = MakeFileInfoHeader(packet);
        int const body = MakeFileInfoPacket(packet + head, kPacketSize - head);
        m_sendInfo = false;
        if (body < 0) {
            fail(this, KYP_ERR_INPUT_PARAM);
            NotifyProgress();
            return -1;
        }
        length = head + body;
    } else {
        length = MakeFileChunkPacket(packet, kPacketSize);
    }
    return ReadWriteReq(m_handler, packet, length);
}

int CFileTransfer::MakeFileInfoHeader(char* buf) {
    KypFileInfoHead head{};
    head.type = KYP_FILE_INFO;
    head.chunkSize = utils_htonl(kFileChunkSize);
    head.chunkNum = utils_htonl(m_chunkNum);
    // Kept: of a longer name the low eight bits of its length, while the name is sent whole.
    head.pathLen = static_cast<uint8_t>(strnlen(m_remotePath, sizeof(m_remotePath)));
    if (m_file != nullptr) {
        head.nameLen = static_cast<uint8_t>(m_file->GetFileName().size());
        head.fileSize = utils_htonl(m_file->GetFileSizeByte());
    }
    std::memcpy(buf, &head, sizeof(head));
    return kInfoHeadSize;
}

int CFileTransfer::MakeFileInfoPacket(char* buf, int size) {
    std::string text = m_file == nullptr ? std::string() : m_file->GetFileName();
    text.append(m_remotePath, strnlen(m_remotePath, sizeof(m_remotePath)));
    if (size < 0 || text.size() > static_cast<size_t>(size)) {
        KYP_LOG(LOG_LEVEL_ERROR, "file name and remote path of %zu byte exceed the packet's %d",
                text.size(), size);
        tlsErrno = KYP_ERR_INPUT_PARAM;
        return -1;
    }
    std::memcpy(buf, text.data(), text.size());
    return static_cast<int>(text.size());
}

int CFileTransfer::MakeFileChunkHeader(char* buf, int last) {
    KypFileChunkHead head{};
    head.type = static_cast<uint8_t>(last != 0 ? KYP_FILE_CHUNK | kFileLastBit : KYP_FILE_CHUNK);
    head.seq = utils_htonl(++m_chunkSeq);
    head.ssrc = utils_htonl(m_ssrc);
    std::memcpy(buf, &head, sizeof(head));
    return kChunkHeadSize;
}

int CFileTransfer::MakeFileChunkPacket(char* buf, int size) {
    int const room = size - kChunkHeadSize;
    if (m_file == nullptr || room <= 0) {
        m_error = KYP_ERR_INPUT_PARAM;
        return 0;
    }
    int const wanted = room < static_cast<int>(kFileChunkSize) ? room : kFileChunkSize;
    int const count = m_file->ReadFileToBuffer(buf + kChunkHeadSize, wanted);
    if (count == 0) {
        // Kept: the exchange that follows clears it, so a failed read looks like the file's end.
        m_error = static_cast<uint32_t>(libkyp_get_errno());
        return 0;
    }
    // Kept: only a short read shows the end, so of a file of whole chunks none is marked as the
    // last, and a packet without any byte follows them.
    bool const isLast = m_file->IsEof();
    if (isLast) m_state = KYP_FILE_FINISHED;
    return MakeFileChunkHeader(buf, isLast ? 1 : 0) + count;
}

int CFileTransfer::ReadWriteReq(void* handler, char* buf, int len) {
    m_error = KYP_OK;
    KypFileAnswer answer{};
    if (exchange(handler, m_deviceAddr.port, buf, len, &answer)) {
        take_answer(this, answer, len);
    } else {
        fail(this, KYP_ERR_TRANSFER);
    }
    NotifyProgress();
    return 0;
}

void CFileTransfer::NotifyProgress() {
    if (m_callback == nullptr) return;
    double const part =
        m_chunkNum == 0 ? 0.0 : static_cast<double>(m_chunkSeq) / static_cast<double>(m_chunkNum);
    int const verdict =
        m_callback(m_deviceAddr.deviceId, static_cast<int>(m_transferId), static_cast<float>(part),
                   static_cast<int>(m_error), m_state, m_userData);
    if (verdict == -1) m_abort = true;
}
