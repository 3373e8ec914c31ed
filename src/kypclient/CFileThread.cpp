#include "kypclient/CFileThread.h"

#include <algorithm>
#include <sstream>

#include "kypclient/CFileTransfer.h"
#include "kypcomm/KypDeviceId.h"
#include "libkyp/libkyp.h"
#include "utils/Log.h"
#include "utils/comm.h"

namespace {

constexpr int kIdleMs = 30;

std::string id_text(_KypDeviceId const& id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

}  // namespace

template class utility::Singleton<CFileThread>;

CFileThread::CFileThread() : m_stop(false) {}

CFileThread::~CFileThread() {
    (void)stop();
}

int CFileThread::start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Kept: a worker that was stopped is not started again: the flag stays, so a new thread ends at
    // once.
    if (!m_thread.joinable()) m_thread = std::thread(&CFileThread::svc, this);
    return 0;
}

int CFileThread::stop() {
    m_stop.store(true, std::memory_order_relaxed);
    std::thread worker;
    {
        // The worker takes the lock too, so it is not held while waiting for its end.
        std::lock_guard<std::mutex> lock(m_mutex);
        worker.swap(m_thread);
    }
    if (worker.joinable()) worker.join();
    return 0;
}

int CFileThread::AddTransferList(CFileTransfer* transfer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_transfers.push_back(transfer);
    return 0;
}

CFileTransfer* CFileThread::GetFileTransferObject() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_transfers.empty() ? nullptr : m_transfers.front();
}

void CFileThread::EraseFileTransferObject(CFileTransfer* transfer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const entry = std::find(m_transfers.begin(), m_transfers.end(), transfer);
    if (entry != m_transfers.end()) m_transfers.erase(entry);
}

void* CFileThread::GetHandlerFromDeviceId(const std::string& deviceId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const entry = m_handlers.find(deviceId);
    return entry == m_handlers.end() ? nullptr : entry->second;
}

void* CFileThread::GetHandlerFromDeviceid(_KypDeviceId id) {
    std::string const text = id_text(id);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto const entry = m_handlers.find(text);
        // Kept: a null handle was stored too, and no further connection is tried for it; one that
        // was released elsewhere is given out as well, and its transfers fail.
        if (entry != m_handlers.end()) return entry->second;
    }
    // Connecting takes its time, so the lock is not held. Two threads that miss together make two
    // connections, and the later one serves from here on.
    void* const handler = libkyp_createInstance(&id, KYP_CONN_TCP);

    std::lock_guard<std::mutex> lock(m_mutex);
    m_handlers[text] = handler;
    return handler;
}

int CFileThread::svc() {
    while (!m_stop.load(std::memory_order_relaxed)) {
        CFileTransfer* const transfer = GetFileTransferObject();
        if (transfer == nullptr) {
            CComm::Sleep(kIdleMs);
            continue;
        }
        // Kept: sends before it asks, so the device gets the first packet also of a transfer whose
        // first report was answered with -1.
        (void)transfer->SendFile();
        // Kept: a transfer without an open file never ends by itself. It keeps its place, the loop
        // turns without a pause, and all others wait behind it, unless its first report was
        // answered with -1.
        if (!transfer->IsTransferEnd()) continue;

        KYP_LOG(LOG_LEVEL_INFO, "transfer over");
        // Kept: the object lives on, with its file.
        EraseFileTransferObject(transfer);
    }
    return 0;
}
