// One way of carrying what one publisher sends to many subscribers through a server process.
//
// Owns:     its server process, from start() to the destructor.
// Threads:  one, which publishes; what is delivered is told on the subscribers' own threads.
#ifndef KYP_BENCH_TOPICS_FANOUT_H
#define KYP_BENCH_TOPICS_FANOUT_H

#include <memory>
#include <string>
#include <vector>

#include "common/Sockets.h"

class Deliveries;

// A publisher and its subscribers, each with a connection of its own.
class Group {
public:
    virtual ~Group() = default;

    // Ends the program on a failure.
    virtual void publish(std::vector<char> const& payload) = 0;
};

class FanOut {
public:
    virtual ~FanOut() = default;
    virtual char const* name() const = 0;

    // Starts the server process and returns when it takes connections.
    virtual void start() = 0;

    // Each message that comes to subscriber `i` is told to `deliveries`, which outlives the group.
    // The first ones may be lost: the server learns of the subscribers by and by.
    virtual std::unique_ptr<Group> gather(Transport transport, Deliveries& deliveries) = 0;
};

// Plain sockets: the server reads a message and writes it once for each subscriber, who has a
// thread that selects, reads the head and reads the body. The floor.
std::unique_ptr<FanOut> make_bare();

// The library's clients and `kypserver`.
std::unique_ptr<FanOut> make_library(std::string const& serverProgram);

// The body of the bare server's process. It ends with its parent.
int serve_bare();

#endif
