#include "common/KypServer.h"

#include <unistd.h>

#include "common/Sockets.h"
#include "libkyp/libkyp.h"

KypServer::KypServer(std::string const& program) : m_pid(spawn({program})) {
    libkyp_init();
    close(connect_plain(Transport::Tcp, {9999, ""}));
}

KypServer::~KypServer() {
    libkyp_destory();
    end(m_pid);
}
