// Where the figures come from and where they go.
#ifndef KYP_BENCH_COMMON_MACHINE_H
#define KYP_BENCH_COMMON_MACHINE_H

#include <cstdio>

// A stream to this process's standard output, which itself goes to /dev/null from now on: the
// library's log has it. With `fd` at 0 or more, a stream to that descriptor.
FILE* take_output(int fd = -1);

void print_machine(FILE* out);

// Children inherit it, so it is set before the servers start.
void use_processors(int count);

#endif
