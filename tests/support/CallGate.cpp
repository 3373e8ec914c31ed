#include "support/CallGate.h"

#include <dlfcn.h>
#include <ifaddrs.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace {

struct Rule {
    std::string call;
    int error;
    int times;
};

std::atomic<bool> isOpen{false};  // a gate stands; the rest is looked at only then
std::mutex mutex;
std::vector<Rule> rules;          // guarded by mutex
std::vector<std::string> record;  // guarded by mutex
std::atomic<int> selectWidth{-1};

bool begins_with(std::string const& text, std::string const& start) {
    return text.compare(0, start.size(), start) == 0;
}

// Writes the call down. True when it is not to reach the kernel: *result is its result then.
bool is_stopped(int* result, char const* format, long long a = 0, long long b = 0,
                long long c = 0) {
    if (!isOpen.load()) return false;

    char text[128];
    snprintf(text, sizeof text, format, a, b, c);
    std::lock_guard<std::mutex> lock(mutex);
    record.emplace_back(text);
    for (Rule& rule : rules) {
        if (rule.times == 0 || !begins_with(text, rule.call)) continue;
        if (rule.times > 0) --rule.times;
        *result = rule.error == 0 ? 0 : -1;
        errno = rule.error;
        return true;
    }
    return false;
}

template <typename Function>
Function* next(Function* /*same*/, char const* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

CallGate::CallGate() {
    std::lock_guard<std::mutex> lock(mutex);
    rules.clear();
    record.clear();
    selectWidth.store(-1);
    isOpen.store(true);
}

CallGate::~CallGate() {
    isOpen.store(false);
}

void CallGate::fail(std::string const& call, int error, int times) {
    std::lock_guard<std::mutex> lock(mutex);
    rules.push_back({call, error, times});
}

std::vector<std::string> CallGate::calls(std::string const& call) const {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> found;
    std::copy_if(record.begin(), record.end(), std::back_inserter(found),
                 [&call](std::string const& text) { return begins_with(text, call); });
    return found;
}

int CallGate::count(std::string const& call) const {
    return static_cast<int>(calls(call).size());
}

int CallGate::select_width() const {
    return selectWidth.load();
}

// ---- the calls, found here by the program and by every library before the C library's own

extern "C" {

#define KYP_REAL(name) static auto* const real = next(&::name, #name)

int socket(int domain, int type, int protocol) __THROW {
    KYP_REAL(socket);
    int result;
    if (is_stopped(&result, "socket(%lld,%lld,%lld)", domain, type, protocol)) return result;
    return real(domain, type, protocol);
}

int connect(int fd, sockaddr const* address, socklen_t size) {
    KYP_REAL(connect);
    int result;
    if (is_stopped(&result, "connect(%lld)", size)) return result;
    return real(fd, address, size);
}

int bind(int fd, sockaddr const* address, socklen_t size) __THROW {
    KYP_REAL(bind);
    int result;
    if (is_stopped(&result, "bind(%lld)", size)) return result;
    return real(fd, address, size);
}

int shutdown(int fd, int how) __THROW {
    KYP_REAL(shutdown);
    int result;
    if (is_stopped(&result, "shutdown(%lld)", how)) return result;
    return real(fd, how);
}

ssize_t recv(int fd, void* buf, size_t size, int flags) {
    KYP_REAL(recv);
    int result;
    if (is_stopped(&result, "recv(%lld,%lld)", static_cast<long long>(size), flags)) return result;
    return real(fd, buf, size, flags);
}

ssize_t send(int fd, void const* buf, size_t size, int flags) {
    KYP_REAL(send);
    int result;
    if (is_stopped(&result, "send(%lld,%lld)", static_cast<long long>(size), flags)) return result;
    return real(fd, buf, size, flags);
}

ssize_t recvfrom(int fd, void* buf, size_t size, int flags, sockaddr* from, socklen_t* fromSize) {
    KYP_REAL(recvfrom);
    int result;
    if (is_stopped(&result, "recvfrom(%lld,%lld)", static_cast<long long>(size), flags)) {
        return result;
    }
    return real(fd, buf, size, flags, from, fromSize);
}

ssize_t sendto(int fd, void const* buf, size_t size, int flags, sockaddr const* to,
               socklen_t toSize) {
    KYP_REAL(sendto);
    int result;
    if (is_stopped(&result, "sendto(%lld,%lld,%lld)", static_cast<long long>(size), flags,
                   toSize)) {
        return result;
    }
    return real(fd, buf, size, flags, to, toSize);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* size) __THROW {
    KYP_REAL(getsockopt);
    int result;
    if (is_stopped(&result, "getsockopt(%lld,%lld,%lld)", level, option, *size)) return result;
    return real(fd, level, option, value, size);
}

int setsockopt(int fd, int level, int option, void const* value, socklen_t size) __THROW {
    KYP_REAL(setsockopt);
    int result;
    if (is_stopped(&result, "setsockopt(%lld,%lld,%lld)", level, option, size)) return result;
    return real(fd, level, option, value, size);
}

int select(int count, fd_set* reads, fd_set* writes, fd_set* others, timeval* wait) {
    KYP_REAL(select);
    selectWidth.store(count);
    int result;
    if (is_stopped(&result, "select(%lld,%lld)", wait != nullptr ? wait->tv_sec : -1,
                   wait != nullptr ? wait->tv_usec : -1)) {
        return result;
    }
    return real(count, reads, writes, others, wait);
}

int nanosleep(timespec const* wait, timespec* rest) {
    KYP_REAL(nanosleep);
    int result;
    if (is_stopped(&result, "nanosleep(%lld,%lld)", wait->tv_sec, wait->tv_nsec)) return result;
    return real(wait, rest);
}

int ioctl(int fd, unsigned long request, ...) __THROW {
    KYP_REAL(ioctl);
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    int result;
    if (is_stopped(&result, "ioctl(%lld)", static_cast<long long>(request))) return result;
    return real(fd, request, argument);
}

int getifaddrs(ifaddrs** list) __THROW {
    KYP_REAL(getifaddrs);
    int result;
    if (is_stopped(&result, "getifaddrs()")) return result;
    return real(list);
}

void freeifaddrs(ifaddrs* list) __THROW {
    KYP_REAL(freeifaddrs);
    int result;
    if (is_stopped(&result, "freeifaddrs()")) return;
    real(list);
}

#undef KYP_REAL
}
