#include "kypcomm/protocol/ReceivedTopic.h"

#include <utility>

namespace {

// What a thread keeps between two messages is no more than this for each text.
constexpr std::size_t kLargestKept = 65536;

// Null while one is in use: a callback that delivers a message itself gets another.
thread_local std::unique_ptr<TopicProtocol> t_spare;

std::unique_ptr<TopicProtocol> take_spare() {
    if (t_spare == nullptr) return std::make_unique<TopicProtocol>();
    return std::move(t_spare);
}

bool is_kept(TopicProtocol const& message) {
    return message.type.capacity() <= kLargestKept && message.topic.capacity() <= kLargestKept &&
           message.data.capacity() <= kLargestKept;
}

// Reading leaves alone what a short body does not have.
void empty(TopicProtocol& message) {
    message.typeLen = message.topicLen = message.dataLen = 0;
    message.indexGroup = message.indexOffset = 0;
    message.type.clear();
    message.topic.clear();
    message.data.clear();
}

// Lets a message be read where it is.
class Borrowed {
public:
    Borrowed(void const* bytes, uint64_t length) {
        m_message.length = length;
        m_message.data = static_cast<unsigned char*>(const_cast<void*>(bytes));
    }
    ~Borrowed() { m_message.data = nullptr; }
    Borrowed(Borrowed const&) = delete;
    Borrowed& operator=(Borrowed const&) = delete;

    Message const& message() const { return m_message; }

private:
    Message m_message;
};

}  // namespace

ReceivedTopic::ReceivedTopic(void const* body, uint64_t length) : m_message(take_spare()) {
    empty(*m_message);
    m_message->deserialization(Borrowed(body, length).message());
}

ReceivedTopic::~ReceivedTopic() {
    if (is_kept(*m_message)) t_spare = std::move(m_message);
}
