// What the command line decides about this server.
//
// Lifetime: a value, settled before anything else begins.
#ifndef KYP_PROGRAMS_KYPSERVER_OPTIONS_H
#define KYP_PROGRAMS_KYPSERVER_OPTIONS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "kypcomm/KypWire.h"

namespace kypserver {

// An IPv4 address of this machine and a port on it.
struct Address {
    std::string host;
    uint16_t port;  // 0 lets the kernel choose
};

// Where files go when nobody says otherwise.
constexpr char const* kUsualSpool = "/var/tmp/kyp/spool";

// The taking of files.
struct FileOptions {
    bool receive = false;  // nothing else counts without it
    uint16_t port = 105;   // logical
    std::string spoolDir = kUsualSpool;
    size_t maxFileSize = size_t{1024} * 1024 * 1024;
    size_t maxTransfers = 8;                // files at a time
    std::chrono::seconds longestPause{30};  // of a sender within a file
};

struct Options {
    bool tcp = true;
    Address tcpAddress = {"0.0.0.0", kTcpPort};
    bool udp = true;
    Address udpAddress = {"0.0.0.0", kUdpPort};
    bool domain = true;
    std::string domainPath = kDomainPath;

    bool scan = true;  // answer who scans the network for devices

    int loops = 3;     // event loops; the first one accepts, so there are two at least
    int workers = 4;   // threads that serve requests
    int priority = 0;  // of the event loops: 1..99 SCHED_FIFO, 0 the usual scheduling

    size_t maxClients = 1000;                             // open stream connections
    size_t maxWaitingBytes = size_t{4} * 1024 * 1024;     // towards one subscriber
    size_t maxComponentBytes = size_t{64} * 1024 * 1024;  // requests towards one component
    size_t maxHeldBytes = size_t{64} * 1024 * 1024;  // requests of one client and answers to it
    size_t maxTopics = 4096;                         // subscribed by one connection

    FileOptions files;

    bool allowSetId = false;  // a peer may change this device's id
    int quietMs = 200;        // without a registration, before a component gets other frames
    int verbose = 0;          // 1: the library's log from DEBUG on, 2: all of it
};

// Reads "a.b.c.d", ":port" or "a.b.c.d:port" into `address`, keeping what the text leaves out.
// Returns false with `address` untouched for any other text.
bool parse_address(std::string const& text, Address& address);

// Reads the command line into `options`. Returns nothing when the server is to run, or else the
// exit code: 0 after --help and --version, another one with the reason on standard error.
std::optional<int> parse_options(int argc, char const* const* argv, Options& options);

}  // namespace kypserver

#endif
