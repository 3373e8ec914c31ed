// The heads of the packets by which a file travels. Each packet is the payload of one request with
// kFileGroup and kFileOffset; the next one leaves when its answer has come.
//
// The file-info packet comes first: its head, the file's name, the target path. Chunk packets
// follow: their head and up to kFileChunkSize bytes. A file that ends with a whole chunk, or has
// none, ends with a packet without any byte. All numbers in network order.
#ifndef KYP_KYPCOMM_PROTOCOL_FILEPACKET_H
#define KYP_KYPCOMM_PROTOCOL_FILEPACKET_H

#include <cstdint>

struct __attribute__((packed)) KypFileInfoHead {
    uint8_t type;        // KYP_FILE_INFO
    uint8_t nameLen;     // low eight bits; name and path come without a terminator
    uint8_t pathLen;     // low eight bits
    uint32_t fileSize;   // bytes, low 32 bits
    uint32_t chunkSize;  // kFileChunkSize
    uint32_t chunkNum;   // chunks that have at least one byte
};
static_assert(sizeof(KypFileInfoHead) == 15, "the layout is the wire format");

struct __attribute__((packed)) KypFileChunkHead {
    uint8_t type;   // KYP_FILE_CHUNK; kFileLastBit in the last chunk, if it is not a whole one
    uint32_t seq;   // 1 in the first chunk
    uint32_t ssrc;  // session number, as the device gave it
};
static_assert(sizeof(KypFileChunkHead) == 9, "the layout is the wire format");

struct __attribute__((packed)) KypFileAnswer {
    uint8_t type;     // that of the packet; kFileLastBit when the device has the whole file
    uint32_t number;  // to KYP_FILE_INFO: the session number from now on; else not looked at
    uint32_t status;  // a KypStatus; not looked at in the answer to a packet without any byte
};
static_assert(sizeof(KypFileAnswer) == 9, "the layout is the wire format");

// The low seven bits of `type`.
enum KypFilePacketType : uint8_t {
    KYP_FILE_INFO = 1,
    KYP_FILE_CHUNK = 2,
};
constexpr uint8_t kFileTypeMask = 0x7f;
constexpr uint8_t kFileLastBit = 0x80;

constexpr uint32_t kFileGroup = 4098;
constexpr uint32_t kFileOffset = 1;
constexpr uint32_t kFileChunkSize = 8192;

#endif
