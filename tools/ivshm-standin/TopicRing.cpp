#include "TopicRing.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

namespace {

constexpr uint64_t kMark = 0x314d485356594bULL;  // "KYVSHM1"
constexpr uint64_t kLengthSize = 8;              // in front of each message
constexpr int64_t kMs = 1000000;
constexpr int64_t kSlice = 50 * kMs;
constexpr int64_t kOpenTime = 2000 * kMs;  // somebody else may be making the topic
constexpr int kYields = 64;                // before a wait for the lock begins to sleep

int64_t now() {
    timespec at{};
    clock_gettime(CLOCK_MONOTONIC, &at);
    return int64_t{at.tv_sec} * 1000 * kMs + at.tv_nsec;
}

int64_t deadline_in(int64_t timeoutMs) {
    constexpr int64_t kLongest = int64_t{1} << 40;  // some thirty years
    return now() + std::clamp<int64_t>(timeoutMs, 0, kLongest) * kMs;
}

void nap(int64_t nanoseconds) {
    timespec const time{0, static_cast<long>(nanoseconds)};
    (void)nanosleep(&time, nullptr);
}

std::string name_of(int topic) {
    return "/kyp-ivshm-standin-" + std::to_string(geteuid()) + "-" + std::to_string(topic);
}

uint64_t round_up(uint64_t size) {
    return (size + 7) & ~uint64_t{7};
}

long futex(std::atomic<uint32_t>& word, int operation, uint32_t value, timespec const* time) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), operation, value, time, nullptr,
                   0);
}

bool is_unlinked(int fd) {
    struct stat info {};
    return fstat(fd, &info) != 0 || info.st_nlink == 0;
}

}  // namespace

std::unique_ptr<CTopicRing> CTopicRing::open(int topic, uint64_t bytes) {
    std::string const name = name_of(topic);
    int64_t const deadline = now() + kOpenTime;
    char const* obstacle = "in use by somebody who does not finish making it";
    do {
        int const fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            obstacle = strerror(errno);
            break;
        }
        // Alone: what is in there belongs to users who are gone.
        bool const alone = flock(fd, LOCK_EX | LOCK_NB) == 0;
        if (alone && !is_unlinked(fd) && !make(fd, bytes)) {
            obstacle = strerror(errno);
            (void)shm_unlink(name.c_str());
            close(fd);
            break;
        }
        // Between the two locks another one may make it anew, so it is looked at behind the second.
        if (flock(fd, LOCK_SH | LOCK_NB) == 0 && !is_unlinked(fd)) {
            if (Area* const area = map(fd)) {
                return std::unique_ptr<CTopicRing>(new CTopicRing(topic, fd, area));
            }
            obstacle = "made by another build";
        }
        close(fd);
        nap(kMs);
    } while (now() < deadline);

    fprintf(stderr, "ivshm stand-in: topic %d at /dev/shm%s cannot be opened: %s\n", topic,
            name.c_str(), obstacle);
    return nullptr;
}

