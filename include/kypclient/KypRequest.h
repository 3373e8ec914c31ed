// One request in flight and the slot in which its answer is awaited.
//
// Owns:     a slot owns nothing: its `request` belongs to the thread that asked. A request does not
//           own `buffer` and `recvLen`; whoever deletes it deletes its frame's block first.
// Threads:  the asking thread occupies, waits and releases; the receive thread claims, copies and
//           notifies. All of the receive thread's work on a request happens under the slot's mutex,
//           and so does Release(): once that has returned, the request may be freed.
// Lifetime: slots live as long as their connection and are used again and again. A slot before its
//           first use has `result` 0, a released one has -1.
#ifndef KYP_KYPCLIENT_KYPREQUEST_H
#define KYP_KYPCLIENT_KYPREQUEST_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "kypcomm/Frame.h"
#include "kypcomm/KypTypes.h"
#include "utils/Export.h"

// A plain record; its memory is taken from and returned to a free list of its own.
struct KYP_API KypRequest {
    bool copyToUser;        // the payload goes to `buffer`; else the whole frame to the PeerBuffer
    Frame frame;            // the request as it is being built; its block is deleted by hand
    _KypDeviceId deviceId;  // target
    uint16_t port;          // logical port
    uint16_t cmd;           // a KypCommand, host order
    uint32_t capacity;      // bytes at `buffer`
    void* buffer;           // where a response payload goes; not owned
    uint32_t* recvLen;      // receives the payload's full size, also when more than `capacity`
    uint32_t copied;        // bytes that reached `buffer` in the end
    int64_t deadline;       // steady clock, nanoseconds; from when an answer is refused

    static void* operator new(std::size_t size);
    static void operator delete(void* block, std::size_t size) noexcept;
};
static_assert(sizeof(KypRequest) == 88, "the layout is the binary interface");

struct KYP_API KypResponse {
    KypResponse();
    ~KypResponse();

    // Delivers the status of a claimed slot and wakes its waiter.
    void Notify(unsigned int result);

    // Waits until the answer was claimed or the request's deadline has passed. Returns what Notify
    // delivered, or 0x1008 when nobody claimed in time; a later answer then finds nothing awaited.
    // The slot is occupied, and stays so.
    int Wait();

    // Gives the slot free. The receive thread has let go of the request when this returns.
    // `invokeId` stays, so a late answer is still recognised and reported as late.
    void Release();

    std::atomic<KypRequest*> request;  // owner of the slot; null when free
    std::atomic<uint32_t> invokeId;    // the id awaited; 0 when nothing is. Who sets it to 0 by
                                       // compare-and-swap has claimed the answer
    std::mutex mutex;                  // guards `result`, the wait, and the request's fields while
                                       // the request stands in the slot
    std::condition_variable cond;      // `result` was delivered
    int result;                        // status delivered; -1 none yet
};
static_assert(sizeof(KypResponse) == 112, "the layout is the binary interface");

#endif
