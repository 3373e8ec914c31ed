// A client as a program writes one: the C interface alone, with its callbacks collected.
//
// Owns:     the handle, released by the destructor.
// Threads:  one thread exchanges; what callbacks bring may be asked for from any.
#ifndef KYP_TESTS_SUPPORT_KYPCLIENT_H
#define KYP_TESTS_SUPPORT_KYPCLIENT_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "libkyp/libkyp.h"
#include "support/FrameBytes.h"

class KypClient {
public:
    // One answer: `status` is 0 or what libkyp_get_errno() said.
    struct Answer {
        int status = -1;
        uint16_t port = 0;
        Bytes payload;
    };

    // One message of a topic.
    struct Message {
        uint32_t indexGroup;
        uint32_t indexOffset;
        std::string topic;
        Bytes data;
    };

    enum Transport { TCP, UNIX };

    // Connects to the server of this machine, by TCP through device 127.0.0.1.0.0 or `id`. The
    // handle exists whether somebody listens or not.
    explicit KypClient(Transport transport, _KypDeviceId id = {{127, 0, 0, 1, 0, 0}});
    ~KypClient();
    KypClient(KypClient const&) = delete;
    KypClient& operator=(KypClient const&) = delete;

    void* handle() const;

    // Asks `port` and waits for the answer.
    Answer exchange(uint16_t port, Bytes const& payload, uint32_t indexGroup = 0,
                    uint32_t indexOffset = 0,
                    std::chrono::milliseconds deadline = std::chrono::seconds(20));

    // Has `publisher` publish on `topic` until a probe arrives here: the subscription is in force
    // then, also after a lost link. Probes do not count as messages.
    bool wait_until_subscribed(std::string const& topic, KypClient& publisher,
                               std::chrono::milliseconds deadline = std::chrono::seconds(20));

    // Sends `payload` to `port` until it comes back, over a link that is lost and made again, as it
    // is after every answer once a link was lost. False when the deadline passes.
    bool exchange_again(uint16_t port, Bytes const& payload,
                        std::chrono::milliseconds deadline = std::chrono::seconds(30));

    // 0 or a status.
    int publish(std::string const& topic, Bytes const& data, uint32_t indexGroup = 0,
                uint32_t indexOffset = 0);
    int subscribe(std::string const& topic);
    int unsubscribe(std::string const& topic);

    // The messages of all topics in the order in which they came.
    std::vector<Message> messages() const;
    size_t message_count() const;
    size_t message_count(std::string const& topic, Bytes const& data) const;
    bool wait_for_messages(size_t count,
                           std::chrono::milliseconds deadline = std::chrono::seconds(20)) const;

    // The connection events so far; a UNIX connection has none.
    std::vector<int> events() const;
    bool wait_for_events(std::vector<int> const& expected,
                         std::chrono::milliseconds deadline = std::chrono::seconds(20)) const;

private:
    static void on_event(_KypDeviceId* id, void* self, int event);
    static void on_message(unsigned int indexGroup, unsigned int indexOffset, char const* topic,
                           char const* data, unsigned int len, void* self);
    Answer exchange_once(uint16_t port, Bytes const& payload, uint32_t indexGroup,
                         uint32_t indexOffset, std::chrono::milliseconds deadline, bool* heldUp);

    mutable std::mutex m_mutex;  // guards the three collections
    std::vector<Message> m_messages;
    std::vector<std::string> m_probes;  // their topics
    std::vector<int> m_events;
    std::vector<char> m_room;  // where an answer is received
    void* m_handle;
};

#endif
