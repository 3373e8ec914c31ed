// The header in front of every frame in shared memory. One message on a topic is one header with
// its frame.
#ifndef KYP_KYPCOMM_IVSHM_SHMHEADER_H
#define KYP_KYPCOMM_IVSHM_SHMHEADER_H

#include <cstdint>

// Host order throughout, unlike the heads behind it.
struct __attribute__((packed)) ShmHeader {
    uint32_t magic;      // kShmMagic
    uint8_t type;        // kShmType
    uint8_t reserved;    // 0
    uint8_t version;     // kShmVersion
    uint8_t reserved2;   // 0
    uint32_t clientId;   // virtual client, 1..32; readers take the low 16 bits, as a signed value
    uint32_t processId;  // of the client; a reply repeats it
    uint32_t dataSize;   // bytes of the frame behind this header
};
static_assert(sizeof(ShmHeader) == 20, "the layout is the wire format");

constexpr uint32_t kShmMagic = 0xFF4B5950;
constexpr uint8_t kShmType = 1;
constexpr uint8_t kShmVersion = 2;

// Virtual clients that share one pair of topics.
constexpr int kShmClients = 32;

// Groups of one process, by index, on either side.
constexpr int kShmGroups = 2;

// A receiver's buffer is this much larger than the largest frame.
constexpr int kShmBufferSlack = 1024;

#endif