bool CTopicRing::make(int fd, uint64_t bytes) {
    auto const total = static_cast<off_t>(sizeof(Area) + bytes);
    if (ftruncate(fd, 0) != 0) return false;
    // Taken now: a page that the memory lacks later on would kill who touches it.
    int error = 0;
    do {
        error = posix_fallocate(fd, 0, total);
    } while (error == EINTR);
    if (error != 0) {
        errno = error;
        return false;
    }
    void* const at = mmap(nullptr, sizeof(Area), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (at == MAP_FAILED) return false;

    auto* const area = new (at) Area{};
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&area->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    area->bytes = bytes;
    __atomic_store_n(&area->mark, kMark, __ATOMIC_RELEASE);
    munmap(at, sizeof(Area));
    return true;
}

CTopicRing::Area* CTopicRing::map(int fd) {
    struct stat info {};
    if (fstat(fd, &info) != 0 || info.st_size < static_cast<off_t>(sizeof(Area))) return nullptr;
    auto const total = static_cast<size_t>(info.st_size);
    void* const at = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (at == MAP_FAILED) return nullptr;

    auto* const area = static_cast<Area*>(at);
    if (__atomic_load_n(&area->mark, __ATOMIC_ACQUIRE) == kMark &&
        area->bytes == total - sizeof(Area)) {
        return area;
    }
    munmap(at, total);
    return nullptr;
}

CTopicRing::CTopicRing(int topic, int fd, Area* area)
    : m_topic(topic), m_fd(fd), m_bytes(area->bytes), m_area(area), m_bShut(false) {}

CTopicRing::~CTopicRing() {
    munmap(m_area, sizeof(Area) + m_bytes);
    // The last one takes the memory along. A newcomer that holds the file open finds it unlinked.
    if (flock(m_fd, LOCK_EX | LOCK_NB) == 0 && !is_unlinked(m_fd)) {
        (void)shm_unlink(name_of(m_topic).c_str());
    }
    close(m_fd);
}

uint64_t CTopicRing::bytes() const {
    return m_bytes;
}

bool CTopicRing::put(void const* data, uint64_t size, int64_t timeoutMs) {
    uint64_t const room = m_bytes;
    // In this order, so that a length near the end of the numbers does not wrap round.
    if (size > room - kLengthSize || round_up(size) + kLengthSize > room) {
        fprintf(stderr, "ivshm stand-in: topic %d refused a message of %lu bytes, it holds %lu\n",
                m_topic, static_cast<unsigned long>(size), static_cast<unsigned long>(room));
        return false;
    }
    uint64_t const needed = round_up(size) + kLengthSize;
    int64_t const deadline = deadline_in(timeoutMs);
    if (!lock(deadline)) return false;
    while (room - (m_area->tail - m_area->head) < needed) {
        if (!wait(m_area->takes, m_area->putters, deadline)) return false;
    }
    copy_in(m_area->tail, &size, kLengthSize);
    copy_in(m_area->tail + kLengthSize, data, size);
    __atomic_store_n(&m_area->tail, m_area->tail + needed, __ATOMIC_RELEASE);
    unlock();
    tell(m_area->puts, m_area->takers);
    return true;
}

bool CTopicRing::take(void* data, unsigned long* size, int64_t timeoutMs) {
    int64_t const deadline = deadline_in(timeoutMs);
    if (!lock(deadline)) return false;
    uint64_t length = 0;
    while (!next_length(length)) {
        if (!wait(m_area->puts, m_area->takers, deadline)) return false;
    }
    bool const fits = length <= *size;
    if (fits) copy_out(m_area->head + kLengthSize, data, length);
    __atomic_store_n(&m_area->head, m_area->head + kLengthSize + round_up(length),
                     __ATOMIC_RELEASE);
    unlock();
    tell(m_area->takes, m_area->putters);
    if (!fits) {
        fprintf(stderr,
                "ivshm stand-in: topic %d dropped a message of %lu bytes, the receiver has room "
                "for %lu\n",
                m_topic, static_cast<unsigned long>(length), *size);
        return false;
    }
    *size = length;
    return true;
}

void CTopicRing::shut() {
    m_bShut.store(true);
    for (std::atomic<uint32_t>* event : {&m_area->puts, &m_area->takes}) {
        event->fetch_add(1);
        futex(*event, FUTEX_WAKE, INT32_MAX, nullptr);
    }
}

// Takes the lock, also from a process that died with it. False when the time was up.
bool CTopicRing::lock(int64_t deadline) {
    // Tried, and not waited for: a holder that was stopped must not hold others beyond their time.
    for (int round = 0; !m_bShut.load(std::memory_order_relaxed); ++round) {
        int const result = pthread_mutex_trylock(&m_area->mutex);
        if (result == 0) return true;
        if (result == EOWNERDEAD) {
            pthread_mutex_consistent(&m_area->mutex);
            fprintf(stderr, "ivshm stand-in: topic %d goes on without a process that died in it\n",
                    m_topic);
            return true;
        }
        if (round < kYields) {
            sched_yield();
            continue;
        }
        if (now() >= deadline) return false;
        nap(kMs / 10);
    }
    return false;
}

void CTopicRing::unlock() {
    pthread_mutex_unlock(&m_area->mutex);
}

// Gives the lock away until `event` happens or may have been missed, and takes it again. False,
// without the lock, when the time was up before.
bool CTopicRing::wait(std::atomic<uint32_t>& event, std::atomic<uint32_t>& waiters,
                      int64_t deadline) {
    int64_t const left = deadline - now();
    if (left <= 0 || m_bShut.load(std::memory_order_relaxed)) {
        unlock();
        return false;
    }
    waiters.fetch_add(1);
    uint32_t const seen = event.load();
    unlock();
    timespec const time{0, static_cast<long>(std::min(left, kSlice))};
    futex(event, FUTEX_WAIT, seen, &time);
    waiters.fetch_sub(1);
    return lock(deadline);
}

void CTopicRing::tell(std::atomic<uint32_t>& event, std::atomic<uint32_t> const& waiters) {
    event.fetch_add(1);
    if (waiters.load() != 0) futex(event, FUTEX_WAKE, INT32_MAX, nullptr);
}

unsigned char* CTopicRing::ring() const {
    return reinterpret_cast<unsigned char*>(m_area + 1);
}

void CTopicRing::copy_in(uint64_t at, void const* data, uint64_t size) {
    uint64_t const begin = at % m_bytes;
    uint64_t const first = std::min(size, m_bytes - begin);
    if (first != 0) memcpy(ring() + begin, data, first);
    if (first != size) memcpy(ring(), static_cast<char const*>(data) + first, size - first);
}

void CTopicRing::copy_out(uint64_t at, void* data, uint64_t size) const {
    uint64_t const begin = at % m_bytes;
    uint64_t const first = std::min(size, m_bytes - begin);
    if (first != 0) memcpy(data, ring() + begin, first);
    if (first != size) memcpy(static_cast<char*>(data) + first, ring(), size - first);
}

// The length of the next message; false when there is none. The lock is held.
bool CTopicRing::next_length(uint64_t& length) {
    uint64_t const filled = m_area->tail - m_area->head;
    if (filled == 0) return false;

    if (filled <= m_bytes && filled >= kLengthSize) {
        copy_out(m_area->head, &length, kLengthSize);
        if (length <= filled - kLengthSize && round_up(length) <= filled - kLengthSize) return true;
    }
    // Somebody wrote over the memory: there is no way to find the next message in it.
    fprintf(stderr, "ivshm stand-in: topic %d is damaged and starts empty\n", m_topic);
    m_area->head = m_area->tail;
    return false;
}
