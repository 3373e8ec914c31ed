// What the tests of the component interface share: the server's end of the channel, played with
// plain bytes, and components that are gone when a test is over.
#ifndef KYP_TESTS_UNIT_LIBKYP_LIBKYPCMPFIXTURE_H
#define KYP_TESTS_UNIT_LIBKYP_LIBKYPCMPFIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "compmodule/business_data_layer.h"
#include "compmodule/comp_init_sys.h"
#include "compmodule/comp_module.h"
#include "compmodule/comp_module_mgr.h"
#include "compmodule/net_channel.h"
#include "kypcore/router/RouteManage.h"
#include "libkyp/libkypCmp.h"
#include "support/ComponentFrames.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "utils/Log.h"

class LibkypCmpTest : public ::testing::Test {
protected:
    using CompModule = ::libkyp::compmodule::CompModule;
    using CompModuleMgr = ::libkyp::compmodule::CompModuleMgr;

    LibkypCmpTest() {
        (void)libkypcmp_init();
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = KYP_OK;
    }

    ~LibkypCmpTest() override {
        for (CompModule* module : manager().m_modules) end_thread(module);
        manager().ClearCmpServer();
        for (unsigned short const port : m_ports) {
            (void)utility::instance<RouteManage>().delPortRoute(port);
        }
    }

    static CompModuleMgr& manager() { return utility::instance<CompModuleMgr>(); }
    static CompModule& module(void* handle) { return *static_cast<CompModule*>(handle); }

    // A handle looks like any other address.
    static void* unknown_handle() { return reinterpret_cast<void*>(uintptr_t{0x1234}); }

    static tagCmpDrvInfo named(std::string const& name, uint32_t param0 = 0, uint32_t param1 = 0) {
        tagCmpDrvInfo info = {param0, param1, {}};
        memcpy(info.name, name.data(), std::min(name.size(), sizeof info.name));
        return info;
    }

    void* register_named(std::string const& name) {
        tagCmpDrvInfo info = named(name);
        return libkypcmp_register(&info, nullptr, nullptr, &m_err);
    }

    // Serves `port` and gives it free at the end, which the interface has no way for.
    int add_router(void* handle, unsigned int port, KypSvrRoute route, void* user = nullptr) {
        m_ports.push_back(static_cast<unsigned short>(port));
        return libkypcmp_addrouter(handle, port, route, user);
    }

    // What the library never does: ends the receive thread of a started component.
    static void end_thread(CompModule* module) {
        std::thread& thread = module->dataLayer->netThread;
        module->dataLayer->stopFlag = true;
        if (thread.joinable()) thread.join();
    }

    std::vector<unsigned short> m_ports;
    int m_err = -1;  // of the latest registration
};

// With a server that answers.
class LibkypCmpLinkTest : public LibkypCmpTest {
protected:
    // Has the server accept a component and answer its registration while `call` waits for it.
    // Gives what the component sent.
    template <typename Call>
    Bytes served(Bytes const& verdict, Call call) {
        Bytes request;
        std::thread server([&] {
            if (m_server->accept()) request = m_server->answer_with(verdict);
        });
        call();
        server.join();
        return request;
    }

    // The same for an exchange on the channel that stands.
    template <typename Call>
    Bytes answered(Bytes const& verdict, Call call) {
        Bytes request;
        std::thread server([&] { request = m_server->answer_with(verdict); });
        call();
        server.join();
        return request;
    }

    void* registered(std::string const& name) {
        void* handle = nullptr;
        served(verdict_frame(1), [&] { handle = register_named(name); });
        return handle;
    }

    int add_served_router(void* handle, unsigned int port, KypSvrRoute route,
                          void* user = nullptr) {
        int result = -1;
        answered(verdict_frame(3), [&] { result = add_router(handle, port, route, user); });
        return result;
    }

    // The server's end goes away and the component notices.
    void drop_link(void* handle) {
        m_server->kill();
        ASSERT_TRUE(eventually([&] { return !module(handle).netChannel->isconnected(); }));
    }

    // On the heap, so that a test can have it go.
    std::unique_ptr<FakeKypserver> m_server = std::make_unique<FakeKypserver>();
};

#endif
