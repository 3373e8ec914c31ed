// Plain sockets as the library sets them up, and whole reads and writes over them.
#ifndef KYP_BENCH_COMMON_SOCKETS_H
#define KYP_BENCH_COMMON_SOCKETS_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

enum class Transport { Tcp, Domain };

char const* name_of(Transport transport);

// Where a plain server listens.
struct Endpoint {
    unsigned short tcpPort;
    char const* domainPath;
};

// Listening descriptors. End the program with the reason when they cannot be had.
int listen_tcp(unsigned short port);
int listen_domain(char const* path);

// A connected blocking descriptor; retries for up to five seconds while the server starts.
int connect_plain(Transport transport, Endpoint const& endpoint);

// No Nagle delay and 256 KiB buffers, as the server core gives every connection.
void tune(int fd);

void send_all(int fd, void const* data, std::size_t size);
void recv_all(int fd, void* data, std::size_t size);

// Runs this program as "--serve NAME", or another program, as a child that ends with its parent.
pid_t spawn(std::vector<std::string> const& command);
void end(pid_t child);

// Waits for a child that ends by itself; fails when it reports failure.
void wait_for(pid_t child);

[[noreturn]] void fail(char const* what);

#endif
