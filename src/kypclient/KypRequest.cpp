#include "kypclient/KypRequest.h"

#include <chrono>
#include <limits>

#include "kypcomm/KypStatus.h"
#include "utils/FreeList.h"

namespace {

// One request of the split way is alive per connection, and its successor for a moment beside it.
FreeList s_requests(sizeof(KypRequest), 64);

std::chrono::system_clock::time_point to_system_time(int64_t deadline) {
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
    return std::chrono::system_clock::time_point(nanoseconds(time < 0 ? 0 : time));
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
        const auto until = to_system_time(owner->deadline);
        if (cond.wait_until(lock, until) == std::cv_status::timeout) break;
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
