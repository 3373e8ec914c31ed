// An owned block of bytes: the body of a registration or topic frame on its way in or out.
//
// Owns:     its bytes.
// Threads:  one at a time.
// Lifetime: a value; a copy has its own bytes.
#ifndef KYP_KYPCOMM_PROTOCOL_MESSAGE_H
#define KYP_KYPCOMM_PROTOCOL_MESSAGE_H

#include <cstdint>

#include "utils/Export.h"

class KYP_API Message {
public:
    // No bytes.
    Message();

    // A copy of `size` bytes at `bytes`.
    Message(void const* bytes, uint64_t size);

    Message(Message const& other);
    Message(Message&& other) noexcept;
    Message& operator=(Message const& other);
    Message& operator=(Message&& other) noexcept;
    ~Message();

    uint64_t length;      // bytes at `data`; readers take it as a signed 32-bit value
    unsigned char* data;  // from new[], null without bytes
};

#endif
