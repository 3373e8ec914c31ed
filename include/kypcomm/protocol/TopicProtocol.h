// The body of a frame on port 103, as a subscriber or broker reads it and as addPubSubMsgTobuf()
// builds it: three u64 lengths, type, topic and data with a NUL behind each, two words. Host order,
// no gaps.
//
// Threads:  one at a time.
// Lifetime: a value.
#ifndef KYP_KYPCOMM_PROTOCOL_TOPICPROTOCOL_H
#define KYP_KYPCOMM_PROTOCOL_TOPICPROTOCOL_H

#include <cstdint>
#include <string>

#include "kypcomm/protocol/Message.h"
#include "utils/Export.h"

class KYP_API TopicProtocol {
public:
    // For a body that is to be read.
    TopicProtocol();
    TopicProtocol(std::string type, std::string topic, std::string data);
    TopicProtocol(std::string type, std::string topic, std::string data, unsigned int indexGroup,
                  unsigned int indexOffset);
    ~TopicProtocol();

    // The body as bytes, with the lengths that the three strings have.
    Message serialization();

    // Fills the fields as far as `m` goes; the later ones stay as they are. Type and topic end at
    // their first NUL, the data does not. A field that is cut by the end reads its missing bytes as
    // zero; a text that is declared longer than the body ends the reading. Returns 0 always.
    int deserialization(Message const& m);

    // Bytes of the body by the three length fields.
    unsigned long getBytesLength();

    uint64_t typeLen;  // bytes of each text without its NUL, as declared in the body
    uint64_t topicLen;
    uint64_t dataLen;
    uint32_t indexGroup;  // the two words of a "pub"
    uint32_t indexOffset;
    std::string type;  // "pub", "sub" or "unsub"
    std::string topic;
    std::string data;  // may hold NUL bytes
};

#endif
