#include "kypclient/KypRequest.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <limits>

#include "kypcomm/KypStatus.h"
#include "utils/FreeList.h"

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

// One request of the split way is alive per connection, and its successor for a moment beside it.
FreeList s_requests(sizeof(KypRequest), 64);

timespec to_system_time(int64_t deadline) {
    using std::chrono::duration_cast;
    using std::chrono::nanoseconds;

    const int64_t steadyNow =
        duration_cast<nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
    const int64_t systemNow =
        duration_cast<nanoseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    int64_t time = 0;
    // A deadline past the end of the clock is as good as its last moment; one before its start has
    // passed.
    if (__builtin_add_overflow(deadline, systemNow - steadyNow, &time)) {
        time = deadline > 0 ? std::numeric_limits<int64_t>::max() : 0;
    }
    if (time < 0) time = 0;
    return {static_cast<time_t>(time / kNanosecondsPerSecond), time % kNanosecondsPerSecond};
}

}  // namespace

void* KypRequest::operator new(std::size_t size) {
    return s_requests.take(size);
}

void KypRequest::operator delete(void* block, std::size_t size) noexcept {
    s_requests.give(block, size);
}

// Kept: `result` is 0 before the first use and -1 ever after, so a claim that overtakes the first
// Wait without a Notify is answered with 0 at once.
KypResponse::KypResponse() : request(nullptr), invokeId(0), result(0) {}

KypResponse::~KypResponse() = default;

void KypResponse::Notify(unsigned int code) {
    std::lock_guard<std::mutex> lock(mutex);
    result = static_cast<int>(code);
    cond.notify_all();
}

int KypResponse::Wait() {
    std::unique_lock<std::mutex> lock(mutex);
    KypRequest const* const owner = request;
    while (invokeId != 0 && owner != nullptr) {
        // Converted anew in each round: the system clock may have been set in the meantime.
        const timespec until = to_system_time(owner->deadline);
        // By hand: std::condition_variable asks the clock once more behind each wait.
        const int status =
            pthread_cond_timedwait(cond.native_handle(), mutex.native_handle(), &until);
        if (status == ETIMEDOUT) break;
    }
    if (invokeId.exchange(0) != 0) return KYP_ERR_RECV_TIMEOUT;

    // Claimed: whoever did so notifies.
    cond.wait(lock, [this] { return result != -1; });
    return result;
}

void KypResponse::Release() {
    std::lock_guard<std::mutex> lock(mutex);
    result = -1;
    request = nullptr;
}
