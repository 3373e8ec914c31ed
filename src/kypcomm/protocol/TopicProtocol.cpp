#include "kypcomm/protocol/TopicProtocol.h"

#include <cstring>
#include <utility>

#include "MessageCursor.h"

namespace {

constexpr uint64_t kLengthsSize = 3 * sizeof(uint64_t);

// Whether `declared` bytes stand at `offset`. Written so that no sum can wrap.
bool holds(uint64_t length, uint64_t offset, uint64_t declared) {
    return offset <= length && declared <= length - offset;
}

char const* text_at(Message const& m, uint64_t offset) {
    return reinterpret_cast<char const*>(m.data) + offset;
}

void append_text(std::string& body, std::string const& text) {
    body.append(text);
    body.push_back('\0');
}

}  // namespace

TopicProtocol::TopicProtocol()
    : typeLen(0), topicLen(0), dataLen(0), indexGroup(0), indexOffset(0) {}

TopicProtocol::TopicProtocol(std::string typeText, std::string topicText, std::string dataText)
    : TopicProtocol(std::move(typeText), std::move(topicText), std::move(dataText), 0, 0) {}

TopicProtocol::TopicProtocol(std::string typeText, std::string topicText, std::string dataText,
                             unsigned int indexGroupValue, unsigned int indexOffsetValue)
    : typeLen(typeText.size()),
      topicLen(topicText.size()),
      dataLen(dataText.size()),
      indexGroup(indexGroupValue),
      indexOffset(indexOffsetValue),
      type(std::move(typeText)),
      topic(std::move(topicText)),
      data(std::move(dataText)) {}

TopicProtocol::~TopicProtocol() = default;

Message TopicProtocol::serialization() {
    std::string body;
    append_field(body, uint64_t{type.size()});
    append_field(body, uint64_t{topic.size()});
    append_field(body, uint64_t{data.size()});
    append_text(body, type);
    append_text(body, topic);
    append_text(body, data);
    append_field(body, indexGroup);
    append_field(body, indexOffset);
    return {body.data(), body.size()};
}

int TopicProtocol::deserialization(Message const& m) {
    const int signedLength = signed_length(m);
    if (signedLength == 0) return 0;
    read_field(m, 0, typeLen);
    if (signedLength < 9) return 0;
    read_field(m, 8, topicLen);
    if (signedLength < 17) return 0;
    read_field(m, 16, dataLen);
    if (signedLength < 25) return 0;

    const auto length = static_cast<uint64_t>(signedLength);
    uint64_t offset = kLengthsSize;
    if (!holds(length, offset, typeLen)) return 0;
    type.assign(text_at(m, offset), strnlen(text_at(m, offset), typeLen));
    offset += typeLen + 1;
    if (length <= offset) return 0;

    if (!holds(length, offset, topicLen)) return 0;
    topic.assign(text_at(m, offset), strnlen(text_at(m, offset), topicLen));
    offset += topicLen + 1;
    if (length <= offset) return 0;

    if (!holds(length, offset, dataLen)) return 0;
    data.assign(text_at(m, offset), dataLen);
    offset += dataLen + 1;

    if (offset < length) read_field(m, offset, indexGroup);
    if (offset + sizeof(indexGroup) < length) {
        read_field(m, offset + sizeof(indexGroup), indexOffset);
    }
    return 0;
}

unsigned long TopicProtocol::getBytesLength() {
    return typeLen + topicLen + dataLen + 35;
}
