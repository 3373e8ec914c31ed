#include "support/FrameBytes.h"

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

template <typename Word>
Bytes little(Word value) {
    Bytes result;
    for (size_t i = 0; i < sizeof value; ++i) {
        result.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
    return result;
}

template <typename Word>
Bytes big(Word value) {
    Bytes const turned = little(value);
    return Bytes(turned.rbegin(), turned.rend());
}

uint64_t read_little(Bytes const& from, size_t at, size_t size) {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value |= static_cast<uint64_t>(from[at + i]) << (8 * i);
    return value;
}

uint64_t read_big(Bytes const& from, size_t at, size_t size) {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value = value << 8 | from[at + i];
    return value;
}

constexpr size_t kHeads = 21;
constexpr size_t kBodyFixed = 35;
constexpr uint16_t kPubSubPort = 103;

Bytes topic_request(uint16_t cmd, uint32_t invokeId, Bytes const& body, uint32_t indexGroup,
                    uint32_t indexOffset) {
    return request_frame(kPubSubPort, cmd, invokeId, indexGroup, indexOffset, body);
}

}  // namespace

Bytes bytes(std::string const& hexPairs) {
    Bytes result;
    std::string digits;
    for (char c : hexPairs) {
        if (isspace(static_cast<unsigned char>(c)) != 0) continue;
        digits += c;
        if (digits.size() < 2) continue;
        result.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
        digits.clear();
    }
    return result;
}

std::string hex(Bytes const& data) {
    return hex(data.data(), data.size());
}

std::string hex(void const* data, size_t size) {
    auto const* at = static_cast<uint8_t const*>(data);
    std::string result;
    for (size_t i = 0; i < size; ++i) {
        char pair[4];
        snprintf(pair, sizeof pair, i == 0 ? "%02X" : " %02X", at[i]);
        result += pair;
    }
    return result;
}

Bytes text(std::string const& chars) {
    return Bytes(chars.begin(), chars.end());
}

std::string as_text(Bytes const& data) {
    return std::string(data.begin(), data.end());
}

Bytes pattern(size_t size) {
    Bytes result(size);
    uint32_t word = 1;
    for (uint8_t& byte : result) {
        word = word * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(word >> 24);
    }
    return result;
}

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes result;
    for (Bytes const& part : parts) result.insert(result.end(), part.begin(), part.end());
    return result;
}

Bytes u16_le(uint16_t value) {
    return little(value);
}
Bytes u32_le(uint32_t value) {
    return little(value);
}
Bytes u64_le(uint64_t value) {
    return little(value);
}
Bytes u16_be(uint16_t value) {
    return big(value);
}
Bytes u32_be(uint32_t value) {
    return big(value);
}

Bytes kyp_head(uint16_t port, uint32_t msgLen, uint8_t version) {
    return join({{0, version}, u16_le(port), u32_le(msgLen)});
}

Bytes aoe_head(uint32_t error, uint32_t invokeId, uint16_t cmd, uint8_t state) {
    return join({u32_be(error), u32_be(invokeId), u16_be(cmd), {0, 0, state}});
}

Bytes address_head(uint32_t indexGroup, uint32_t indexOffset) {
    return join({u32_be(indexGroup), u32_be(indexOffset)});
}

Bytes request_frame(uint16_t port, uint16_t cmd, uint32_t invokeId, uint32_t indexGroup,
                    uint32_t indexOffset, Bytes const& payload, uint8_t version) {
    return join({kyp_head(port, static_cast<uint32_t>(payload.size() + 21), version),
                 aoe_head(0, invokeId, cmd, 0), address_head(indexGroup, indexOffset), payload});
}

Bytes response_frame(uint16_t port, uint16_t cmd, uint32_t invokeId, Bytes const& payload,
                     uint32_t error, uint8_t version) {
    return join({kyp_head(port, static_cast<uint32_t>(payload.size() + 13), version),
                 aoe_head(error, invokeId, cmd, 1), payload});
}

Bytes pubsub_body(std::string const& type, std::string const& topic, Bytes const& data,
                  uint32_t indexGroup, uint32_t indexOffset) {
    return join({u64_le(type.size()),
                 u64_le(topic.size()),
                 u64_le(data.size()),
                 text(type),
                 {0},
                 text(topic),
                 {0},
                 data,
                 {0},
                 u32_le(indexGroup),
                 u32_le(indexOffset)});
}

Bytes publish_frame(uint32_t invokeId, std::string const& topic, Bytes const& data,
                    uint32_t indexGroup, uint32_t indexOffset) {
    return topic_request(8, invokeId, pubsub_body("pub", topic, data, indexGroup, indexOffset),
                         indexGroup, indexOffset);
}

Bytes subscribe_frame(uint32_t invokeId, std::string const& topic) {
    return topic_request(6, invokeId, pubsub_body("sub", topic), 0, 0);
}

Bytes unsubscribe_frame(uint32_t invokeId, std::string const& topic) {
    return topic_request(7, invokeId, pubsub_body("unsub", topic), 0, 0);
}

Bytes delivery_frame(uint32_t invokeId, std::string const& topic, Bytes const& data,
                     uint32_t indexGroup, uint32_t indexOffset, uint8_t state) {
    Bytes const body = pubsub_body("pub", topic, data, indexGroup, indexOffset);
    return join({kyp_head(kPubSubPort, static_cast<uint32_t>(body.size() + 13)),
                 aoe_head(0, invokeId, 8, state), body});
}

FrameParts take_apart(Bytes const& frame) {
    FrameParts parts;
    if (frame.size() < kHeads || read_little(frame, 4, 4) + 8 != frame.size()) return parts;
    parts.whole = true;
    parts.version = frame[1];
    parts.port = static_cast<uint16_t>(read_little(frame, 2, 2));
    parts.msgLen = static_cast<uint32_t>(read_little(frame, 4, 4));
    parts.error = static_cast<uint32_t>(read_big(frame, 8, 4));
    parts.invokeId = static_cast<uint32_t>(read_big(frame, 12, 4));
    parts.cmd = static_cast<uint16_t>(read_big(frame, 16, 2));
    parts.state = frame[20];
    parts.rest.assign(frame.begin() + kHeads, frame.end());
    return parts;
}

PubSubParts take_body_apart(Bytes const& body) {
    PubSubParts parts;
    if (body.size() < kBodyFixed) return parts;
    uint64_t const typeLen = read_little(body, 0, 8);
    uint64_t const topicLen = read_little(body, 8, 8);
    uint64_t const dataLen = read_little(body, 16, 8);
    uint64_t const room = body.size() - kBodyFixed;
    if (typeLen > room || topicLen > room - typeLen || dataLen != room - typeLen - topicLen) {
        return parts;
    }
    parts.whole = true;
    auto at = body.begin() + 24;
    auto const take = [&at](uint64_t size) {
        auto const begin = at;
        at += static_cast<ptrdiff_t>(size) + 1;
        return Bytes(begin, at - 1);
    };
    parts.type = as_text(take(typeLen));
    parts.topic = as_text(take(topicLen));
    parts.data = take(dataLen);
    parts.indexGroup = static_cast<uint32_t>(read_little(body, body.size() - 8, 4));
    parts.indexOffset = static_cast<uint32_t>(read_little(body, body.size() - 4, 4));
    return parts;
}
