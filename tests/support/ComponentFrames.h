// The frames between a component and the server, and the server's end of the channel as a test
// plays it.
#ifndef KYP_TESTS_SUPPORT_COMPONENTFRAMES_H
#define KYP_TESTS_SUPPORT_COMPONENTFRAMES_H

#include <cstdint>
#include <string>

#include "support/FrameBytes.h"
#include "support/RawPeer.h"

constexpr char const* kServerPath = "/var/tmp/kyp/kypserver";

// What the server forwards for client `clientFd`: three heads of a request, 13 bytes, the payload.
// Event 1 means that the client has left.
inline Bytes forward_frame(uint16_t port, uint16_t cmd, uint32_t invokeId, uint16_t clientFd,
                           Bytes const& payload = {}, uint32_t event = 0, uint32_t indexGroup = 0,
                           uint32_t indexOffset = 0) {
    Bytes const forward =
        join({bytes("00"), u32_le(event), u16_le(clientFd), bytes("00 00 00 00 00 00")});
    return request_frame(port, cmd, invokeId, indexGroup, indexOffset, join({forward, payload}));
}

inline Bytes leave_frame(uint16_t port, uint16_t clientFd) {
    return forward_frame(port, 9, 0, clientFd, {}, 1);
}

// What a component answers with: two heads of a response, 13 bytes, the payload.
inline Bytes answer_frame(uint16_t port, uint16_t cmd, uint32_t invokeId, uint16_t clientFd,
                          Bytes const& payload = {}, uint32_t error = 0) {
    Bytes const forward = join({bytes("00 00 00 00 00 00 00"), u16_le(clientFd), u32_le(invokeId)});
    return response_frame(port, cmd, invokeId, join({forward, payload}), error);
}

// The registration of a component, and of one of its ports.
inline Bytes register_frame(uint32_t invokeId, std::string const& name, uint32_t drvParam0 = 0,
                            uint32_t drvParam1 = 0) {
    Bytes const body =
        join({bytes("00 01 00 00 00 00 00"), u16_le(static_cast<uint16_t>(name.size())),
              u32_le(drvParam0), u32_le(drvParam1), text(name)});
    return request_frame(102, 9, invokeId, 0, 0, body);
}

inline Bytes register_port_frame(uint32_t invokeId, std::string const& name, uint32_t port,
                                 uint32_t drvParam0 = 0, uint32_t drvParam1 = 0) {
    Bytes const body =
        join({bytes("00 03 00 00 00 00 00"), u16_le(static_cast<uint16_t>(name.size())),
              u32_le(drvParam0), u32_le(drvParam1), text(name), u32_le(port)});
    return request_frame(102, 9, invokeId, 0, 0, body);
}

// The server's verdict on the registration `cmdId`.
inline Bytes verdict_frame(uint16_t cmdId, uint32_t errId = 0) {
    Bytes const body =
        join({bytes("00"), u16_le(cmdId), u32_le(errId), bytes("00 00 00 00 00 00 00 00 00 00")});
    return response_frame(102, 9, 0, body);
}

// The server of this machine: it listens from its construction on.
class FakeKypserver {
public:
    // The next component; its channel is spoken on from here on. False when none came in time.
    bool accept() {
        m_peer = m_listener.accept();
        return m_peer.connected();
    }

    Bytes receive() { return m_peer.receive_frame(); }
    bool send(Bytes const& frame) { return m_peer.send(frame); }

    // Takes one request and answers it; gives the request.
    Bytes answer_with(Bytes const& reply) {
        Bytes const request = receive();
        send(reply);
        return request;
    }

    // The server is killed: nobody listens, the channel ends.
    void kill() {
        m_listener.close();
        m_peer.close();
    }

    // It is there again.
    void restart() { m_listener = RawListener::unix_path(kServerPath); }

    RawPeer& peer() { return m_peer; }

private:
    RawListener m_listener = RawListener::unix_path(kServerPath);
    RawPeer m_peer;
};

#endif
