// One way of carrying a request to another process and its answer back.
//
// Owns:     its server process, from start() to the destructor.
// Threads:  connect() from one thread; each Link belongs to one thread.
#ifndef KYP_BENCH_ROUNDTRIP_CONTESTANT_H
#define KYP_BENCH_ROUNDTRIP_CONTESTANT_H

#include <sys/types.h>

#include <memory>
#include <string>

#include "common/Link.h"
#include "common/Sockets.h"

class Contestant {
public:
    virtual ~Contestant() = default;
    virtual char const* name() const = 0;

    // Starts the server process and returns when it takes connections.
    virtual void start() = 0;
    virtual std::unique_ptr<Link> connect(Transport transport) = 0;

    // The server process.
    pid_t server() const { return m_server; }

protected:
    pid_t m_server = 0;
};

// Plain sockets, one thread on each side: one send and one receive each way. The floor.
std::unique_ptr<Contestant> make_ping_pong();

// Plain sockets, threads and condition variables that make just the calls and thread switches of
// one exchange of the library: what the library's way of working costs by itself.
std::unique_ptr<Contestant> make_bare();

// The library's client against `kypserver`, echo port.
std::unique_ptr<Contestant> make_library(std::string const& serverProgram);

// Bodies of the server processes, for this program called with "--serve NAME". They end with their
// parent.
int serve_ping_pong();
int serve_bare();

#endif
