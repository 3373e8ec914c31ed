// A second host beside the test: a network namespace of its own, joined to the test's by one cable.
// Here the cable's end is "kyp0" with 10.77.0.1, there it is "kyp0" with 10.77.0.2.
//
// Threads:  any; run() works on a thread of its own. A socket made there belongs to the host for
//           good and may be used from any thread.
// Lifetime: works inside the sandbox only. The cable goes with the object.
#ifndef KYP_TESTS_SUPPORT_SECONDHOST_H
#define KYP_TESTS_SUPPORT_SECONDHOST_H

#include <functional>

class SecondHost {
public:
    static constexpr char const* kHere = "10.77.0.1";
    static constexpr char const* kThere = "10.77.0.2";

    SecondHost();
    ~SecondHost();
    SecondHost(SecondHost const&) = delete;
    SecondHost& operator=(SecondHost const&) = delete;

    // False when the namespace or the cable could not be made.
    bool ready() const;

    // Runs `work` on the second host and waits for it. Threads and programs that it starts belong
    // there too.
    void run(std::function<void()> const& work) const;

    // Moves the calling thread to the second host for good; false when it stays. For a child
    // between fork and exec.
    bool enter() const;

private:
    int m_network;  // descriptor of the namespace
    bool m_ready;
};

#endif
