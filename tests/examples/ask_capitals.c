/* Sends "hello" to port 600 of the device on this host and prints the answer. */
#include <stdio.h>

#include "libkyp/libkyp.h"

int main(void) {
    _KypDeviceId id = {{127, 0, 0, 1, 1, 1}};
    unsigned short port = 0;
    char request[] = "hello";
    char answer[64];

    libkyp_init();
    void* device = libkyp_createInstance(&id, 0);
    if (device == NULL) return 1;
    if (libkyp_sync_send(device, 600, 0, 0, request, sizeof request - 1, 5000) < 0) return 1;
    int const size = libkyp_sync_recv(device, &port, answer, sizeof answer, 5000);
    if (size < 0) return 1;
    printf("port %u answers: %.*s\n", (unsigned)port, size, answer);
    libkyp_releaseInstance(device);
    return libkyp_destory();
}
