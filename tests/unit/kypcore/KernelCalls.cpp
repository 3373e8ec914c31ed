#include "KernelCalls.h"

#include <dlfcn.h>

#include <cerrno>

// Defined under the C library's names by their labels: as part of the program they come before the
// C library for every shared object of the process. The thread sanitizer's own runtime calls some
// of them in threads that it does not know yet, so the way through is plain code.
#define KERNEL_CALL(result, name, parameters, arguments)                                \
    KernelCall<result parameters> kernel::name;                                         \
    extern "C" result hooked_##name parameters __asm__(#name);                          \
    extern "C" __attribute__((no_sanitize("thread"))) result hooked_##name parameters { \
        static result(*real) parameters;                                                \
        if (real == nullptr) {                                                          \
            real = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name));     \
        }                                                                               \
        if (!kernel::name.hooked) return real arguments;                                \
        kernel::name.real = real;                                                       \
        return kernel::name.hook arguments;                                             \
    }

KERNEL_CALL(int, accept4, (int fd, sockaddr* addr, socklen_t* len, int flags),
            (fd, addr, len, flags))
KERNEL_CALL(int, accept, (int fd, sockaddr* addr, socklen_t* len), (fd, addr, len))
KERNEL_CALL(int, epoll_create1, (int flags), (flags))
KERNEL_CALL(int, epoll_ctl, (int epollFd, int op, int fd, epoll_event* event),
            (epollFd, op, fd, event))
KERNEL_CALL(int, epoll_wait, (int epollFd, epoll_event* events, int count, int timeoutMs),
            (epollFd, events, count, timeoutMs))
KERNEL_CALL(int, listen, (int fd, int backlog), (fd, backlog))
KERNEL_CALL(time_t, time, (time_t * now), (now))
KERNEL_CALL(int, pthread_create,
            (pthread_t * thread, pthread_attr_t const* attr, void* (*entry)(void*), void* arg),
            (thread, attr, entry, arg))
KERNEL_CALL(int, pthread_setname_np, (pthread_t thread, char const* name), (thread, name))
KERNEL_CALL(int, pthread_attr_init, (pthread_attr_t * attr), (attr))
KERNEL_CALL(int, pthread_attr_destroy, (pthread_attr_t * attr), (attr))
KERNEL_CALL(int, pthread_attr_setinheritsched, (pthread_attr_t * attr, int value), (attr, value))
KERNEL_CALL(int, pthread_attr_setdetachstate, (pthread_attr_t * attr, int value), (attr, value))
KERNEL_CALL(int, pthread_attr_setschedparam, (pthread_attr_t * attr, sched_param const* param),
            (attr, param))
KERNEL_CALL(int, pthread_attr_setschedpolicy, (pthread_attr_t * attr, int policy), (attr, policy))
KERNEL_CALL(int, pthread_attr_setstacksize, (pthread_attr_t * attr, size_t size), (attr, size))

int fail_with(int error) {
    errno = error;
    return -1;
}
