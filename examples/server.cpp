// A server of one's own on the server core: port 600 answers with the request in capitals.
// Run: example_server, and stop it with Ctrl-C. It serves TCP 9999 on this host, so kypserver must
// not run beside it.
// Behind the library's log lines appears: example_server ready: port 600
#include <arpa/inet.h>
#include <signal.h>

#include <cctype>
#include <cstdio>
#include <string>

#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/EventLoop.h"
#include "kypcore/IConnection.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/TcpServer.h"
#include "kypcore/ThreadPool.h"
#include "kypcore/router/RouteManage.h"

namespace {

// Runs on a worker; `data` is valid during the call only.
void in_capitals(unsigned short port, char const* data, unsigned int size, _msg_request request,
                 void*) {
    std::string text(data, size);
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    _AoEHeader answer{};
    answer.invokeId = htonl(request.invokeId);
    answer.cmd = htons(request.cmd);
    answer.state = KYP_STATE_RESPONSE;
    request.conn->send_message(answer, port, text.data(), static_cast<int>(text.size()), 1000);
}

}  // namespace

int main() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    utility::instance<server_bufpool>().init_bufpool();
    utility::instance<CSockConnPool>().init_connections(64);
    utility::instance<CEventManage>().init_event_loop(3, 0);
    utility::instance<RouteManage>().addSvrPortRoute(600, in_capitals, nullptr);
    utility::instance<CThreadPool>().start(4);
    TcpServer server("127.0.0.1", kTcpPort);
    utility::instance<CEventManage>().add_listen_event(&server, &ISocketServer::sock_event_accept);
    puts("example_server ready: port 600");
    fflush(stdout);

    int signal = 0;
    sigwait(&stop, &signal);
    utility::instance<CEventManage>().uninit_event_loop();
    utility::instance<CThreadPool>().stop();
    return 0;
}
