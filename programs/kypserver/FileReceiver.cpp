#include "kypserver/FileReceiver.h"

#include <algorithm>
#include <cstring>

#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "kypserver/ServerLog.h"
#include "utils/comm.h"

namespace kypserver {

namespace {

KypFileAnswer make_answer(uint8_t type, uint32_t number, int status) {
    return {type, utils_htonl(number), utils_htonl(static_cast<uint32_t>(status))};
}

uint32_t make_session_number() {
    uint32_t number = 0;
    while (number == 0) number = utils_generateSSRC();
    return number;
}

// The beginning of `packet`, which is long enough, in host order.
KypFileInfoHead read_info(std::string const& packet) {
    KypFileInfoHead head;
    memcpy(&head, packet.data(), sizeof head);
    head.fileSize = utils_ntohl(head.fileSize);
    head.chunkSize = utils_ntohl(head.chunkSize);
    head.chunkNum = utils_ntohl(head.chunkNum);
    return head;
}

KypFileChunkHead read_chunk(std::string const& packet) {
    KypFileChunkHead head;
    memcpy(&head, packet.data(), sizeof head);
    head.seq = utils_ntohl(head.seq);
    head.ssrc = utils_ntohl(head.ssrc);
    return head;
}

uint32_t chunks_of(uint32_t size) {
    return size / kFileChunkSize + (size % kFileChunkSize == 0 ? 0 : 1);
}

// A sender may have chosen a name that would play with the terminal of whoever reads of it.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

}  // namespace

CFileReceiver::CFileReceiver(CSpool& spool, Limits const& limits)
    : m_spool(spool), m_limits(limits) {}

CFileReceiver::~CFileReceiver() {
    for (auto& entry : m_sessions) give_up(entry.second, "the server ends");
}

KypFileAnswer CFileReceiver::take(Link link, std::string const& peer, std::string const& packet,
                                  Clock::time_point now) {
    if (packet.empty()) return close(link);
    uint8_t const type = static_cast<uint8_t>(packet[0]) & kFileTypeMask;
    if (type == KYP_FILE_INFO) return open(link, peer, packet, now);
    if (type == KYP_FILE_CHUNK) return add(link, packet, now);
    return make_answer(type, 0, KYP_ERR_REQUEST_COMMAND);
}

void CFileReceiver::end(Link link) {
    auto const found = m_sessions.find(link);
    if (found == m_sessions.end()) return;
    give_up(found->second, "its connection has ended");
    m_sessions.erase(found);
}

void CFileReceiver::give_up_stalled(Clock::time_point now) {
    for (auto& entry : m_sessions) {
        Session& session = entry.second;
        if (session.file == nullptr || session.latest + m_limits.pause > now) continue;
        give_up(session, "its sender has paused too long");
        session.status = KYP_ERR_TRANSFER;
    }
}

CFileReceiver::Clock::time_point CFileReceiver::next_deadline() const {
    auto earliest = Clock::time_point::max();
    for (auto const& entry : m_sessions) {
        if (entry.second.file == nullptr) continue;
        earliest = std::min(earliest, entry.second.latest + m_limits.pause);
    }
    return earliest;
}

size_t CFileReceiver::transfers() const {
    return static_cast<size_t>(
        std::count_if(m_sessions.begin(), m_sessions.end(),
                      [](auto const& entry) { return entry.second.file != nullptr; }));
}

// ---- the info packet ---------------------------------------------------------------------------

KypFileAnswer CFileReceiver::open(Link link, std::string const& peer, std::string const& packet,
                                  Clock::time_point now) {
    Session& session = m_sessions[link];
    give_up(session, "its sender has begun another");
    session = Session{};
    session.number = make_session_number();
    session.peer = peer;
    session.latest = now;
    session.status = begin(session, packet);
    return make_answer(KYP_FILE_INFO, session.number, session.status);
}

int CFileReceiver::begin(Session& session, std::string const& packet) {
    if (packet.size() < sizeof(KypFileInfoHead)) {
        return fail(session, KYP_ERR_PACKET_TOO_SHORT, "its announcement is too short");
    }
    KypFileInfoHead const head = read_info(packet);
    if (packet.size() != sizeof head + head.nameLen + head.pathLen) {
        return fail(session, KYP_ERR_PACKET_LENGTH, "its name has another length than announced");
    }
    // The target path behind the name is not looked at: all files go to one place.
    std::string const given = packet.substr(sizeof head, head.nameLen);
    session.name = spool_name(given);
    if (session.name.empty()) {
        session.name = given;
        return fail(session, KYP_ERR_INPUT_PARAM, "this is no name for a file here");
    }
    if (head.chunkSize != kFileChunkSize || head.chunkNum != chunks_of(head.fileSize)) {
        return fail(session, KYP_ERR_INPUT_PARAM, "its chunks do not fit");
    }
    if (head.fileSize > m_limits.fileSize) {
        return fail(session, KYP_ERR_PACKET_TOO_LONG, "it is too large (--max-file-size)");
    }
    if (transfers() >= m_limits.transfers) {
        return fail(session, KYP_ERR_CLIENT_LIMIT,
                    "there are as many at a time as may be (--max-transfers)");
    }
    if (head.fileSize > m_spool.room()) {
        return fail(session, KYP_ERR_DISK_FULL, "the disk has no room for it");
    }
    session.size = head.fileSize;
    int const status = m_spool.begin(session.file);
    return status == KYP_OK ? KYP_OK : fail(session, status, "it cannot be made");
}

// ---- chunks ------------------------------------------------------------------------------------

KypFileAnswer CFileReceiver::add(Link link, std::string const& packet, Clock::time_point now) {
    if (packet.size() < sizeof(KypFileChunkHead)) {
        return make_answer(KYP_FILE_CHUNK, 0, KYP_ERR_PACKET_TOO_SHORT);
    }
    KypFileChunkHead const head = read_chunk(packet);
    auto const found = m_sessions.find(link);
    if (found == m_sessions.end() || found->second.number != head.ssrc) {
        return make_answer(KYP_FILE_CHUNK, head.seq, KYP_ERR_FILE_HANDLE);
    }
    Session& session = found->second;
    if (session.file == nullptr) return make_answer(KYP_FILE_CHUNK, head.seq, session.status);

    session.latest = now;
    int status = append(session, packet);
    bool const isLast = (head.type & kFileLastBit) != 0;
    if (status == KYP_OK && isLast) status = finish(session);
    if (status != KYP_OK || !isLast) return make_answer(KYP_FILE_CHUNK, head.seq, status);

    m_sessions.erase(found);
    return make_answer(KYP_FILE_CHUNK | kFileLastBit, head.seq, KYP_OK);
}

int CFileReceiver::append(Session& session, std::string const& packet) {
    KypFileChunkHead const head = read_chunk(packet);
    if (head.seq != session.nextChunk) {
        return fail(session, KYP_ERR_INPUT_PARAM, "a chunk is missing or comes again");
    }
    size_t const size = packet.size() - sizeof head;
    uint64_t const missing = session.size - session.received;
    if (size != std::min<uint64_t>(missing, kFileChunkSize) || size == 0) {
        return fail(session, KYP_ERR_PACKET_LENGTH, "a chunk has another length than announced");
    }
    ++session.nextChunk;
    session.received += size;
    int status = session.file->write(packet.data() + sizeof head, size);
    // Here and not when the file gets its name: the answer to a packet without any byte cannot tell
    // of a full disk.
    if (status == KYP_OK && session.received == session.size) status = session.file->sync();
    return status == KYP_OK ? KYP_OK : fail(session, status, "it cannot be written");
}

// ---- the end -----------------------------------------------------------------------------------

KypFileAnswer CFileReceiver::close(Link link) {
    auto const found = m_sessions.find(link);
    if (found == m_sessions.end()) return make_answer(KYP_FILE_CHUNK, 0, KYP_ERR_FILE_HANDLE);
    Session& session = found->second;
    int const status = session.file == nullptr ? session.status : finish(session);
    if (status != KYP_OK) return make_answer(KYP_FILE_CHUNK, 0, status);

    m_sessions.erase(found);
    return make_answer(KYP_FILE_CHUNK | kFileLastBit, 0, KYP_OK);
}

int CFileReceiver::finish(Session& session) {
    if (session.received != session.size) {
        return fail(session, KYP_ERR_PACKET_LENGTH, "it is shorter than announced");
    }
    // An empty file had no chunk behind which it was brought to the disk.
    int status = session.size == 0 ? session.file->sync() : KYP_OK;
    if (status == KYP_OK) status = session.file->publish(session.name);
    if (status != KYP_OK) return fail(session, status, "it cannot be kept");

    report("the file %s of %s has come, %llu bytes", printable(session.name).c_str(),
           session.peer.c_str(), static_cast<unsigned long long>(session.size));
    return KYP_OK;
}

int CFileReceiver::fail(Session& session, int status, char const* why) {
    report("the file %s of %s is refused: %s", printable(session.name).c_str(),
           session.peer.c_str(), why);
    session.file = nullptr;
    session.status = status;
    return status;
}

void CFileReceiver::give_up(Session& session, char const* why) {
    if (session.file == nullptr) return;
    session.file = nullptr;
    report("the file %s of %s is given up: %s", printable(session.name).c_str(),
           session.peer.c_str(), why);
}

}  // namespace kypserver
