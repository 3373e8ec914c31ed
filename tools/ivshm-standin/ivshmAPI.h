/*
 * The four functions of a shared-memory transport between virtual machines, as libkyp uses them,
 * and what the stand-in in this folder makes of them. Plain C11 and C++17.
 *
 * A topic is one direction of a queue of whole messages and is known by its number. The stand-in
 * keeps each in POSIX shared memory of this machine, so that processes of one user play the virtual
 * machines.
 *
 * Threads  any. Calls on one handle may run at the same time; a handle that was closed meanwhile,
 * or never was one, is refused and never followed. Log      lines on standard error that begin with
 * "ivshm stand-in:".
 */
#ifndef KYP_TOOLS_IVSHM_STANDIN_IVSHMAPI_H
#define KYP_TOOLS_IVSHM_STANDIN_IVSHMAPI_H

#include <stdbool.h>

#if defined(__cplusplus)
extern "C" {
#endif

#define IVSHM_API __attribute__((visibility("default")))

/*
 * Opens a topic.
 * topic    from 0
 * mode     0 the server's side, 1 a client's; both may come first. It is told in the log, no more
 * returns  a handle that libivshmapi_uninit() closes, or null with a log line: no room in the
 *          shared memory, a negative number, a topic of another build
 *
 * Who opens a topic that nobody has open finds it empty; otherwise it holds what it held. The first
 * one decides its size: KYP_IVSHM_STANDIN_BYTES of the environment, 8 MiB by default.
 */
IVSHM_API void* libivshmapi_init(int topic, int mode);

/*
 * Puts one message of `size` bytes into the topic; they are copied.
 * timeoutMs  how long to wait for room, in milliseconds; 0 and below does not wait
 * returns    true when the message stands in the topic whole. False when the time was up, and at
 *            once for a message that the topic could never hold
 */
IVSHM_API bool libivshmapi_send(void* handle, unsigned long size, void* data, long timeoutMs);

/*
 * Takes one message out of the topic.
 * size       in: the room at `data`; out, on success: the message's length
 * timeoutMs  how long to wait for a message, in milliseconds; 0 and below does not wait
 * returns    true with one whole message. False when none came in time, and at once when the next
 *            one does not fit the room: it is dropped with a log line, as it would block all others
 */
IVSHM_API bool libivshmapi_recv(void* handle, unsigned long* size, void* data, long timeoutMs);

/*
 * Closes a handle; calls that wait on it return false. With its last user a topic goes away.
 */
IVSHM_API void libivshmapi_uninit(void* handle);

#if defined(__cplusplus)
}
#endif

#endif
