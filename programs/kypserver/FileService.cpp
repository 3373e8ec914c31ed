#include "kypserver/FileService.h"

#include <pthread.h>

#include <algorithm>

#include "kypcomm/KypStatus.h"
#include "kypserver/Connections.h"

namespace kypserver {

namespace {

constexpr size_t kLargestPacket = sizeof(KypFileChunkHead) + kFileChunkSize;

// What is wrong with a request, KYP_OK if it may carry a packet of a file.
unsigned int request_fault(Request const& request) {
    if (request.head.cmd != KYP_CMD_READ_WRITE) return KYP_ERR_COMMAND;
    if (request.size > kLargestPacket) return KYP_ERR_PACKET_TOO_LONG;
    return address_fault(request, kFileGroup, kFileOffset, request.size);
}

}  // namespace

CFileService::CFileService(FileOptions const& options, CConnections const& connections)
    : m_options(options), m_connections(connections), m_bStop(true), m_nextLink(1) {}

CFileService::~CFileService() {
    stop();
}

std::string CFileService::open() {
    if (!m_options.receive) return "";
    std::string problem = m_spool.open(m_options.spoolDir);
    if (!problem.empty()) return problem;

    m_bStop = false;
    m_thread = std::thread(&CFileService::run, this);
    pthread_setname_np(m_thread.native_handle(), "kypfiles");
    return "";
}

void CFileService::stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bStop = true;
        m_waiting.clear();
    }
    m_changed.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

std::string CFileService::describe() const {
    if (!m_options.receive) return "";
    return ", files on port " + std::to_string(m_options.port) + " into " + m_options.spoolDir;
}

unsigned short CFileService::port() const {
    return m_options.port;
}

bool CFileService::in_order() const {
    return true;
}

void CFileService::serve(Request const& request) {
    if (is_one_way(request.head.cmd)) return;
    unsigned int fault = request_fault(request);
    if (fault == KYP_OK) fault = static_cast<unsigned int>(enqueue(request));
    if (fault != KYP_OK) answer(request, fault);
}

// Returns KYP_OK when the thread is going to answer.
int CFileService::enqueue(Request const& request) {
    IConnection* const conn = request.head.conn;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_bStop) return KYP_ERR_SERVER_OFFLINE;
    // A file needs a connection, whose end is the end of what was left half received. One that is
    // open now is known to end() later.
    if (!m_connections.is_open(conn)) return KYP_ERR_PROTOCOL;

    auto const added = m_senders.emplace(conn, Sender{m_nextLink, 0});
    if (added.second) ++m_nextLink;
    Sender& sender = added.first->second;
    if (sender.waiting >= kMaxWaitingOfOne || m_waiting.size() >= kMaxWaiting) {
        return KYP_ERR_NO_MEMORY;
    }
    ++sender.waiting;
    m_waiting.push_back(
        {sender.link, m_connections.name(conn), request, std::string(request.data, request.size)});
    m_waiting.back().request.data = nullptr;
    m_changed.notify_one();
    return KYP_OK;
}

void CFileService::end(IConnection* conn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_senders.find(conn);
    if (found == m_senders.end()) return;
    CFileReceiver::Link const link = found->second.link;
    m_senders.erase(found);
    m_waiting.erase(std::remove_if(m_waiting.begin(), m_waiting.end(),
                                   [link](Packet const& packet) { return packet.link == link; }),
                    m_waiting.end());
    m_ended.push_back(link);
    m_changed.notify_one();
}

void CFileService::run() {
    CFileReceiver receiver(m_spool,
                           {m_options.maxFileSize, m_options.maxTransfers, m_options.longestPause});
    std::unique_lock<std::mutex> lock(m_mutex);
    while (wait(receiver, lock)) {
        std::vector<CFileReceiver::Link> ended;
        ended.swap(m_ended);
        lock.unlock();
        for (CFileReceiver::Link const link : ended) receiver.end(link);
        receiver.give_up_stalled(CFileReceiver::Clock::now());
        lock.lock();
        if (!m_waiting.empty()) take_next(receiver, lock);
    }
    lock.unlock();  // what the receiver gives up now takes its time, too
}

// Waits for something to do. Returns false at the end.
bool CFileService::wait(CFileReceiver& receiver, std::unique_lock<std::mutex>& lock) {
    auto const ready = [this] { return m_bStop || !m_waiting.empty() || !m_ended.empty(); };
    auto const deadline = receiver.next_deadline();
    if (deadline == CFileReceiver::Clock::time_point::max()) {
        m_changed.wait(lock, ready);
    } else {
        m_changed.wait_until(lock, deadline, ready);
    }
    return !m_bStop;
}

void CFileService::take_next(CFileReceiver& receiver, std::unique_lock<std::mutex>& lock) {
    Packet const packet = std::move(m_waiting.front());
    m_waiting.pop_front();
    lock.unlock();
    KypFileAnswer const result =
        receiver.take(packet.link, packet.peer, packet.data, CFileReceiver::Clock::now());
    lock.lock();

    // The record may be another client's by now.
    auto const found = m_senders.find(packet.request.head.conn);
    if (found == m_senders.end() || found->second.link != packet.link) return;
    --found->second.waiting;
    answer(packet.request, KYP_OK, &result, sizeof result);
}

}  // namespace kypserver
