// One connection record of the process-wide pool on one end of a socket pair, with the test as the
// peer on the other end and no thread but the test's: the test itself turns the loop.
#ifndef KYP_TESTS_UNIT_KYPCORE_COREFIXTURE_H
#define KYP_TESTS_UNIT_KYPCORE_COREFIXTURE_H

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/EventLoop.h"
#include "kypcore/ISocketServer.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/ThreadPool.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"

inline Bytes bytes_of(CMsgHeader& msg) {
    return Bytes(msg.GetVaildData(), msg.GetVaildData() + msg.GetVaildSize());
}

// The messages that wait for a worker, oldest first; no worker runs in these tests.
inline std::vector<std::unique_ptr<CMsgHeader>> take_queued_messages() {
    std::vector<std::unique_ptr<CMsgHeader>> result;
    auto& pool = utility::instance<CThreadPool>();
    for (CMsgHeader* msg : pool.m_msgRecvQueue) result.emplace_back(msg);
    pool.m_msgRecvQueue.clear();
    pool.m_nQueueCount = 0;
    return result;
}

class CoreFixture : public testing::Test {
protected:
    CoreFixture() {
        int pair[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair));
        m_near = pair[0];
        m_peer = RawPeer(pair[1]);
        m_conn = utility::instance<CSockConnPool>().get_connection(m_near);
        m_conn->m_readHandler = &ISocketServer::sock_read_request_handler;
        m_conn->m_writeHandler = &ISocketServer::sock_write_request_handler;
        m_conn->SetSockServer(&m_server);
        m_conn->SetEventLoop(&m_loop);
        strcpy(m_conn->m_szPeerName, "peer");
        EXPECT_EQ(0,
                  m_loop.epoll_oper_event(m_near, EPOLL_CTL_ADD, EPOLLIN | EPOLLRDHUP, 0, m_conn));
    }

    ~CoreFixture() override {
        ISocketServer::set_conn_start(nullptr, nullptr);
        ISocketServer::set_conn_close(nullptr, nullptr);
        if (m_conn->m_fd != -1) utility::instance<CSockConnPool>().close_connections(m_conn);
        m_conn->PutOneToFree();
        take_queued_messages();
    }

    void close_record() { utility::instance<CSockConnPool>().close_connections(m_conn); }

    // Serves what is ready now.
    void turn(int rounds = 1) {
        for (int i = 0; i < rounds; ++i) EXPECT_EQ(0, m_loop.epoll_process_event(0));
    }

    LogCapture m_log;
    CEventLoop m_loop;
    ISocketServer m_server;
    int m_near = -1;
    RawPeer m_peer;
    CSocketConnection* m_conn = nullptr;
};

#endif
