#include "support/FakeComponent.h"

#include <utility>

namespace {

constexpr uint16_t kRegistrationPort = 102;
constexpr size_t kReplyHeads = 21;

uint32_t read_u32(Bytes const& from, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value |= static_cast<uint32_t>(from[at + i]) << (8 * i);
    return value;
}

uint32_t read_u32_be(Bytes const& from, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = value << 8 | from[at + i];
    return value;
}

}  // namespace

Bytes registration_body(uint16_t cmdId, std::string const& name, uint32_t port, uint32_t drvParam0,
                        uint32_t drvParam1, uint32_t errId) {
    uint16_t const plain = cmdId & 0xefff;
    return join({{0},
                 u16_le(cmdId),
                 u32_le(errId),
                 u16_le(static_cast<uint16_t>(name.size())),
                 u32_le(drvParam0),
                 u32_le(drvParam1),
                 text(name),
                 plain == 3 || plain == 4 ? u32_le(port) : Bytes()});
}

Bytes registration_frame(uint32_t invokeId, Bytes const& body) {
    return request_frame(kRegistrationPort, 9, invokeId, 0, 0, body);
}

Forwarded take_forwarded_apart(Bytes const& frame) {
    Forwarded result;
    FrameParts const parts = take_apart(frame);
    if (!parts.whole || parts.state != 0 || parts.rest.size() < 21) return result;

    result.whole = true;
    result.port = parts.port;
    result.cmd = parts.cmd;
    result.invokeId = parts.invokeId;
    result.indexGroup = read_u32_be(parts.rest, 0);
    result.indexOffset = read_u32_be(parts.rest, 4);
    result.event = read_u32(parts.rest, 9);
    result.client = static_cast<uint16_t>(parts.rest[13] | parts.rest[14] << 8);
    result.payload.assign(parts.rest.begin() + 21, parts.rest.end());
    return result;
}

FakeComponent::FakeComponent(std::string name, std::string const& path)
    : m_name(std::move(name)), m_peer(RawPeer::connect_unix(path)) {}

uint32_t FakeComponent::enter() {
    return enter(registration_body(1, m_name));
}

uint32_t FakeComponent::enter_port(uint16_t port) {
    return enter(registration_body(3, m_name, port));
}

uint32_t FakeComponent::enter(Bytes const& body) {
    if (!m_peer.send(registration_frame(++m_invokeId, body))) return kNoReply;
    Bytes const frame = m_peer.receive_frame();
    FrameParts const reply = take_apart(frame);
    if (!reply.whole || reply.port != kRegistrationPort || reply.state != 1 ||
        reply.invokeId != m_invokeId || frame.size() < kReplyHeads + 17) {
        return kNoReply;
    }
    return read_u32(frame, kReplyHeads + 3);
}

bool FakeComponent::serve(uint16_t port) {
    return enter() == 0 && enter_port(port) == 0;
}

Forwarded FakeComponent::receive(std::chrono::milliseconds deadline) {
    return take_forwarded_apart(m_peer.receive_frame(deadline));
}

bool FakeComponent::answer(Forwarded const& request, Bytes const& payload, uint32_t error) {
    return m_peer.send(
        answer_frame(request.port, request.cmd, request.invokeId, request.client, payload, error));
}

RawPeer& FakeComponent::peer() {
    return m_peer;
}
