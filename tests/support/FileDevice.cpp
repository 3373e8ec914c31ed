#include "support/FileDevice.h"

#include <sys/socket.h>

namespace {

constexpr size_t kAddressHead = 8;
constexpr size_t kChunkHead = 9;
constexpr uint8_t kInfo = 1;
constexpr uint8_t kChunk = 2;
constexpr uint8_t kLast = 0x80;

uint32_t u32_at(Bytes const& data, size_t at) {
    return uint32_t{data[at]} << 24 | uint32_t{data[at + 1]} << 16 | uint32_t{data[at + 2]} << 8 |
           data[at + 3];
}

bool is_chunk(Bytes const& packet) {
    return packet.size() >= kChunkHead && (packet[0] & ~kLast) == kChunk;
}

// The far end reads an end, and so does a thread that waits here. The descriptor stays.
void hang_up(RawPeer const& peer) {
    (void)shutdown(peer.fd(), SHUT_RDWR);
}

}  // namespace

FileDevice::FileDevice(Answer answer)
    : m_answer(std::move(answer)), m_acceptor([this] { accept(); }) {}

FileDevice::~FileDevice() {
    m_stop = true;
    RawPeer::connect_tcp(9999);  // wakes the acceptor
    m_acceptor.join();
    for (RawPeer const& peer : m_peers) hang_up(peer);
    for (std::thread& link : m_links) link.join();
}

std::vector<FilePacket> FileDevice::packets() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_packets;
}

size_t FileDevice::packet_count() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_packets.size();
}

Bytes FileDevice::content() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    Bytes all;
    for (FilePacket const& packet : m_packets) {
        if (!is_chunk(packet.bytes)) continue;
        all.insert(all.end(), packet.bytes.begin() + kChunkHead, packet.bytes.end());
    }
    return all;
}

int FileDevice::links() const {
    return m_accepted;
}

FileDevice::Reply FileDevice::reply(FilePacket const& packet, Bytes const& payload,
                                    uint32_t error) {
    FrameParts const& request = packet.request;
    return {response_frame(request.port, request.cmd, request.invokeId, payload, error)};
}

FileDevice::Reply FileDevice::answer(FilePacket const& packet, uint8_t type, uint32_t number,
                                     uint32_t status) {
    return reply(packet, join({{type}, u32_be(number), u32_be(status)}));
}

FileDevice::Reply FileDevice::takes_all(FilePacket const& packet) {
    if (packet.bytes.empty()) return answer(packet, kChunk | kLast, 0, 0);
    uint8_t const type = packet.bytes[0];
    if (type == kInfo) return answer(packet, kInfo, kSession, 0);
    return answer(packet, type, packet.bytes.size() < 5 ? 0 : u32_at(packet.bytes, 1), 0);
}

void FileDevice::accept() {
    for (;;) {
        RawPeer peer = m_listener.accept(std::chrono::minutes(2));
        if (m_stop || !peer.connected()) return;
        ++m_accepted;
        m_peers.push_back(std::move(peer));
        m_links.emplace_back([this, &link = m_peers.back()] { serve(link); });
    }
}

void FileDevice::serve(RawPeer& peer) {
    for (;;) {
        FilePacket packet;
        packet.request = take_apart(peer.receive_frame());
        Bytes const& rest = packet.request.rest;
        if (!packet.request.whole || rest.size() < kAddressHead) return;
        packet.indexGroup = u32_at(rest, 0);
        packet.indexOffset = u32_at(rest, 4);
        packet.bytes.assign(rest.begin() + kAddressHead, rest.end());
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_packets.push_back(packet);
        }
        Reply const back = m_answer(packet);
        if (back.hangUp) return hang_up(peer);
        if (!back.frame.empty() && !peer.send(back.frame)) return;
    }
}
