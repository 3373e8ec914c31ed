#include "kypcomm/KeepAlive.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "utils/Log.h"

namespace {

struct Option {
    int level;
    int option;
    int value;
    char const* name;
};

constexpr Option kOptions[] = {
    {SOL_SOCKET, SO_KEEPALIVE, 1, "keep alive"},
    {IPPROTO_TCP, TCP_KEEPIDLE, 120, "TCP_KEEPIDLE"},   // seconds of silence before the first probe
    {IPPROTO_TCP, TCP_KEEPINTVL, 15, "TCP_KEEPINTVL"},  // seconds between probes
    {IPPROTO_TCP, TCP_KEEPCNT, 3, "TCP_KEEPCNT"},       // probes without an answer
};

}  // namespace

bool set_keep_alive(int fd) {
    for (Option const& row : kOptions) {
        if (setsockopt(fd, row.level, row.option, &row.value, sizeof row.value) == 0) continue;
        int const error = errno;
        KYP_LOG(LOG_LEVEL_ERROR, "socket set sock %s error: errno=%d errstr=%s", row.name, error,
                strerror(error));
        return false;
    }
    return true;
}
