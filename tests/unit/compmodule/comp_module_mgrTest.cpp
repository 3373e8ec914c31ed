#include "compmodule/comp_module_mgr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "compmodule/business_data_layer.h"
#include "compmodule/comp_module.h"
#include "compmodule/net_channel.h"
#include "kypcore/IConnection.h"
#include "kypcore/router/RouteManage.h"
#include "support/ComponentFrames.h"
#include "support/Eventually.h"

namespace {

using libkyp::compmodule::CompModule;
using libkyp::compmodule::CompModuleMgr;

// Components whose end the server sees by the end of their channels.
class CompModuleMgrTest : public testing::Test {
protected:
    CompModule* make_connected(RawPeer& peer) {
        tagCmpDrvInfo info = {0, 0, "cmp"};
        auto* const module = new CompModule(&info, nullptr, nullptr);
        EXPECT_TRUE(module->netChannel->connect(0));
        EXPECT_TRUE(m_server.accept());
        peer = std::move(m_server.peer());
        return module;
    }

    FakeKypserver m_server;
    CompModuleMgr m_mgr;
};

TEST_F(CompModuleMgrTest, KnowsWhatWasAdded) {
    RawPeer peer;
    CompModule* const module = make_connected(peer);

    m_mgr.AddCmpServer(module);
    EXPECT_EQ(module, m_mgr.GetCmpServerFromHandler(module));
}

TEST_F(CompModuleMgrTest, AnUnknownAddressIsNoHandleAndIsNotFollowed) {
    EXPECT_EQ(nullptr, m_mgr.GetCmpServerFromHandler(nullptr));
    EXPECT_EQ(nullptr, m_mgr.GetCmpServerFromHandler(reinterpret_cast<void*>(0x1234)));
}

TEST_F(CompModuleMgrTest, NullIsNotAdded) {
    m_mgr.AddCmpServer(nullptr);

    EXPECT_TRUE(m_mgr.m_modules.empty());
}

TEST_F(CompModuleMgrTest, DeletingDestroysTheModuleAndForgetsIt) {
    RawPeer peer;
    CompModule* const module = make_connected(peer);
    m_mgr.AddCmpServer(module);

    m_mgr.DelCmpServer(module);
    EXPECT_TRUE(peer.expect_closed());
    EXPECT_EQ(nullptr, m_mgr.GetCmpServerFromHandler(module));
}

TEST_F(CompModuleMgrTest, DeletingLeavesTheOthersAlone) {
    RawPeer peer;
    RawPeer otherPeer;
    CompModule* const module = make_connected(peer);
    CompModule* const other = make_connected(otherPeer);
    m_mgr.AddCmpServer(module);
    m_mgr.AddCmpServer(other);

    m_mgr.DelCmpServer(module);
    EXPECT_EQ(other, m_mgr.GetCmpServerFromHandler(other));
    EXPECT_TRUE(other->netChannel->isconnected());
}

TEST_F(CompModuleMgrTest, DeletingAModuleThatWasNotAddedLeavesItAlone) {
    RawPeer peer;
    CompModule* const module = make_connected(peer);

    m_mgr.DelCmpServer(module);
    m_mgr.DelCmpServer(nullptr);
    EXPECT_TRUE(module->netChannel->isconnected());
    delete module;
}

TEST_F(CompModuleMgrTest, ClearingDestroysThemAll) {
    RawPeer peer;
    RawPeer otherPeer;
    m_mgr.AddCmpServer(make_connected(peer));
    m_mgr.AddCmpServer(make_connected(otherPeer));

    m_mgr.ClearCmpServer();
    EXPECT_TRUE(peer.expect_closed());
    EXPECT_TRUE(otherPeer.expect_closed());
    EXPECT_TRUE(m_mgr.m_modules.empty());
}

TEST_F(CompModuleMgrTest, ClearingAnEmptySetDoesNothing) {
    m_mgr.ClearCmpServer();
    EXPECT_TRUE(m_mgr.m_modules.empty());
}

TEST_F(CompModuleMgrTest, TheProcessHasOne) {
    EXPECT_EQ(&utility::instance<CompModuleMgr>(), &utility::instance<CompModuleMgr>());
}

void answer_with_the_request(unsigned short port, char const* data, unsigned int size,
                             _msg_request request, void*) {
    _AoEHeader const aoe = {0, utils_htonl(request.invokeId), utils_htons(request.cmd), 0, 1};
    request.conn->send_message(aoe, port, data, static_cast<int>(size), 1000);
}

TEST_F(CompModuleMgrTest, KeepsTheManagerLockedWhileAStartedModuleIsDeleted) {
    // The process's own, for neither module nor manager comes back from this.
    static auto& s_mgr = utility::instance<CompModuleMgr>();
    static std::atomic<bool> s_isDeleted{false};
    RawPeer peer;
    CompModule* const module = make_connected(peer);
    utility::instance<RouteManage>().addSvrPortRoute(600, answer_with_the_request, nullptr);
    module->dataLayer->register_message_callback(libkyp::compmodule::CompMessageCallback, module);
    module->dataLayer->register_connect_callback(libkyp::compmodule::CompConnectCallback, module);
    module->start();
    s_mgr.AddCmpServer(module);
    std::thread([module] {
        s_mgr.DelCmpServer(module);
        s_isDeleted = true;
    }).detach();

    EXPECT_TRUE(eventually([&] {
        if (!s_mgr.m_mutex.try_lock()) return true;
        s_mgr.m_mutex.unlock();
        return false;
    }));
    // The thread that is waited for goes on serving.
    EXPECT_TRUE(peer.send(forward_frame(600, 9, 1, 5, text("AB"))));
    EXPECT_EQ(answer_frame(600, 9, 1, 5, text("AB")), peer.receive_frame());
    EXPECT_FALSE(s_isDeleted);
    EXPECT_FALSE(s_mgr.m_mutex.try_lock());
}

}  // namespace
