// A topic message that is being delivered, taken apart.
//
// A message of common size costs no allocation once its thread has delivered one as long before:
// the texts are kept for the next one.
//
// Owns:     copies of the texts.
// Threads:  the one that has made it.
// Lifetime: one delivery.
#ifndef KYP_SRC_KYPCOMM_PROTOCOL_RECEIVEDTOPIC_H
#define KYP_SRC_KYPCOMM_PROTOCOL_RECEIVEDTOPIC_H

#include <cstdint>
#include <memory>

#include "kypcomm/protocol/TopicProtocol.h"

class ReceivedTopic {
public:
    // Reads the body of `length` bytes at `body`, which is not needed afterwards.
    ReceivedTopic(void const* body, uint64_t length);
    ~ReceivedTopic();
    ReceivedTopic(ReceivedTopic const&) = delete;
    ReceivedTopic& operator=(ReceivedTopic const&) = delete;

    TopicProtocol const* operator->() const { return m_message.get(); }

private:
    std::unique_ptr<TopicProtocol> m_message;
};

#endif
