// A scan that can be looked at: it asks as the library's own scan does, with the library's sockets
// and requests, and has the library judge each reply; what it sends and receives passes through
// here and is kept.
//
// Owns:     a scan client of its own, whose thread does not run; the process's one stays shut.
// Threads:  one. The callback runs inside scan().
#ifndef KYP_PROGRAMS_KYP_SCANWATCH_H
#define KYP_PROGRAMS_KYP_SCANWATCH_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kyp/Screen.h"
#include "kypclient/KypScanClient.h"

namespace kyptool {

class CScanWatch {
public:
    using Clock = std::chrono::steady_clock;

    // `found` gets each device that the library reports.
    explicit CScanWatch(std::function<void(_KypDevice const&)> found);

    // Scans until `end`, or until `stop` is set.
    void scan(Clock::time_point end, std::atomic<bool> const& stop);

    // What has happened, for people and for programs.
    std::string text() const;
    Json json() const;

private:
    enum Road { MULTICAST, BROADCAST, ROADS };

    struct Sent {
        bool isOpen = false;  // there was a socket in the last round
        uint16_t ownPort = 0;
        uint64_t count = 0;
        uint64_t failed = 0;
        int error = 0;  // errno of the last one that failed
    };

    // A datagram as people count them: alike in all of this.
    struct Datagram {
        Road road;
        std::string from;
        bool isTaken;
        std::string verdict;  // the device that it names, or why it was dropped

        bool operator<(Datagram const& other) const;
    };

    // One interface; `reason` tells why it was not asked, and is empty for those that were.
    struct Story {
        std::string name;
        std::string address;
        std::string mac;
        std::string reason;
        Sent sent[ROADS];
        std::map<Datagram, uint64_t> came;
    };

    static void on_device(_KypDevice device, void* self);
    void pass(Clock::time_point end);
    void send_round();
    void send_on(Road road, int fd, Sent& sent);
    void read_on(Road road, int fd, Story& story);
    std::string verdict(char* datagram, size_t size, sockaddr_in from);
    Story& story_of(CScanAdapter& adapter);
    void explain_the_rest(std::unordered_map<std::string, _NetAdapterObj> const& list);

    std::function<void(_KypDevice const&)> m_found;
    CKypScanClient m_client;
    Clock::time_point m_nextRound;
    bool m_isReported;  // the library has reported the datagram in hand
    std::string m_reportedId;
    std::map<std::string, Story> m_stories;  // by interface
};

}  // namespace kyptool

#endif
