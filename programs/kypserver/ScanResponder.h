// Answers who scans the network for devices: requests to the group 239.255.0.3, port 38897, and to
// 255.255.255.255, port 38896, on every usable interface.
//
// The sockets are bound to these two addresses and not to one of this machine. So a program here
// that scans by itself, from port 38897 of an interface's own address, gets the replies to its
// requests, and this server the requests.
//
// Owns:     the two sockets and the thread.
// Threads:  start() and stop() from one thread; the rest is the responder's own.
// Lifetime: not restartable. The destructor stops it.
#ifndef KYP_PROGRAMS_KYPSERVER_SCANRESPONDER_H
#define KYP_PROGRAMS_KYPSERVER_SCANRESPONDER_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kypserver/DeviceProfile.h"

namespace kypserver {

// How many replies leave in a second: anybody can send a request in the name of another, to whom
// the much longer reply then goes.
class CReplyLimit {
public:
    CReplyLimit(unsigned int perSecond, unsigned int perSender);

    enum Verdict { REPLY, FIRST_REFUSAL, REFUSAL };

    // May the sender at `address` get a reply in the second `now`? The first no of each second says
    // so.
    Verdict ask(uint32_t address, time_t now);

private:
    unsigned int const m_perSecond;
    unsigned int const m_perSender;
    time_t m_second;         // the one that the fields below count
    unsigned int m_replies;  // of which each sender's are in m_senders
    bool m_hasRefused;
    std::map<uint32_t, unsigned int> m_senders;
};

class CScanResponder {
public:
    static constexpr unsigned int kRepliesPerSecond = 100;
    static constexpr unsigned int kRepliesPerSender = 10;
    static constexpr int kRefreshMs = 1000;  // from one look at the interfaces to the next

    CScanResponder();
    ~CScanResponder();
    CScanResponder(CScanResponder const&) = delete;
    CScanResponder& operator=(CScanResponder const&) = delete;

    // Opens the sockets and answers from now on. What is in the way of one is reported, and the
    // other serves without it. Returns false when neither could be opened.
    bool start();

    // Ends the thread, waits for it and closes the sockets.
    void stop();

private:
    // One of the two roads by which requests come.
    struct Road {
        int fd = -1;  // -1 while it is not open
        uint8_t request = 0;
        uint8_t reply = 0;
    };

    // An interface that takes part, by its index.
    struct Interface {
        Frame frame;
        in_addr address = {};
    };

    void open_road(Road& road, char const* host, uint16_t port);
    void run();
    void look_at_interfaces();
    void join(unsigned int index, std::string const& name);
    void leave(unsigned int index);
    void read_request(Road const& road);
    void answer(Road const& road, sockaddr_in const& sender, unsigned int index);
    std::string reply_for(unsigned int index);

    Road m_multicast;
    Road m_broadcast;
    int m_wake;  // an eventfd; readable when the thread is to end
    std::thread m_thread;

    // The thread's own.
    DeviceProfile m_profile;
    std::map<unsigned int, Interface> m_interfaces;
    std::set<unsigned int> m_joined;    // the interfaces on which the group is joined
    std::set<unsigned int> m_unjoined;  // those on which it could not be, as was reported
    CReplyLimit m_limit;
};

}  // namespace kypserver

#endif
