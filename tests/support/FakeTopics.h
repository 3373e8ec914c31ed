// The shared memory between virtual machines, played inside the test: it takes the place of the
// library behind ExtIvshmApiDef, gives the messages that the test puts in and keeps what is sent.
//
// Threads:  the receive threads of the groups under test and the test's own.
// Lifetime: one at a time; every group is stopped before it goes.
#ifndef KYP_TESTS_SUPPORT_FAKETOPICS_H
#define KYP_TESTS_SUPPORT_FAKETOPICS_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "support/FrameBytes.h"

class FakeTopics {
public:
    FakeTopics();
    ~FakeTopics();
    FakeTopics(FakeTopics const&) = delete;
    FakeTopics& operator=(FakeTopics const&) = delete;

    // A handle of `topic`, as an open of it gives.
    void* handle(int topic);

    // From now on, opening `topic` fails.
    void refuse_open(int topic);

    // From now on, every send fails.
    void refuse_send();

    // Puts a message into `topic`. Its reader is told `length` instead of the real one, if given.
    void put(int topic, Bytes message);
    void put_with_length(int topic, Bytes message, unsigned long length);

    // Waits until the reader of `topic` has taken every message and asks for the next, so that it
    // is done with them. False at the deadline.
    bool wait_consumed(int topic);

    // What was sent to `topic` so far; the second waits for `count` messages.
    std::vector<Bytes> sent(int topic);
    std::vector<Bytes> wait_sent(int topic, size_t count);

    // From now on no read waits, so that a thread which is asked to stop ends at once.
    void end_waits();

    // Topic and mode of each open; handles' topics of each close; timeouts in milliseconds and room
    // of the latest read, timeout of the latest send.
    std::vector<std::pair<int, int>> opened();
    std::vector<int> closed();
    long read_timeout();
    unsigned long read_room();
    long send_timeout();

    // The most sends that were under way at the same time, on any handle.
    int most_sends_at_once();

private:
    struct Topic {
        int number = 0;
        std::deque<std::pair<Bytes, unsigned long>> waiting;  // message, length that is told
        std::vector<Bytes> sent;
        bool readerIdle = false;
    };

    static void* init(int topic, int mode);
    static bool send(void* handle, unsigned long size, void* data, long timeoutMs);
    static bool recv(void* handle, unsigned long* size, void* data, long timeoutMs);
    static void uninit(void* handle);

    Topic& topic_at(int number);

    std::atomic<int> m_sendsUnderWay{0};
    std::mutex m_mutex;  // guards all below
    std::condition_variable m_changed;
    std::map<int, Topic> m_topics;
    std::set<int> m_refused;
    std::vector<std::pair<int, int>> m_opened;
    std::vector<int> m_closed;
    bool m_refuseSend = false;
    bool m_endWaits = false;
    long m_readTimeout = -1;
    unsigned long m_readRoom = 0;
    long m_sendTimeout = -1;
    int m_mostSends = 0;
};

// A message of shared memory, from the byte table: the header of 20 bytes and the frame. The second
// tells another length than the frame's.
Bytes shm_message(uint32_t clientId, uint32_t processId, Bytes const& frame);
Bytes shm_head(uint32_t magic, uint32_t clientId, uint32_t processId, uint32_t dataSize);

#endif
