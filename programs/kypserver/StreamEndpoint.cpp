#include "kypserver/StreamEndpoint.h"

#include <sys/socket.h>
#include <unistd.h>

#include "kypserver/ServerLog.h"

namespace kypserver {

void turn_away(int listenSock) {
    int const fd = accept4(listenSock, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd == -1) return;

    close(fd);
    report("a client is turned away: there are as many as may be (--max-clients)");
}

}  // namespace kypserver
