// One topic in POSIX shared memory: a bounded ring of whole messages for any number of processes.
//
// A message is there when `tail` has passed it, which is the last step of putting it, and is gone
// when `head` has passed it, the last step of taking it. A process may die at any instruction: what
// it was putting is not there, what it was taking still is, and the lock that it held goes to the
// next one. No process waits for a signal alone: each looks again every 50 ms.
//
// Owns:     the mapping and the descriptor, whose shared file lock tells the others that the topic
//           is in use. The lock goes with the process, however it ends.
// Threads:  put() and take() from any; shut() wakes and refuses them. Not across a fork.
// Lifetime: of one handle; the destructor is not for a ring that is still waited on.
#ifndef KYP_TOOLS_IVSHM_STANDIN_TOPICRING_H
#define KYP_TOOLS_IVSHM_STANDIN_TOPICRING_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>

class CTopicRing {
public:
    // Attaches to `topic`, which is made with `bytes` of room for messages when nobody uses it.
    // Null with the reason logged.
    static std::unique_ptr<CTopicRing> open(int topic, uint64_t bytes);

    ~CTopicRing();
    CTopicRing(CTopicRing const&) = delete;
    CTopicRing& operator=(CTopicRing const&) = delete;

    // The two directions, as libivshmapi_send() and libivshmapi_recv() tell them.
    bool put(void const* data, uint64_t size, int64_t timeoutMs);
    bool take(void* data, unsigned long* size, int64_t timeoutMs);

    // Refuses every call from now on and ends those that wait.
    void shut();

    // Room for messages; each takes 8 bytes more than its own, rounded up to a multiple of 8.
    uint64_t bytes() const;

private:
    // The head of the shared memory; the ring's bytes follow. All zero until it is made.
    struct Area {
        uint64_t mark;                  // kMark: made, and of this layout
        uint64_t bytes;                 // room behind this head, a multiple of 8
        pthread_mutex_t mutex;          // robust; guards head, tail and the bytes between them
        uint64_t head;                  // bytes ever taken
        uint64_t tail;                  // bytes ever put
        std::atomic<uint32_t> puts;     // a wait for a message watches it
        std::atomic<uint32_t> takes;    // a wait for room watches it
        std::atomic<uint32_t> takers;   // who waits for a message; too high after a crash
        std::atomic<uint32_t> putters;  // who waits for room; too high after a crash
    };

    CTopicRing(int topic, int fd, Area* area);

    static bool make(int fd, uint64_t bytes);
    static Area* map(int fd);

    bool lock(int64_t deadline);
    void unlock();
    bool wait(std::atomic<uint32_t>& event, std::atomic<uint32_t>& waiters, int64_t deadline);
    void tell(std::atomic<uint32_t>& event, std::atomic<uint32_t> const& waiters);
    unsigned char* ring() const;
    void copy_in(uint64_t at, void const* data, uint64_t size);
    void copy_out(uint64_t at, void* data, uint64_t size) const;
    bool next_length(uint64_t& length);

    int m_topic;
    int m_fd;
    uint64_t m_bytes;  // as the area told it when it was mapped
    Area* m_area;
    std::atomic<bool> m_bShut;
};

#endif
