// A listening server whose handlers the test calls itself, on the process-wide manager with three
// loops that have no threads: what the server does is seen step by step.
#ifndef KYP_TESTS_UNIT_KYPCORE_SERVERFIXTURE_H
#define KYP_TESTS_UNIT_KYPCORE_SERVERFIXTURE_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "KernelCalls.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/EventLoop.h"
#include "kypcore/ISocketServer.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/ThreadPool.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

class ServerFixture : public testing::Test {
protected:
    ServerFixture() {
        m_steps.clear();
        m_newest = nullptr;
        auto& manage = utility::instance<CEventManage>();
        manage.m_nLoopCount = 3;
        manage.m_nNextLoop = 0;
        for (int i = 0; i < 3; ++i) manage.m_vecLoops.push_back(new CEventLoop());
        ISocketServer::set_conn_start(
            [](IConnection* conn, void*) {
                m_newest = static_cast<CSocketConnection*>(conn);
                m_maskAtStart = m_newest->m_events;
                m_nameAtStart = m_newest->m_szPeerName;
                m_steps.push_back("start");
            },
            nullptr);
        ISocketServer::set_conn_close([](IConnection*, void*) { m_steps.push_back("close"); },
                                      nullptr);
    }

    ~ServerFixture() override {
        ISocketServer::set_conn_start(nullptr, nullptr);
        ISocketServer::set_conn_close(nullptr, nullptr);
        utility::instance<CEventManage>().uninit_event_loop();
    }

    // The record that add_listen_event would make for the server's socket.
    CSocketConnection* listen_record(ISocketServer& server) {
        EXPECT_EQ(0, utility::instance<CEventManage>().add_listen_event(
                         &server, &ISocketServer::sock_event_accept));
        return utility::instance<CSockConnPool>().m_listAll.back();
    }

    static uint16_t port_of(int fd) {
        sockaddr_in addr{};
        socklen_t size = sizeof addr;
        EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size));
        return ntohs(addr.sin_port);
    }

    static bool is_nonblocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

    static int option_of(int fd, int level, int name) {
        int value = -1;
        socklen_t size = sizeof value;
        EXPECT_EQ(0, getsockopt(fd, level, name, &value, &size));
        return value;
    }

    using Names = std::vector<std::string>;

    static inline Names m_steps;                          // hooks that ran
    static inline CSocketConnection* m_newest = nullptr;  // of the start hook
    static inline unsigned int m_maskAtStart = 0;
    static inline std::string m_nameAtStart;

    LogCapture m_log;
};

#endif
