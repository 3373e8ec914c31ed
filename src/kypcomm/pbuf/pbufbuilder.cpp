#include "kypcomm/pbuf/pbufbuilder.h"

#include <cstdint>
#include <cstring>

int addPayloadData(pbuf* buf, unsigned char* data, unsigned int len) {
    buf->prepend(data, len);
    return 0;
}

int addAoeRequestHeaderTobuf(pbuf* buf, AoERequestHeader const& header) {
    buf->prepend(&header, sizeof(header));
    return 0;
}

int addAoeHeaderTobuf(pbuf* buf, _AoEHeader const& header) {
    buf->prepend(&header, sizeof(header));
    return 0;
}

int addKypHeaderTobuf(pbuf* buf, unsigned short port, unsigned char version) {
    return addKypHeaderTobuf(buf, _KypHeader{0, version, port, static_cast<uint32_t>(buf->size())});
}

int addKypHeaderTobuf(pbuf* buf, _KypHeader const& header) {
    buf->prepend(&header, sizeof(header));
    return 0;
}

int addPubSubMsgTobuf(pbuf* buf, char const* type, char const* topic, unsigned int indexGroup,
                      unsigned int indexOffset, char const* data, unsigned int dataLen) {
    const uint64_t typeSize = strlen(type);
    const uint64_t topicSize = strlen(topic);
    const uint64_t dataSize = dataLen;

    buf->prepend(&indexOffset, sizeof(indexOffset));
    buf->prepend(&indexGroup, sizeof(indexGroup));
    buf->prepend("", 1);
    buf->prepend(data, dataLen);
    buf->prepend(topic, static_cast<unsigned int>(topicSize + 1));
    buf->prepend(type, static_cast<unsigned int>(typeSize + 1));
    buf->prepend(&dataSize, sizeof(dataSize));
    buf->prepend(&topicSize, sizeof(topicSize));
    buf->prepend(&typeSize, sizeof(typeSize));
    return 0;
}
