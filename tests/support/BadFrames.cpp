#include "support/BadFrames.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr uint16_t kEcho = 100;
constexpr uint16_t kIdentity = 101;
constexpr uint16_t kTopics = 103;

// A body whose length word at `at` promises `value` bytes.
Bytes lying_publication(size_t at, uint64_t value) {
    Bytes body = pubsub_body("pub", "topic", text("data"));
    Bytes const word = u64_le(value);
    std::copy(word.begin(), word.end(), body.begin() + static_cast<ptrdiff_t>(at));
    return request_frame(kTopics, 8, 1, 0, 0, body);
}

}  // namespace

std::vector<BadFrame> bad_frames() {
    return {
        {"nothing at all", {}},
        {"half a head", bytes("00 01 64")},
        {"half a body", bytes("00 01 64 00 15 00 00 00 00 00 00 00")},
        {"a head that promises more than anybody may send", kyp_head(kEcho, 0x600001)},
        {"a length below zero", kyp_head(kEcho, 0xffffffff)},
        {"the smallest length below zero", kyp_head(kEcho, 0x80000000)},
        {"a frame of no length", kyp_head(kEcho, 0)},
        {"a frame too short for its heads", join({kyp_head(kEcho, 1), bytes("00")})},
        {"a frame without an address", join({kyp_head(kEcho, 13), aoe_head(0, 1, 9, 0)})},
        {"an address of seven bytes",
         join({kyp_head(kEcho, 20), aoe_head(0, 1, 9, 0), bytes("00 00 00 00 00 00 00")})},
        {"a version that nobody knows", request_frame(kEcho, 9, 1, 0, 0, text("x"), 77)},
        {"a response", response_frame(kEcho, 9, 1, text("x"))},
        {"a command that nobody knows", request_frame(kIdentity, 4711, 1, 0x1000, 0x1001)},
        {"port 0", request_frame(0, 9, 1, 0, 0, text("x"))},
        {"port 65535", request_frame(65535, 9, 1, 0, 0, text("x"))},
        {"a publication without a body", request_frame(kTopics, 8, 1, 0, 0)},
        {"a publication of zeros", request_frame(kTopics, 8, 1, 0, 0, Bytes(35))},
        {"a type longer than its frame", lying_publication(0, 1000)},
        {"a topic of nearly 2^64 bytes", lying_publication(8, UINT64_MAX - 3)},
        {"data of 2^63 bytes", lying_publication(16, uint64_t{1} << 63)},
        {"noise", pattern(100000)},
    };
}
