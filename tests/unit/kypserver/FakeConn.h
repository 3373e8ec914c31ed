// A connection that keeps what it is to send.
#ifndef KYP_TESTS_UNIT_KYPSERVER_FAKECONN_H
#define KYP_TESTS_UNIT_KYPSERVER_FAKECONN_H

#include <vector>

#include "kypcomm/pbuf/pbuf.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/IConnection.h"
#include "support/FrameBytes.h"

class FakeConn : public IConnection {
public:
    explicit FakeConn(int fd = 7) : m_fd(fd) {}

    ~FakeConn() override {
        for (pbuf* buf : m_bufs) utility::instance<server_bufpool>().put_one_free(buf);
    }

    int send_message(char const* data, int size) override {
        m_sent.emplace_back(data, data + size);
        return 0;
    }

    int send_message(_AoEHeader const& aoe, unsigned short port, char const* data, int size,
                     int /*timeout*/) override {
        auto const* const head = reinterpret_cast<uint8_t const*>(&aoe);
        m_sent.push_back(join({kyp_head(port, static_cast<uint32_t>(size) + 13),
                               Bytes(head, head + sizeof aoe), Bytes(data, data + size)}));
        return 0;
    }

    int send_message(pbuf* buf, _AoEHeader const& /*aoe*/) override {
        m_sent.emplace_back(buf->data(), buf->data() + buf->size());
        m_bufs.push_back(buf);
        return 0;
    }

    int get_fd() override { return m_fd; }

    std::vector<Bytes> m_sent;
    std::vector<pbuf*> m_bufs;  // of the frames that came as one

private:
    int m_fd;
};

#endif
