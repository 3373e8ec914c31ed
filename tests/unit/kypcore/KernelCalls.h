// Stands between the library and the C library, so that a test can see a call and choose its
// outcome: a kernel without accept4, a refused thread, a clock that has moved on. The calls on
// sockets that clients make too have their own gate, CallGate.
//
// Threads:  a hook is set and removed while no other thread makes its call.
// Lifetime: a KernelHook removes itself; without one every call goes through.
#ifndef KYP_TESTS_UNIT_KYPCORE_KERNELCALLS_H
#define KYP_TESTS_UNIT_KYPCORE_KERNELCALLS_H

#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>

#include <functional>
#include <utility>

template <typename Signature>
struct KernelCall {
    bool hooked = false;
    std::function<Signature> hook;
    Signature* real = nullptr;  // set before a hook is called
};

namespace kernel {

extern KernelCall<int(int, sockaddr*, socklen_t*, int)> accept4;
extern KernelCall<int(int, sockaddr*, socklen_t*)> accept;
extern KernelCall<int(int)> epoll_create1;
extern KernelCall<int(int, int, int, epoll_event*)> epoll_ctl;
extern KernelCall<int(int, epoll_event*, int, int)> epoll_wait;
extern KernelCall<int(int, int)> listen;
extern KernelCall<time_t(time_t*)> time;
extern KernelCall<int(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*)> pthread_create;
extern KernelCall<int(pthread_t, char const*)> pthread_setname_np;
extern KernelCall<int(pthread_attr_t*)> pthread_attr_init;
extern KernelCall<int(pthread_attr_t*)> pthread_attr_destroy;
extern KernelCall<int(pthread_attr_t*, int)> pthread_attr_setinheritsched;
extern KernelCall<int(pthread_attr_t*, int)> pthread_attr_setdetachstate;
extern KernelCall<int(pthread_attr_t*, sched_param const*)> pthread_attr_setschedparam;
extern KernelCall<int(pthread_attr_t*, int)> pthread_attr_setschedpolicy;
extern KernelCall<int(pthread_attr_t*, size_t)> pthread_attr_setstacksize;

}  // namespace kernel

// Hooks a call for the object's lifetime.
template <typename Signature>
class KernelHook {
public:
    template <typename Hook>
    KernelHook(KernelCall<Signature>& call, Hook hook) : m_call(call) {
        m_call.hook = std::move(hook);
        m_call.hooked = true;
    }
    ~KernelHook() {
        m_call.hooked = false;
        m_call.hook = nullptr;
    }
    KernelHook(KernelHook const&) = delete;
    KernelHook& operator=(KernelHook const&) = delete;

private:
    KernelCall<Signature>& m_call;
};

template <typename Signature, typename Hook>
KernelHook(KernelCall<Signature>&, Hook) -> KernelHook<Signature>;

// What a hook returns for a failed call: -1 with `error` in errno.
int fail_with(int error);

#endif
