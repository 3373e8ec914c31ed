// A component that answers with what it gets. A started component ends with its process only, so it
// is a process of its own: this program, called with "--serve FD".
#ifndef KYP_BENCH_COMPONENT_ECHOCOMPONENT_H
#define KYP_BENCH_COMPONENT_ECHOCOMPONENT_H

#include <sys/types.h>

constexpr unsigned short kComponentPort = 600;

// Starts the process. Returns when the server, which runs, leads clients to it.
pid_t start_echo_component();

// The process's body. Writes a byte to `readyFd` when it is registered; does not return.
int serve_echo_component(int readyFd);

#endif
