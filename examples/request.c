/*
 * Asks the device on this host who it is, connects to it and sends one request to its echo port.
 * Run kypserver first, then: example_request
 * Among the library's log lines appears: port 100 answers: hello
 */
#include <stdio.h>

#include "libkyp/libkyp.h"

static int report(char const* what) {
    int const code = libkyp_get_errno();
    fprintf(stderr, "%s: %s (0x%x)\n", what, libkyp_strerror(code), (unsigned)code);
    return 1;
}

int main(void) {
    _KypDeviceId id;
    unsigned short port = 0;
    char request[] = "hello";
    char answer[64];

    libkyp_init();
    if (libkyp_getRemoteKypDeviceId("127.0.0.1", 1000, &id) != 0) return report("no device");

    void* device = libkyp_createInstance(&id, 0);
    if (device == NULL) return report("no connection");

    if (libkyp_sync_send(device, 100, 0, 0, request, sizeof request - 1, 1000) < 0) {
        return report("not sent");
    }
    int const size = libkyp_sync_recv(device, &port, answer, sizeof answer, 1000);
    if (size < 0) return report("no answer");
    printf("port %u answers: %.*s\n", (unsigned)port, size, answer);

    libkyp_releaseInstance(device);
    return libkyp_destory();
}
