// The body of a frame on port 103, read in place.
#ifndef KYP_PROGRAMS_KYPSERVER_TOPICBODY_H
#define KYP_PROGRAMS_KYPSERVER_TOPICBODY_H

#include <cstddef>
#include <string_view>

namespace kypserver {

// Views into the body.
struct TopicBody {
    std::string_view type;
    std::string_view topic;
};

// Reads `size` bytes at `data`. Returns false, with `body` undefined, unless they are exactly one
// body: three lengths, type, topic and data with a NUL behind each and none in the first two, and
// two words. Never reads outside the bytes, whatever the lengths say.
bool read_topic_body(char const* data, size_t size, TopicBody& body);

}  // namespace kypserver

#endif
