#include "kypcomm/StreamLink.h"

#include <sys/socket.h>

#include "kypcomm/KypStatus.h"
#include "kypcomm/Socket.h"
#include "utils/Log.h"

bool is_header_valid(_KypHeader const& header) {
    if (header.port < kLowestPort || header.port > kHighestPort) {
        // Kept: the code says "1~500 system reserved" about ports outside 1 to 4096.
        KYP_LOG(LOG_LEVEL_ERROR, "recv port:%d invaild,msgLen:%d", header.port,
                static_cast<int>(header.nMsgLen));
        tlsErrno = KYP_ERR_PORT_RESERVED;
        return false;
    }
    if (header.nMsgLen > kMaxMsgLen) {
        KYP_LOG(LOG_LEVEL_ERROR, "kypheader msglen:%d too long", static_cast<int>(header.nMsgLen));
        tlsErrno = KYP_ERR_PACKET_TOO_LONG;
        return false;
    }
    return true;
}

void close_link(Socket& socket, std::mutex& writers) {
    std::unique_lock<std::mutex> lock(writers, std::try_to_lock);
    if (!lock.owns_lock()) {
        ::shutdown(socket.m_fd, SHUT_RDWR);
        lock.lock();
    }
    socket.Shutdown();
}
