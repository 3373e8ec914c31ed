// A device of the scan as bytes, on the second host: sees the requests of both roads and answers
// what a test gives it.
//
// Owns:     its sockets.
// Threads:  one at a time.
// Lifetime: not longer than the host.
#ifndef KYP_TESTS_SUPPORT_RAWSCANDEVICE_H
#define KYP_TESTS_SUPPORT_RAWSCANDEVICE_H

#include <chrono>
#include <cstdint>
#include <string>

#include "support/FrameBytes.h"

class SecondHost;

// One request, and where it came from.
struct ScanRequest {
    enum Road { NONE, MULTICAST, BROADCAST };

    Road road = NONE;  // NONE: none came in time
    Bytes data;
    std::string host;
    uint16_t port = 0;
    std::chrono::nanoseconds arrival{0};  // by the kernel's clock at the interface
};

// A reply: the head of `command` and the text behind it.
Bytes scan_reply(uint8_t command, std::string const& json, uint32_t status = 0);

class RawScanDevice {
public:
    explicit RawScanDevice(SecondHost const& host);
    ~RawScanDevice();
    RawScanDevice(RawScanDevice const&) = delete;
    RawScanDevice& operator=(RawScanDevice const&) = delete;

    // False when a socket could not be opened or the group not be joined.
    bool ready() const;

    // The next request, on either road.
    ScanRequest receive(std::chrono::milliseconds deadline = std::chrono::seconds(20));

    // The next one on `road`; those of the other are passed over.
    ScanRequest receive_by(ScanRequest::Road road,
                           std::chrono::milliseconds deadline = std::chrono::seconds(20));

    // Sends `data` to where the request came from.
    bool answer(ScanRequest const& request, Bytes const& data);

private:
    int m_group;      // 239.255.0.3:38897
    int m_broadcast;  // port 38896
};

#endif
