#include "kypserver/TopicBody.h"

#include <cstdint>
#include <cstring>

namespace kypserver {

namespace {

constexpr size_t kLengths = 3 * sizeof(uint64_t);
constexpr size_t kAround = kLengths + 3 + 2 * sizeof(uint32_t);  // all but the three texts

uint64_t length_at(char const* position) {
    uint64_t length;
    memcpy(&length, position, sizeof length);
    return length;
}

// `length` characters and a NUL, none of them before.
bool is_text(char const* text, size_t length) {
    return memchr(text, '\0', length + 1) == text + length;
}

}  // namespace

bool read_topic_body(char const* data, size_t size, TopicBody& body) {
    if (size < kAround) return false;
    size_t const room = size - kAround;
    uint64_t const typeLen = length_at(data);
    uint64_t const topicLen = length_at(data + 8);
    uint64_t const dataLen = length_at(data + 16);
    // One after the other, so that no sum can wrap.
    if (typeLen > room || topicLen > room - typeLen || dataLen != room - typeLen - topicLen) {
        return false;
    }

    char const* const type = data + kLengths;
    char const* const topic = type + typeLen + 1;
    char const* const behindData = topic + topicLen + 1 + dataLen;
    if (!is_text(type, typeLen) || !is_text(topic, topicLen) || *behindData != '\0') return false;

    body.type = {type, typeLen};
    body.topic = {topic, topicLen};
    return true;
}

}  // namespace kypserver
