// Puts payloads and headers in front of what a pbuf holds: the pooled counterparts of the builders
// in KypPacket.h. The buffer has head room for all of them, so nothing is allocated.
//
// Owns:    nothing; the buffer stays its caller's, and payloads are copied.
// Threads: the buffer's owner. Each returns 0.
#ifndef KYP_KYPCOMM_PBUF_PBUFBUILDER_H
#define KYP_KYPCOMM_PBUF_PBUFBUILDER_H

#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/pbuf.h"
#include "utils/Export.h"

// `len` bytes of payload.
KYP_API int addPayloadData(pbuf* buf, unsigned char* data, unsigned int len);

// 8 and 13 bytes as they stand: their words are in network order already.
KYP_API int addAoeRequestHeaderTobuf(pbuf* buf, AoERequestHeader const& header);
KYP_API int addAoeHeaderTobuf(pbuf* buf, _AoEHeader const& header);

// The outermost header. nMsgLen is what the buffer holds at this moment.
KYP_API int addKypHeaderTobuf(pbuf* buf, unsigned short port, unsigned char version);

// 8 bytes as they stand.
KYP_API int addKypHeaderTobuf(pbuf* buf, _KypHeader const& header);

// The body of a frame on port 103, strlen(type) + strlen(topic) + dataLen + 35 bytes in host order:
// the three lengths as u64, the three texts with a NUL behind each, the two words. TopicProtocol
// reads it.
KYP_API int addPubSubMsgTobuf(pbuf* buf, char const* type, char const* topic,
                              unsigned int indexGroup, unsigned int indexOffset, char const* data,
                              unsigned int dataLen);

#endif
