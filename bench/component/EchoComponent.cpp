#include "component/EchoComponent.h"

#include <unistd.h>

#include <string>

#include "common/Sockets.h"
#include "libkyp/libkypCmp.h"

namespace {

void answer(unsigned short port, char const* data, unsigned int size, _msg_request request, void*) {
    int error = 0;
    libkypcmp_send(port, data, size, request, nullptr, &error);
}

}  // namespace

pid_t start_echo_component() {
    int ready[2];
    if (pipe(ready) != 0) fail("pipe");
    pid_t const component = spawn({"/proc/self/exe", "--serve", std::to_string(ready[1])});
    close(ready[1]);
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1) fail("the component is not registered");
    close(ready[0]);
    return component;
}

int serve_echo_component(int readyFd) {
    tagCmpDrvInfo info = {0, 0, "bench"};
    int error = 0;
    libkypcmp_init();
    void* const component = libkypcmp_register(&info, nullptr, nullptr, &error);
    if (component == nullptr || error != 0) fail("libkypcmp_register");
    if (libkypcmp_addrouter(component, kComponentPort, answer, nullptr) != 0) {
        fail("libkypcmp_addrouter");
    }
    libkypcmp_loop_start(component);
    if (write(readyFd, "r", 1) != 1) fail("write");
    for (;;) pause();
}
