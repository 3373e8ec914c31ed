// What the tests of the C interface share: a raw peer on TCP 9999 and a handle that speaks to it.
#ifndef KYP_TESTS_UNIT_LIBKYP_LIBKYPFIXTURE_H
#define KYP_TESTS_UNIT_LIBKYP_LIBKYPFIXTURE_H

#include <gtest/gtest.h>

#include "kypclient/KypCreateFactory.h"
#include "kypclient/KypTcpclient.h"
#include "libkyp/libkyp.h"
#include "support/Eventually.h"
#include "support/FrameBytes.h"
#include "support/LogCapture.h"
#include "support/RawPeer.h"
#include "utils/Log.h"

class LibkypTest : public ::testing::Test {
protected:
    LibkypTest() {
        SetLogLevel(LOG_LEVEL_TRACE);
        tlsErrno = KYP_OK;
    }

    ~LibkypTest() override { manager().ClearPeerConnection(); }

    static CPeerConnMgr& manager() { return utility::instance<CPeerConnMgr>(); }

    // A handle looks like any other address.
    static void* unknown_handle() { return reinterpret_cast<void*>(uintptr_t{0x1234}); }

    _KypDeviceId m_loopback{{127, 0, 0, 1, 1, 1}};
};

// A connected handle and its far end.
class LibkypLinkTest : public LibkypTest {
protected:
    LibkypLinkTest() {
        m_handle = libkyp_createInstance(&m_loopback, KYP_CONN_TCP);
        m_peer = m_listener.accept();
    }

    CTcpclient& conn() {
        return *static_cast<CTcpclient*>(static_cast<IKypPeerConnection*>(m_handle));
    }

    // Closes the far end and waits until the connection has noticed.
    void drop_link() {
        m_listener.close();
        m_peer.close();
        ASSERT_TRUE(eventually([this] { return !conn().isconnected(); }));
    }

    int send_request(std::string const& data, uint16_t port = 600) {
        std::string copy = data;
        return libkyp_sync_send(m_handle, port, 0x10, 0x20, copy.data(),
                                static_cast<unsigned int>(copy.size()), 20000);
    }

    RawListener m_listener = RawListener::tcp(9999);
    void* m_handle = nullptr;
    RawPeer m_peer;
    char m_answer[64] = {};
};

#endif
