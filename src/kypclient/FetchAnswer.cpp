#include "kypclient/FetchAnswer.h"

#include <chrono>
#include <cstdint>
#include <mutex>

#include "kypclient/KypPeerConn.h"
#include "kypcomm/KypStatus.h"
#include "utils/Log.h"

int fetch_answer(IKypPeerConnection& conn, unsigned short* port, char* buf, int len,
                 int timeoutMs) {
    if (conn.m_pLatestRequest == nullptr) {
        tlsErrno = KYP_ERR_NO_REQUEST;
        KYP_LOG(LOG_LEVEL_ERROR, "raw_recv m_pLatestRequest nullptr");
        return -1;
    }
    auto* const dest = reinterpret_cast<unsigned char*>(buf);
    const auto room = static_cast<unsigned int>(len > 0 ? len : 0);
    if (conn.m_pLatestResponse == nullptr) return conn.m_peerBuffer.read_buf(port, dest, room);

    {
        std::lock_guard<std::mutex> lock(conn.m_pLatestResponse->mutex);
        const auto deadline = std::chrono::steady_clock::now().time_since_epoch() +
                              std::chrono::milliseconds(timeoutMs);
        conn.m_pLatestRequest->capacity = room;
        conn.m_pLatestRequest->buffer = buf;
        conn.m_pLatestRequest->deadline =
            std::chrono::duration_cast<std::chrono::nanoseconds>(deadline).count();
    }
    const int result = conn.m_pLatestResponse->Wait();
    // Kept: also when the wait has failed; what an earlier fetch left of its answer is used up so.
    const int n = conn.m_peerBuffer.read_buf(port, dest, room);
    conn.m_pLatestRequest->copied = static_cast<uint32_t>(n);
    tlsErrno = result;
    conn.m_pLatestResponse->Release();
    conn.m_pLatestResponse = nullptr;
    return result == 0 ? n : -1;
}
