// Stands between a test's process and the C library's calls on sockets: writes them down, and makes
// chosen ones fail without reaching the kernel.
//
// A call is written as its name and what a test may ask for, the descriptor apart:
//     socket(domain,type,protocol)  connect(addressLength)  bind(addressLength)  shutdown(how)
//     recv(size,flags)  send(size,flags)  recvfrom(size,flags)  sendto(size,flags,addressLength)
//     getsockopt(level,option,size)  setsockopt(level,option,size)  select(seconds,microseconds)
//     nanosleep(seconds,nanoseconds)  ioctl(request)  getifaddrs()  freeifaddrs()
//
// Threads:  the calls of every thread go through it; the object belongs to one thread.
// Lifetime: one at a time; without one, every call passes untouched.
#ifndef KYP_TESTS_SUPPORT_CALLGATE_H
#define KYP_TESTS_SUPPORT_CALLGATE_H

#include <string>
#include <vector>

class CallGate {
public:
    static constexpr int kAlways = -1;

    CallGate();
    ~CallGate();
    CallGate(CallGate const&) = delete;
    CallGate& operator=(CallGate const&) = delete;

    // The next `times` calls that begin with `call` give -1 with `error` in errno, or 0 when
    // `error` is 0. Rules are asked in the order in which they were given.
    void fail(std::string const& call, int error, int times = 1);

    // The calls so far that begin with `call`, in order.
    std::vector<std::string> calls(std::string const& call = "") const;

    int count(std::string const& call) const;

    // What the latest select() gave for its descriptors, the highest and one; -1 before the first.
    int select_width() const;
};

#endif
