// Frames as plain bytes, put together here from the byte tables and not by the library's builders,
// so that a test and the library cannot share a mistake.
#ifndef KYP_TESTS_SUPPORT_FRAMEBYTES_H
#define KYP_TESTS_SUPPORT_FRAMEBYTES_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// bytes("00 01 C8 00"): hexadecimal pairs, blanks are skipped.
Bytes bytes(std::string const& hexPairs);

// "00 01 C8 00": the way back, for messages that a reader can compare.
std::string hex(Bytes const& data);
std::string hex(void const* data, size_t size);

// The characters of `chars`, without a closing NUL.
Bytes text(std::string const& chars);
std::string as_text(Bytes const& data);

// `size` bytes that differ along their way, so that a lost, doubled or shifted piece shows.
Bytes pattern(size_t size);

Bytes join(std::initializer_list<Bytes> parts);

Bytes u16_le(uint16_t value);
Bytes u32_le(uint32_t value);
Bytes u64_le(uint64_t value);
Bytes u16_be(uint16_t value);
Bytes u32_be(uint32_t value);

// The heads of 8, 13 and 8 bytes.
Bytes kyp_head(uint16_t port, uint32_t msgLen, uint8_t version = 1);
Bytes aoe_head(uint32_t error, uint32_t invokeId, uint16_t cmd, uint8_t state);
Bytes address_head(uint32_t indexGroup, uint32_t indexOffset);

// A whole request: three heads and the payload.
Bytes request_frame(uint16_t port, uint16_t cmd, uint32_t invokeId, uint32_t indexGroup,
                    uint32_t indexOffset, Bytes const& payload = {}, uint8_t version = 1);

// A whole response: two heads and the payload.
Bytes response_frame(uint16_t port, uint16_t cmd, uint32_t invokeId, Bytes const& payload = {},
                     uint32_t error = 0, uint8_t version = 1);

// The body of a message about a topic; `type` is "pub", "sub" or "unsub".
Bytes pubsub_body(std::string const& type, std::string const& topic, Bytes const& data = {},
                  uint32_t indexGroup = 0, uint32_t indexOffset = 0);

// What a client sends on port 103: heads of a request, then the body.
Bytes publish_frame(uint32_t invokeId, std::string const& topic, Bytes const& data,
                    uint32_t indexGroup = 0, uint32_t indexOffset = 0);
Bytes subscribe_frame(uint32_t invokeId, std::string const& topic);
Bytes unsubscribe_frame(uint32_t invokeId, std::string const& topic);

// What reaches a subscriber: the body straight behind the second head.
Bytes delivery_frame(uint32_t invokeId, std::string const& topic, Bytes const& data,
                     uint32_t indexGroup = 0, uint32_t indexOffset = 0, uint8_t state = 0);

// A frame taken apart. `rest` is all that follows the heads which every frame has.
struct FrameParts {
    bool whole = false;  // the bytes were exactly one frame; else the other fields are not set
    uint8_t version = 0;
    uint16_t port = 0;
    uint32_t msgLen = 0;
    uint32_t error = 0;
    uint32_t invokeId = 0;
    uint16_t cmd = 0;
    uint8_t state = 0;
    Bytes rest;
};
FrameParts take_apart(Bytes const& frame);

// The same for the body of a message about a topic.
struct PubSubParts {
    bool whole = false;
    std::string type;
    std::string topic;
    Bytes data;
    uint32_t indexGroup = 0;
    uint32_t indexOffset = 0;
};
PubSubParts take_body_apart(Bytes const& body);

#endif
