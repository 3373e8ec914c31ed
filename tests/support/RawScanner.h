// A program on the second host that scans, as bytes: sends what a test gives it by either road and
// hands out what comes back.
//
// Owns:     its socket.
// Threads:  one at a time.
// Lifetime: not longer than the host.
#ifndef KYP_TESTS_SUPPORT_RAWSCANNER_H
#define KYP_TESTS_SUPPORT_RAWSCANNER_H

#include <chrono>
#include <string>

#include "support/FrameBytes.h"
#include "support/RawPeer.h"

class SecondHost;

// A request of `command`: the head alone.
Bytes scan_request(uint8_t command);

class RawScanner {
public:
    explicit RawScanner(SecondHost const& host);
    ~RawScanner();
    RawScanner(RawScanner const&) = delete;
    RawScanner& operator=(RawScanner const&) = delete;

    bool ready() const;

    // To 239.255.0.3 port 38897, to 255.255.255.255 port 38896, to an address of the test's.
    bool multicast(Bytes const& data);
    bool broadcast(Bytes const& data);
    bool send_to(std::string const& host, uint16_t port, Bytes const& data);

    // The next datagram; port 0 when none came in time.
    RawDatagram receive(std::chrono::milliseconds deadline = kRawDeadline);

private:
    int m_fd;
};

#endif
