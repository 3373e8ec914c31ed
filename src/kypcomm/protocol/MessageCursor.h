// Reads and writes the fields of a body, one after the other, in host order and without gaps.
#ifndef KYP_KYPCOMM_PROTOCOL_MESSAGECURSOR_H
#define KYP_KYPCOMM_PROTOCOL_MESSAGECURSOR_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "kypcomm/protocol/Message.h"

// The length by which a body is read.
inline int signed_length(Message const& m) {
    // Kept: 32 bits with a sign. Of 2 GiB and more a reader sees the first two or three fields, and
    // of 4 GiB nothing.
    return static_cast<int>(m.length);
}

// Fills `field` from `offset` on. Bytes behind the end of the message read as zero, so a field that
// is cut short has what there is of it.
template <typename T>
void read_field(Message const& m, uint64_t offset, T& field) {
    field = T{};
    if (offset >= m.length) return;
    memcpy(&field, m.data + offset, std::min<uint64_t>(sizeof(T), m.length - offset));
}

template <typename T>
void append_field(std::string& body, T const& field) {
    body.append(reinterpret_cast<char const*>(&field), sizeof(T));
}

#endif
