// Preloaded into the processes of a counting run: stands in front of the C library's allocation and
// socket calls, counts, and passes on. Never loaded when time is taken.
#include <dlfcn.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdlib>

#include "common/Counters.h"

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
}

namespace {

Counters* g_counters = nullptr;  // null until attach() has run

__attribute__((constructor)) void attach() {
    char const* const number = getenv(kCountersVariable);
    if (number == nullptr) return;
    void* const page =
        mmap(nullptr, sizeof(CountersPage), PROT_READ | PROT_WRITE, MAP_SHARED, atoi(number), 0);
    if (page == MAP_FAILED) return;
    char const* const place = getenv(kPlaceVariable);
    auto const index = static_cast<std::size_t>(place != nullptr ? atoi(place) : 0);
    if (index < kCountedProcesses) g_counters = &(*static_cast<CountersPage*>(page))[index];
}

void count(std::atomic<uint64_t> Counters::*counter) {
    if (g_counters != nullptr) (g_counters->*counter).fetch_add(1, std::memory_order_relaxed);
}

template <typename Function>
Function next(char const* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define COUNTED __attribute__((visibility("default")))

extern "C" {

COUNTED void* malloc(size_t size) {
    count(&Counters::allocations);
    return __libc_malloc(size);
}

COUNTED void* calloc(size_t members, size_t size) {
    count(&Counters::allocations);
    return __libc_calloc(members, size);
}

COUNTED void* realloc(void* block, size_t size) {
    count(&Counters::allocations);
    return __libc_realloc(block, size);
}

COUNTED ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    static auto const real = next<decltype(&recv)>("recv");
    count(&Counters::inputOutput);
    return real(fd, buffer, size, flags);
}

COUNTED ssize_t send(int fd, void const* data, size_t size, int flags) {
    static auto const real = next<decltype(&send)>("send");
    count(&Counters::inputOutput);
    return real(fd, data, size, flags);
}

COUNTED int select(int count_, fd_set* readable, fd_set* writable, fd_set* other, timeval* wait) {
    static auto const real = next<decltype(&select)>("select");
    count(&Counters::inputOutput);
    return real(count_, readable, writable, other, wait);
}

COUNTED int epoll_wait(int epoll, epoll_event* events, int size, int timeout) {
    static auto const real = next<decltype(&epoll_wait)>("epoll_wait");
    count(&Counters::inputOutput);
    return real(epoll, events, size, timeout);
}

COUNTED int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
    static auto const real = next<int (*)(int, int, int, epoll_event*)>("epoll_ctl");
    count(&Counters::inputOutput);
    return real(epoll, operation, fd, event);
}

}  // extern "C"
