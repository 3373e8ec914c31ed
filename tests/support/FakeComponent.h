// A component as a test plays it: registers and answers in raw bytes, put together here.
//
// Owns:     its connection.
// Threads:  one at a time.
#ifndef KYP_TESTS_SUPPORT_FAKECOMPONENT_H
#define KYP_TESTS_SUPPORT_FAKECOMPONENT_H

#include <cstdint>
#include <string>

#include "support/ComponentFrames.h"
#include "support/FrameBytes.h"
#include "support/RawPeer.h"

// The body of a registration. `cmdId` 1 registers a component, 3 one of its ports; only the second
// has the port on the wire.
Bytes registration_body(uint16_t cmdId, std::string const& name, uint32_t port = 0,
                        uint32_t drvParam0 = 0, uint32_t drvParam1 = 0, uint32_t errId = 0);
Bytes registration_frame(uint32_t invokeId, Bytes const& body);

// A forwarded request taken apart.
struct Forwarded {
    bool whole = false;  // the bytes were exactly one such frame; else the other fields are not set
    uint16_t port = 0;
    uint16_t cmd = 0;
    uint32_t invokeId = 0;
    uint32_t indexGroup = 0;
    uint32_t indexOffset = 0;
    uint32_t event = 0;  // 1: the client has gone
    uint16_t client = 0;
    Bytes payload;
};
Forwarded take_forwarded_apart(Bytes const& frame);

class FakeComponent {
public:
    // What registration says when no whole reply comes.
    static constexpr uint32_t kNoReply = 0xffffffff;

    explicit FakeComponent(std::string name, std::string const& path = kServerPath);

    // 0 or a status.
    uint32_t enter();
    uint32_t enter_port(uint16_t port);
    uint32_t enter(Bytes const& body);

    // Both at once; true when both are taken.
    bool serve(uint16_t port);

    Forwarded receive(std::chrono::milliseconds deadline = kRawDeadline);
    bool answer(Forwarded const& request, Bytes const& payload = {}, uint32_t error = 0);

    RawPeer& peer();

private:
    std::string m_name;
    RawPeer m_peer;
    uint32_t m_invokeId = 0;
};

#endif
