/*
 * The client interface of libkyp. Plain C11 and C++17.
 *
 *     libkyp_init();
 *     void* conn = libkyp_createInstance(&deviceId, KYP_CONN_TCP);
 *     libkyp_sync_send(conn, 600, group, offset, data, len, 1000);
 *     int n = libkyp_sync_recv(conn, &port, answer, sizeof answer, 1000);
 *     libkyp_releaseInstance(conn);
 *     libkyp_destory();
 *
 * Status   Every call sets the calling thread's status to 0 on entry, except libkyp_get_errno,
 *          libkyp_strerror, libkyp_createInstanceV2, KypSyncReadDeviceInfo, and libkyp_init and
 *          KypInit from their second call on.
 *          Calls that return a status return 0 or the code; calls that count bytes return -1 and
 *          leave the code to libkyp_get_errno(). The codes are those of kypcomm/KypStatus.h.
 * Handles  A handle names one connection. It is looked up and never followed, so a stale or
 *          foreign value is answered with KYP_ERR_HANDLE. A handle that one thread releases while
 *          another uses it is not protected.
 * Threads  Every call from any thread, several at once for different handles. For one handle the
 *          pair libkyp_sync_send and libkyp_sync_recv belongs to one thread at a time. A callback
 *          runs on its connection's receive thread and calls neither libkyp_releaseInstance nor
 *          libkyp_destory: they wait for that very thread. The scan callback runs on the scan
 * thread and may call anything. C++      Exceptions pass as they stand: std::bad_alloc,
 * std::system_error when a lock or a thread cannot be had, and what a single call names.
 */
#ifndef KYP_LIBKYP_LIBKYP_H
#define KYP_LIBKYP_LIBKYP_H

#include <assert.h>

#include "kypcomm/KypConnInfo.h"
#include "kypcomm/KypFileProgress.h"
#include "kypcomm/KypScanInfo.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/KypTypes.h"
#include "utils/Export.h"

static_assert(sizeof(_KypDeviceId) == 6, "the layout is the binary interface");
static_assert(sizeof(_KypDeviceAddr) == 8, "the layout is the binary interface");

