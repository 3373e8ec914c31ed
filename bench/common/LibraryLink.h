// A connection of the library's client to `kypserver`, which asks one logical port.
#ifndef KYP_BENCH_COMMON_LIBRARYLINK_H
#define KYP_BENCH_COMMON_LIBRARYLINK_H

#include <memory>

#include "common/Link.h"
#include "common/Sockets.h"

// The echo of `kypserver` itself.
constexpr unsigned short kEchoPort = 100;

// A handle of the library to the server on this machine. Ends the program when there is none.
void* create_handle(Transport transport);

// Whoever serves `port` answers with what it gets.
std::unique_ptr<Link> make_library_link(Transport transport, unsigned short port);

#endif
