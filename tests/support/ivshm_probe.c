/* A transport that moves nothing: it tells what it was asked. A function may be left out. */
#include <stdbool.h>
#include <stddef.h>

struct IvshmProbeCall {
    void* handle;
    unsigned long size;
    void* data;
    long timeoutMs;
};

/* What the latest send, recv or uninit was given. */
struct IvshmProbeCall ivshm_probe_call;

#ifndef WITHOUT_INIT
/* The handle tells topic and mode: 0x5000 + 16 * topic + mode. */
void* libivshmapi_init(int topic, int mode);
void* libivshmapi_init(int topic, int mode) {
    return (void*)(size_t)(0x5000 + 16 * topic + mode);
}
#endif

#ifndef WITHOUT_SEND
bool libivshmapi_send(void* handle, unsigned long size, void* data, long timeoutMs);
bool libivshmapi_send(void* handle, unsigned long size, void* data, long timeoutMs) {
    ivshm_probe_call = (struct IvshmProbeCall){handle, size, data, timeoutMs};
    return timeoutMs > 0;
}
#endif

#ifndef WITHOUT_RECV
/* Gives messages of 7 bytes. */
bool libivshmapi_recv(void* handle, unsigned long* size, void* data, long timeoutMs);
bool libivshmapi_recv(void* handle, unsigned long* size, void* data, long timeoutMs) {
    ivshm_probe_call = (struct IvshmProbeCall){handle, *size, data, timeoutMs};
    *size = 7;
    return timeoutMs > 0;
}
#endif

#ifndef WITHOUT_UNINIT
void libivshmapi_uninit(void* handle);
void libivshmapi_uninit(void* handle) {
    ivshm_probe_call = (struct IvshmProbeCall){handle, 0, NULL, 0};
}
#endif
