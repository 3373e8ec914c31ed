#include "kypserver/Connections.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "FakeConn.h"
#include "FakeSocketConn.h"
#include "kypcore/ISocketServer.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/TcpDomainServer.h"

namespace kypserver {
namespace {

TEST(ConnectionsTest, KnowsWhatIsOpen) {
    CConnections connections(10);
    FakeConn conn;
    EXPECT_FALSE(connections.is_open(&conn));

    connections.begin(&conn);
    EXPECT_TRUE(connections.is_open(&conn));
    EXPECT_EQ(1U, connections.count());

    connections.end(&conn);
    EXPECT_FALSE(connections.is_open(&conn));
    EXPECT_EQ(0U, connections.count());
}

TEST(ConnectionsTest, HasRoomUpToItsLimit) {
    CConnections connections(2);
    FakeConn first;
    FakeConn second;
    connections.begin(&first);
    EXPECT_TRUE(connections.has_room());
    connections.begin(&second);

    EXPECT_FALSE(connections.has_room());
    connections.end(&first);
    EXPECT_TRUE(connections.has_room());
}

TEST(ConnectionsTest, TellsTheListenersOfAnEndBehindIt) {
    CConnections connections(10);
    FakeConn conn;
    std::vector<bool> openThen;
    connections.on_end([&](IConnection* ended) { openThen.push_back(connections.is_open(ended)); });
    connections.on_end([&](IConnection* ended) { openThen.push_back(connections.is_open(ended)); });
    connections.begin(&conn);

    connections.end(&conn);

    EXPECT_EQ((std::vector<bool>{false, false}), openThen);
}

TEST(ConnectionsTest, ListensToTheLibrarysHooks) {
    CSocketConnection conn;
    {
        CConnections connections(10);
        ISocketServer::m_pfnConnStart(&conn, ISocketServer::m_lpConnStartCtx);
        EXPECT_TRUE(connections.is_open(&conn));
        ISocketServer::m_pfnConnClose(&conn, ISocketServer::m_lpConnCloseCtx);
        EXPECT_FALSE(connections.is_open(&conn));
    }
    EXPECT_EQ(nullptr, ISocketServer::m_pfnConnStart);
    EXPECT_EQ(nullptr, ISocketServer::m_pfnConnClose);
}

TEST(ConnectionsTest, NamesAPeerInPrintableLetters) {
    CConnections connections(10);
    CSocketConnection conn;
    FakeConn nameless(11);
    strcpy(conn.m_szPeerName, "a\x1b[31m\nb");
    connections.begin(&conn);
    connections.begin(&nameless);

    EXPECT_EQ("a?[31m?b", connections.name(&conn));
    EXPECT_EQ("local client 11", connections.name(&nameless));
    connections.end(&conn);
    EXPECT_EQ("a datagram", connections.name(&conn));
}

TEST(ConnectionsTest, TellsWhoCameOverTheUnixDomainSocket) {
    CConnections connections(10);
    TcpDomainserver server("/tmp/server");
    FakeSocketConn local;
    FakeSocketConn remote;
    local.SetSockServer(&server);
    connections.begin(&local);
    connections.begin(&remote);

    EXPECT_TRUE(connections.is_local(&local));
    EXPECT_FALSE(connections.is_local(&remote));
    connections.end(&local);
    EXPECT_FALSE(connections.is_local(&local));
}

TEST(ConnectionsTest, HangsUpOnOpenConnectionsOnly) {
    CConnections connections(10);
    FakeSocketConn open;
    FakeSocketConn closed;
    connections.begin(&open);

    connections.hang_up(&open);
    connections.hang_up(&closed);

    EXPECT_TRUE(open.m_far.expect_closed());
    EXPECT_FALSE(closed.m_far.expect_closed(std::chrono::milliseconds(0)));
}

TEST(ConnectionsTest, SeesThatAPeerHasHungUp) {
    CConnections connections(10);
    FakeSocketConn conn;
    EXPECT_TRUE(connections.has_hung_up(&conn));
    connections.begin(&conn);
    EXPECT_FALSE(connections.has_hung_up(&conn));
    conn.m_far.send(text("last words"));
    EXPECT_FALSE(connections.has_hung_up(&conn));

    conn.m_far.close();

    EXPECT_TRUE(connections.has_hung_up(&conn));
}

}  // namespace
}  // namespace kypserver
