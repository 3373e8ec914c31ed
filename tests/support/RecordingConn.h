// A connection that answers nothing and writes down what it is asked to send.
//
// Threads:  one.
// Lifetime: any; buffers that are handed over stay the test's.
#ifndef KYP_TESTS_SUPPORT_RECORDINGCONN_H
#define KYP_TESTS_SUPPORT_RECORDINGCONN_H

#include <cstdint>
#include <vector>

#include "kypcomm/KypStatus.h"
#include "kypcore/IConnection.h"
#include "support/FrameBytes.h"

class RecordingConn : public IConnection {
public:
    // One call of the send_message that routes answer by.
    struct Answer {
        Bytes aoe;  // the 13 bytes as given
        uint16_t port;
        Bytes data;
        int timeoutMs;
    };

    int send_message(char const* /*data*/, int /*size*/) override { return m_result; }

    int send_message(_AoEHeader const& aoe, unsigned short port, char const* data, int size,
                     int timeout) override {
        auto const* const head = reinterpret_cast<uint8_t const*>(&aoe);
        m_answers.push_back(
            {Bytes(head, head + sizeof aoe), port, Bytes(data, data + size), timeout});
        if (m_status != 0) tlsErrno = m_status;
        return m_result;
    }

    int send_message(pbuf* /*buf*/, _AoEHeader const& /*aoe*/) override { return m_result; }

    int get_fd() override { return 7; }

    std::vector<Answer> m_answers;
    int m_result = 0;  // what every send_message gives
    int m_status = 0;  // what an answer leaves in tlsErrno, unless 0
};

#endif
