#include "kypcomm/KypPacket.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "kypcomm/KypStatus.h"

namespace {

constexpr unsigned int kResponseOverhead = sizeof(_KypHeader) + sizeof(_AoEHeader);
constexpr unsigned int kRequestOverhead = kResponseOverhead + sizeof(AoERequestHeader);

// An empty frame with room for payload and headers. The check stands in front of the allocation,
// since a frame that is given up half-way would leave its block behind.
Frame make_frame(unsigned int len, unsigned int overhead) {
    if (len > std::numeric_limits<unsigned int>::max() - overhead) throw std::bad_alloc();
    return Frame(len + overhead, nullptr);
}

void prepend_kyp_header(Frame& frame, unsigned short port, unsigned int nMsgLen,
                        unsigned char version) {
    const _KypHeader header{0, version, port, nMsgLen};
    frame.prepend(&header, sizeof(header));
}

void fill_request(Frame& frame, unsigned short port, _AoEHeader const& aoe,
                  AoERequestHeader const& req, void const* data, unsigned int len,
                  unsigned char version) {
    frame.prepend(data, len);
    frame.prepend(&req, sizeof(req));
    frame.prepend(&aoe, sizeof(aoe));
    prepend_kyp_header(frame, port, len + sizeof(aoe) + sizeof(req), version);
}

// Takes `size` bytes of header from the cursor. The caller has checked `remaining`.
void advance(char const*& cursor, unsigned int& remaining, unsigned int* consumed,
             unsigned int size) {
    cursor += size;
    remaining -= size;
    if (consumed != nullptr) *consumed = size;
}

template <typename T>
int parse_header(T& header, char const*& cursor, unsigned int& remaining, unsigned int* consumed) {
    if (remaining < sizeof(T)) return KYP_ERR_PACKET_TOO_SHORT;

    memcpy(&header, cursor, sizeof(T));
    advance(cursor, remaining, consumed, sizeof(T));
    return KYP_OK;
}

}  // namespace

Frame MakeKypRequestPacket(unsigned short port, unsigned short cmd, unsigned int invokeId,
                           unsigned int indexGroup, unsigned int indexOffset, void* data,
                           unsigned int len, unsigned char version) {
    const _AoEHeader aoe{0, utils_htonl(invokeId), utils_htons(cmd), 0, KYP_STATE_REQUEST};
    const AoERequestHeader req{utils_htonl(indexGroup), utils_htonl(indexOffset)};

    Frame frame = make_frame(len, kRequestOverhead);
    fill_request(frame, port, aoe, req, data, len, version);
    return frame;
}

Frame MakeKypRequestPacket(unsigned short port, _AoEHeader& aoe, AoERequestHeader& req, void* data,
                           unsigned int len, unsigned char version) {
    Frame frame = make_frame(len, kRequestOverhead);
    fill_request(frame, port, aoe, req, data, len, version);
    return frame;
}

Frame MakeKypRequestPacket(unsigned short port, _AoEHeader& aoe, AoERequestHeader& req,
                           char const* data, unsigned int len, unsigned char version) {
    Frame frame = make_frame(len, kRequestOverhead);
    fill_request(frame, port, aoe, req, data, len, version);
    return frame;
}

int MakeKypRequestPacketEx(Frame& frame, unsigned short port, _AoEHeader& aoe,
                           AoERequestHeader& req, char const* data, unsigned int len,
                           unsigned char version) {
    fill_request(frame, port, aoe, req, data, len, version);
    return 0;
}

Frame MakeKypResponsePacket(unsigned short port, _AoEHeader& aoe, void const* data,
                            unsigned int len, unsigned char version) {
    Frame frame = make_frame(len, kResponseOverhead);
    frame.prepend(data, len);
    frame.prepend(&aoe, sizeof(aoe));
    prepend_kyp_header(frame, port, len + static_cast<unsigned int>(sizeof(aoe)), version);
    return frame;
}

int ParseProtocolAoeHeader(_AoEHeader& header, char const*& cursor, unsigned int& remaining,
                           unsigned int* consumed) {
    return parse_header(header, cursor, remaining, consumed);
}

int ParseProtocolAoeRequestHeader(AoERequestHeader& header, char const*& cursor,
                                  unsigned int& remaining, unsigned int* consumed) {
    return parse_header(header, cursor, remaining, consumed);
}

int ParseProtocolKypforwardHeader(_KypforwardHeader& header, char const*& cursor,
                                  unsigned int& remaining, unsigned int* consumed) {
    if (remaining < sizeof(AoERequestHeader)) return KYP_ERR_PACKET_TOO_SHORT;

    // Kept: 8 to 12 bytes pass for the 13 of this header; the missing ones read as zero, the cursor
    // ends up behind the caller's bytes and `remaining` wraps round.
    header = _KypforwardHeader{};
    memcpy(&header, cursor, std::min<std::size_t>(remaining, sizeof(header)));
    advance(cursor, remaining, consumed, sizeof(header));
    return KYP_OK;
}

int ParseKypResponsePacket(void* buf, unsigned int len, _AoEHeader& aoe, void* out,
                           unsigned int& outLen) {
    const unsigned int capacity = outLen;
    outLen = 0;
    if (len < sizeof(aoe)) return KYP_ERR_PACKET_TOO_SHORT;

    memcpy(&aoe, buf, sizeof(aoe));
    const unsigned int error = utils_ntohl(aoe.error);
    if (error != 0) return static_cast<int>(error);

    outLen = std::min(len - static_cast<unsigned int>(sizeof(aoe)), capacity);
    // Kept: from 2 GiB on the payload is counted but not copied.
    if (static_cast<int>(outLen) > 0) {
        memcpy(out, static_cast<unsigned char const*>(buf) + sizeof(aoe), outLen);
    }
    return KYP_OK;
}