#ifdef __cplusplus
extern "C" {
#endif

/* ---- version and status ---------------------------------------------------------------------- */

/*
 * Writes the library's version to three numbers, none of which may be null.
 * returns  0
 * thread   any
 */
KYP_API int libkyp_version(int* major, int* minor, int* patch);

/*
 * The calling thread's last status, a code of KypStatus; 0 in a new thread. Other threads, receive
 * threads among them, have their own.
 * thread   any, also from a callback
 */
KYP_API int libkyp_get_errno(void);

/*
 * The text of a status code.
 * returns  a static text, "Unknown error code" for every number without one; never null
 * thread   any, also from a callback
 */
KYP_API char const* libkyp_strerror(int code);

/* ---- start and end --------------------------------------------------------------------------- */

/*
 * Starts the library, before anything else but the calls above. The first call of the process logs
 * the version, sets the log threshold to LOG_LEVEL_DEBUG (1), fills the buffer pool, determines
 * this device's id and starts the scan thread "KypScan", which runs to the end of the process: it
 * lists the network interfaces about three times a second and sends nothing until
 * libkyp_startKypScan. Later calls do nothing, also after libkyp_destory.
 * returns  0
 * thread   any; who comes second waits for the first
 */
KYP_API int libkyp_init(void);

/*
 * Stops and releases every connection and frees the pooled buffers. All handles are void
 * afterwards. Waits for the receive threads, each for half a second or until its connection attempt
 * has ended. The rest of the library goes on, a scan too: new connections may be made without a
 * further libkyp_init, on buffers that are allocated as needed.
 * returns  0
 * thread   any but a callback's; no other call is under way on any handle, and no file transfer
 */
KYP_API int libkyp_destory(void);

/* ---- connections ----------------------------------------------------------------------------- */

/*
 * Makes a connection and starts its receive thread. A peer that cannot be reached still gives a
 * handle: the connection tries again every two seconds, and sends on it fail with
 * KYP_ERR_DISCONNECTED meanwhile.
 * id         the device, for KYP_CONN_TCP; copied. Not used otherwise and may then be null
 * connType   KYP_CONN_TCP, KYP_CONN_DOMAIN or KYP_CONN_DOMAIN_ALIAS
 * timeoutMs  how long the call waits for a TCP peer; below 100 counts as 100
 * event      told of changes in the link, or null; also called by this very call, before it
 *            returns. Never called for a Unix-domain connection
 * ctx        handed to `event`
 * returns    the handle, to be given back by libkyp_releaseInstance or libkyp_destory; null with
 *            libkyp_get_errno() at
 *              KYP_ERR_PARAM      no `id` for a TCP connection
 *              KYP_ERR_CONN_TYPE  unknown `connType`, and KYP_CONN_NONE
 *              KYP_ERR_PROTOCOL   KYP_CONN_IVSHM, which is for libkyp_createInstanceV2 only
 * thread     any but a callback's
 */
KYP_API void* libkyp_createInstanceEx(_KypDeviceId* id, int connType, int timeoutMs,
                                      KypConnEvent event, void* ctx);

/*
 * libkyp_createInstanceEx with a `timeoutMs` of 1500 and no callback.
 */
KYP_API void* libkyp_createInstance(_KypDeviceId* id, int connType);

/*
 * Makes a connection from the record of its transport; otherwise as libkyp_createInstanceEx.
 * The calling thread's status is left as it was when the call succeeds.
 * connType   any KypConnType
 * info       KypTcpConnInfo, KypDomainConnInfo or KypIvshmConnInfo; read during the call
 * infoSize   its exact size
 * returns    the handle; null with libkyp_get_errno() at
 *              KYP_ERR_PARAM             `infoSize` does not fit, or there is no record; a
 *                                        Unix-domain connection needs none
 *              KYP_ERR_PROTOCOL          KYP_CONN_NONE
 *              KYP_ERR_IVSHM_GROUP       KYP_CONN_IVSHM: no such group
 *              KYP_ERR_CLIENT_LIMIT      KYP_CONN_IVSHM: the group has 32 connections
 *              what it was before        KYP_CONN_IVSHM: the group's topics are not open
 *              KYP_ERR_CONN_TYPE         any other number
 * thread     any but a callback's
 */
KYP_API void* libkyp_createInstanceV2(int connType, void* info, int infoSize, int timeoutMs);

/*
 * Stops a connection and frees it; the handle is void afterwards. Waits for its receive thread.
 * returns  KYP_ERR_HANDLE in every case, also when the connection was released
 * thread   any but a callback's; nobody else uses the handle
 */
KYP_API int libkyp_releaseInstance(void* handle);

/*
 * Sets how long the connection waits from one attempt to the next after its link was lost, and lets
 * it reconnect.
 * intervalSec  whole seconds, 2 at start; 0 or below for an attempt in each round, about 100 ms
 * returns      0, or KYP_ERR_HANDLE
 * thread       any
 */
KYP_API int libkyp_reconnect_delay_set(void* handle, int intervalSec);

/*
 * Connects once more, on the calling thread; the connection's callback is called from here.
 * timeoutMs  how long the call waits for a TCP peer; below 50 counts as 50
 * returns    1 when connected, 0 when not; for an unknown handle 0 with libkyp_get_errno() at
 *            KYP_ERR_HANDLE
 * thread     any
 */
KYP_API int libkyp_reconnect(void* handle, int timeoutMs);

/*
 * Starts the connection's receive thread again after libkyp_loop_stop. A new connection's thread
 * runs already; on a running one nothing happens.
 * returns  0, or KYP_ERR_HANDLE
 * thread   any but a callback's
 */
KYP_API int libkyp_loop_start(void* handle);

/*
 * Stops the connection's receive thread and waits for it. The link stays open and nothing is read
 * from it.
 * returns  0, or KYP_ERR_HANDLE
 * thread   any but a callback's
 */
KYP_API int libkyp_loop_stop(void* handle);

/* ---- messages -------------------------------------------------------------------------------- */

/*
 * Sends a request to a logical port of the peer; libkyp_sync_recv fetches the answer. An answer of
 * an earlier request that was not waited for is dropped.
 * port         1 to 4096; a peer closes the link on any other
 * indexGroup, indexOffset  the operation, as the peer's service defines it
 * data, len    copied before the call returns; `data` may be null when `len` is 0
 * timeoutMs    how long the call waits for room to send
 * returns      bytes sent, heads included: `len` + 29; or -1 with libkyp_get_errno() at
 *                KYP_ERR_HANDLE        unknown handle
 *                KYP_ERR_INPUT_PARAM   `len` without `data`
 *                KYP_ERR_DISCONNECTED  the link is down
 *                0                     the request 500 before this one still waits for its answer,
 *                                      or the time was up with a part of the frame sent
 *                any other             the system's errno of the failed send
 * thread       one thread at a time per handle
 */
KYP_API int libkyp_sync_send(void* handle, unsigned short port, unsigned int indexGroup,
                             unsigned int indexOffset, void* data, unsigned int len, int timeoutMs);

/*
 * Waits for the answer to the last libkyp_sync_send and hands out its payload. When the answer was
 * fetched already, hands out what is left of it, without a wait. The wait begins within one second
 * of the send: an answer that comes later than that with nobody waiting is refused.
 * port       receives the answer's logical port when there are bytes to hand out; may be null
 * buf, len   where the payload goes; a longer payload stays for the next call
 * timeoutMs  how long the call waits
 * returns    bytes written to `buf`; or -1 with libkyp_get_errno() at
 *              KYP_ERR_HANDLE        unknown handle
 *              KYP_ERR_INPUT_PARAM   `len` without `buf`, or a negative one; nothing is lost
 *              KYP_ERR_NO_REQUEST    nothing was sent on this handle yet
 *              KYP_ERR_RECV_TIMEOUT  no answer in time; a late one goes to the route of its port
 *              any other             the peer's own code; the payload, if any, is in `buf`
 * thread     the one that sent
 */
KYP_API int libkyp_sync_recv(void* handle, unsigned short* port, char* buf, int len, int timeoutMs);

/*
 * Has messages for a logical port that answer no request handed to `cb` from now on.
 * port     501 and above
 * cb       may register and unregister routes itself
 * ctx      handed to `cb`; stays valid until the connection is released, since a call may still
 *          be under way when the route is taken away
 * returns  0; KYP_ERR_PORT_RESERVED for a port below 501, before the handle is looked at;
 *          KYP_ERR_HANDLE; KYP_ERR_ROUTE_REGISTERED when the port has a route
 * thread   any, also from a callback
 */
KYP_API int libkyp__registerRouterEvent(void* handle, unsigned short port, KypRouteCallback cb,
                                        void* ctx);

/*
 * Takes a route away. Ports below 501 are not protected: without the route of port 103 the
 * connection's subscriptions fall silent.
 * returns  0; KYP_ERR_HANDLE; KYP_ERR_ROUTE_REGISTERED when the port has no route
 * thread   any, also from a callback
 */
KYP_API int libkyp__unregisterRouterEvent(void* handle, unsigned short port);

/*
 * Sends a message to everybody who has subscribed to a topic. Nothing is kept for later: a publish
 * while the link is down is lost.
 * indexGroup, indexOffset  handed to the subscribers as they are
 * topic      a text; null throws std::logic_error
 * data, len  copied before the call returns; `data` may be null when `len` is 0
 * returns    0; KYP_ERR_HANDLE; KYP_ERR_INPUT_PARAM for `len` without `data`;
 *            KYP_ERR_PACKET_TOO_LONG when `len`, the topic and 77 exceed 0x5fffff;
 *            KYP_ERR_DISCONNECTED when the link is down
 * thread     any
 */
KYP_API int libkyp_publish(void* handle, unsigned int indexGroup, unsigned int indexOffset,
                           char const* topic, char const* data, unsigned int len);

/*
 * Has messages of a topic handed to `cb` from now on. The subscription is entered also when it
 * could not be sent; it is sent anew after each reconnection. A second one for a topic replaces the
 * first.
 * topic    a text; null throws std::logic_error
 * ctx      handed to `cb`; stays valid until the connection is released, since a call may still be
 *          under way when the subscription ends
 * returns  0; KYP_ERR_HANDLE; KYP_ERR_PACKET_TOO_LONG; KYP_ERR_DISCONNECTED when the link is down
 * thread   any, also from a callback
 */
KYP_API int libkyp_subscribe(void* handle, char const* topic, KypTopicCallback cb, void* ctx);

/*
 * Ends a subscription.
 * topic    a text; null throws std::logic_error
 * returns  0; KYP_ERR_HANDLE; KYP_ERR_TOPIC when the topic was not subscribed;
 *          KYP_ERR_DISCONNECTED when the link is down: the subscription has ended here all the same
 * thread   any, also from a callback
 */
KYP_API int libkyp_unsubscribe(void* handle, char const* topic);

/* ---- identity -------------------------------------------------------------------------------- */

/*
 * Makes a device id of its text, six decimal numbers with dots: "192.168.1.10.1.1".
 * text     each number counts with its low eight bits. Null is bad text
 * out      receives the id, all zero for bad text; may be null
 * returns  0, also for bad text: a zero id is the only sign
 * thread   any
 */
KYP_API int libkyp_makeKypDeviceId(char const* text, _KypDeviceId* out);

/*
 * Makes a device address of an id's text and a logical port.
 * out      receives both; untouched when `text` does not have six fields. May be null
 * returns  0, also for bad text
 * thread   any
 */
KYP_API int libkyp_makeKypDeviceAddr(char const* text, unsigned short port, _KypDeviceAddr* out);

/*
 * Asks the device at an IPv4 address for its id, by one datagram to UDP port 38898. Connections to
 * that id go to `host` from now on.
 * host       an IPv4 address as text
 * timeoutMs  how long the call waits for the answer
 * out        receives the id; untouched when the call fails
 * returns    0, or
 *              KYP_ERR_INPUT_PARAM    no `out` or no `host`
 *              KYP_ERR_SEND           the datagram could not be sent
 *              KYP_ERR_RECV_TIMEOUT   no answer in time
 *              KYP_ERR_HEADER_LENGTH, KYP_ERR_PACKET_TOO_SHORT, KYP_ERR_INVOKE_ID  a bad answer;
 *                                     libkyp_get_errno() stays 0 on these and on the next
 *              any other              the device's own code
 * thread     any
 */
KYP_API int libkyp_getRemoteKypDeviceId(char const* host, int timeoutMs, _KypDeviceId* out);

/*
 * Gives the device at an IPv4 address a new id. Connections to that id go to `host` from now on.
 * deviceIdText  as for libkyp_makeKypDeviceId; bad text assigns the id 0.0.0.0.0.0
 * returns       as libkyp_getRemoteKypDeviceId; KYP_ERR_INPUT_PARAM for no `host` or no text
 * thread        any
 */
KYP_API int libkyp_setRemoteKypDeviceId(char const* host, char const* deviceIdText, int timeoutMs);

/*
 * This device's own id; all zero while it cannot be determined. Connections to it go to the
 * loopback from now on.
 * returns  0, or KYP_ERR_INPUT_PARAM for no `out`
 * thread   any
 */
KYP_API int libkyp_getLocalKypDeviceId(_KypDeviceId* out);

/* ---- device scan ----------------------------------------------------------------------------- */

/*
 * Finds the devices of the local networks. While the scan is open, a request leaves every second on
 * each usable interface, to 239.255.0.3 port 38897 and to 255.255.255.255 port 38896, and devices
 * answer. Interfaces that come later or change their address are taken in.
 *
 *     libkyp_init();
 *     libkyp_registerKypScanEvent(on_device, &found);
 *     libkyp_startKypScan();
 *     sleep(3);
 *     libkyp_stopKypScan();
 *
 * Requests and answers are neither encrypted nor signed: on a network that is not trusted anybody
 * may answer in the name of any device.
 */

/*
 * Has the answers of devices handed to `cb` from now on. Each one is also entered for its device
 * id, so that connections to the id go to the address that answered; without a callback nothing is
 * entered.
 * cb       one for the whole process, the last one counts; null for none
 * user     handed to `cb`; stays valid for good, since a call may still be under way when another
 *          callback takes its place
 * returns  0
 * thread   any, also from the callback
 */
KYP_API int libkyp_registerKypScanEvent(KypScanCallback cb, void* user);

/*
 * Opens the scan. The first request leaves within about a second, when libkyp_init was called; the
 * scan thread starts there. Answers that came while the scan was shut are read now.
 * returns  0, also on a scan that is open
 * thread   any, also from the callback
 */
KYP_API int libkyp_startKypScan(void);

/*
 * Shuts the scan: no request is sent and no answer is reported. A round or a call of the callback
 * that has begun on the scan thread is not waited for. libkyp_destory leaves the scan as it is.
 * returns  0, also on a scan that is shut
 * thread   any, also from the callback
 */
KYP_API int libkyp_stopKypScan(void);

/* ---- simple requests ------------------------------------------------------------------------- */

/*
 * These calls name a device and need no handle. The first request to a device makes a TCP
 * connection, which takes up to 1500 ms; it serves all later requests of the process and ends with
 * libkyp_destory, behind which no further request is made.
 *
 *     _KypDeviceId id;
 *     KypInit();
 *     KypGetRemoteDeviceId("192.168.1.10", &id, 1000);
 *     int status = KypSyncReadReq(id, 600, group, offset, sizeof answer, answer, &size, 1000);
 */

/*
 * libkyp_init under another name.
 */
KYP_API int KypInit(void);

/*
 * libkyp_getLocalKypDeviceId under another name.
 */
KYP_API int KypGetLocalDeviceId(_KypDeviceId* out);

/*
 * libkyp_getRemoteKypDeviceId with its last two arguments in each other's place.
 */
KYP_API int KypGetRemoteDeviceId(char const* host, _KypDeviceId* out, int timeoutMs);

/*
 * libkyp_makeKypDeviceId under another name.
 */
KYP_API int KypMakeDeviceId(char const* text, _KypDeviceId* out);

/*
 * Sends a read request to a logical port of a device and waits for the answer.
 * port         1 to 4096; a peer closes the link on any other
 * indexGroup, indexOffset  what to read, as the device's service defines it
 * readBuf      receives the answer's payload, its first `readLen` bytes if it is longer; null drops
 *              it. An answer with an error has its payload, if any, copied too
 * recvLen      receives the payload's full size, which may be more than `readLen`; 0 without an
 *              answer; may be null
 * timeoutMs    how long the call waits for the answer, from the moment before it connects and
 *              sends; those have their own limits of 1500 and 3000 ms
 * returns      0, or
 *                KYP_ERR_RECV_TIMEOUT  no answer in time; a late one is dropped
 *                -1                    not sent, with libkyp_get_errno() at
 *                                        KYP_ERR_DISCONNECTED  the link is down; it is tried again
 *                                                              every two seconds
 *                                        0                     the request 500 before this one on
 *                                                              the connection still waits, or the
 *                                                              time was up with a part sent
 *                                        any other             errno of the failed send
 *                any other             the device's own code
 * thread       any but a callback's; several at once, also for one device
 */
KYP_API int KypSyncReadReq(_KypDeviceId id, unsigned short port, unsigned int indexGroup,
                           unsigned int indexOffset, unsigned int readLen, void* readBuf,
                           unsigned int* recvLen, int timeoutMs);

/*
 * Sends a write request and waits for the answer, whose payload is dropped. Otherwise as
 * KypSyncReadReq.
 * writeBuf  `writeLen` bytes, only read, copied before the request is sent; may be null when
 *           `writeLen` is 0
 * returns   as KypSyncReadReq; KYP_ERR_INPUT_PARAM for `writeLen` without `writeBuf`
 */
KYP_API int KypSyncWriteReq(_KypDeviceId id, unsigned short port, unsigned int indexGroup,
                            unsigned int indexOffset, unsigned int writeLen, void* writeBuf,
                            int timeoutMs);

/*
 * Sends a request with data and waits for the answer with its own. `readLen`, `readBuf` and
 * `recvLen` as for KypSyncReadReq, `writeLen` and `writeBuf` as for KypSyncWriteReq. The two
 * buffers may be the same.
 */
KYP_API int KypSyncReadWriteReq(_KypDeviceId id, unsigned short port, unsigned int indexGroup,
                                unsigned int indexOffset, unsigned int readLen, void* readBuf,
                                unsigned int writeLen, void* writeBuf, unsigned int* recvLen,
                                int timeoutMs);

/*
 * Does nothing.
 * returns  0
 */
KYP_API int KypSyncReadDeviceInfo(void);

/* ---- file transfer --------------------------------------------------------------------------- */

/*
 * Sends a file to a device, in the background and behind all transfers that are under way: one
 * worker of the process sends them one at a time, 8192 bytes an exchange. The first transfer to a
 * device makes a TCP connection, which takes up to 1500 ms of this call; it serves all later
 * transfers to that device and ends with libkyp_destory, behind which none succeeds.
 *
 *     static int on_progress(_KypDeviceId id, int transferId, float progress, int error, int state,
 *                            void* user) {
 *         return error == KYP_OK ? 0 : -1;
 *     }
 *     KypFileTransfer(addr, 0, 0, "/tmp/image.bin", "image.bin", on_progress, NULL);
 *
 * addr         the device, and the logical port on which it takes files
 * indexGroup, indexOffset  not used
 * localPath    the file, up to 255 bytes of path; opened now, read while it is sent. Its size
 *              counts in 32 bits: a file of 4 GiB or more is announced with a wrong one
 * remotePath   where the device is to put it, up to 255 bytes, as that device understands it. Both
 *              texts are copied; null stands for an empty one
 * callback     told of every step, also by this very call, before it returns; may be null. Its
 *              result of -1 to any report ends the transfer, and it must answer so to a first
 *              report with an error: a transfer whose file cannot be opened never ends by itself,
 *              keeps the worker busy and all others waiting. A device's refusal does not end a
 *              transfer either, and a file that cannot be read to its end is sent as far as it
 *              goes: KYP_FILE_FINISHED in the last report alone means success
 * user         handed to `callback`; stays valid for as long as reports come
 * returns      the number of the transfer, 0 for the first one of the process; failures are told
 *              to `callback` alone
 * thread       any, also from `callback`; not from a callback of a connection
 */
KYP_API unsigned int KypFileTransfer(_KypDeviceAddr addr, unsigned int indexGroup,
                                     unsigned int indexOffset, char const* localPath,
                                     char const* remotePath, KypFileCallback callback, void* user);

#ifdef __cplusplus
}
#endif

#endif
