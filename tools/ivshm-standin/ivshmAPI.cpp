#include "ivshmAPI.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

#include "TopicRing.h"

namespace {

constexpr uint64_t kDefaultBytes = 8 << 20;
constexpr uint64_t kLeastBytes = 4096;
constexpr uint64_t kMostBytes = 1 << 30;

// The open handles by number. A number is never given twice, so an old handle finds nothing.
struct Handles {
    std::mutex mutex;  // guards the two below
    std::map<uintptr_t, std::shared_ptr<CTopicRing>> rings;
    uintptr_t latest = 0;
};

Handles& handles() {
    static auto* const s_handles = new Handles;  // threads may come in while the process ends
    return *s_handles;
}

// Stays alive as long as the caller holds it, closed or not.
std::shared_ptr<CTopicRing> ring_of(void* handle) {
    std::lock_guard<std::mutex> lock(handles().mutex);
    auto const found = handles().rings.find(reinterpret_cast<uintptr_t>(handle));
    return found == handles().rings.end() ? nullptr : found->second;
}

uint64_t wanted_bytes() {
    char const* const text = getenv("KYP_IVSHM_STANDIN_BYTES");
    if (text == nullptr) return kDefaultBytes;
    uint64_t const bytes =
        std::clamp<uint64_t>(strtoull(text, nullptr, 10), kLeastBytes, kMostBytes);
    return (bytes + 7) / 8 * 8;
}

}  // namespace

void* libivshmapi_init(int topic, int mode) {
    if (topic < 0) {
        fprintf(stderr, "ivshm stand-in: topic %d is none, they begin with 0\n", topic);
        return nullptr;
    }
    std::shared_ptr<CTopicRing> ring = CTopicRing::open(topic, wanted_bytes());
    if (ring == nullptr) return nullptr;

    fprintf(stderr,
            "ivshm stand-in: topic %d opened, mode %d, %lu bytes; shared memory of this machine, "
            "for development and tests only\n",
            topic, mode, static_cast<unsigned long>(ring->bytes()));
    std::lock_guard<std::mutex> lock(handles().mutex);
    uintptr_t const number = ++handles().latest;
    handles().rings.emplace(number, std::move(ring));
    return reinterpret_cast<void*>(number);
}

bool libivshmapi_send(void* handle, unsigned long size, void* data, long timeoutMs) {
    std::shared_ptr<CTopicRing> const ring = ring_of(handle);
    return ring != nullptr && ring->put(data, size, timeoutMs);
}

bool libivshmapi_recv(void* handle, unsigned long* size, void* data, long timeoutMs) {
    std::shared_ptr<CTopicRing> const ring = ring_of(handle);
    return ring != nullptr && ring->take(data, size, timeoutMs);
}

void libivshmapi_uninit(void* handle) {
    std::shared_ptr<CTopicRing> ring;
    {
        std::lock_guard<std::mutex> lock(handles().mutex);
        auto const found = handles().rings.find(reinterpret_cast<uintptr_t>(handle));
        if (found == handles().rings.end()) return;
        ring = std::move(found->second);
        handles().rings.erase(found);
    }
    ring->shut();
}
