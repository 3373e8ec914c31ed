/*
 * The component interface of libkyp. Plain C11 and C++17.
 *
 * A component is an application that registers under a name with the kypserver of its machine,
 * serves logical ports and topics, and answers the clients that the server leads to it.
 *
 *     int err = 0;
 *     tagCmpDrvInfo info = {0, 0, "drive0"};
 *     libkypcmp_init();
 *     void* cmp = libkypcmp_register(&info, NULL, NULL, &err);
 *     if (cmp == NULL) return 1;
 *     libkypcmp_getconfig(cmp)->...             the client callbacks, if wanted
 *     libkypcmp_addrouter(cmp, 600, on_request, NULL);
 *     libkypcmp_subscribe(cmp, "limits", on_limits, NULL);
 *     libkypcmp_loop_start(cmp);
 *     ...                                       serve, until the process ends
 *
 * Order    As above: ports and topics before libkypcmp_loop_start, or later from a callback.
 *          libkypcmp_addrouter from another thread would take the started component's frames away
 *          from it.
 * The end  Nothing ends a started component but the end of its process. libkypcmp_loop_stop,
 *          libkypcmp_destory and libkypcmp_finit wait for its receive thread, which does not end,
 *          so on a started component THESE THREE NEVER RETURN, and behind libkypcmp_destory and
 *          libkypcmp_finit no call with a handle does, on any thread. An application that has
 *          called libkypcmp_loop_start returns from main, or calls exit() or _exit(); the server
 *          finds the link closed and frees the name, the ports and the topics. On a component that
 *          was never started the three work as told with them.
 * Status   Every call sets the calling thread's status to 0 on entry, except libkypcmp_get_errno,
 *          libkypcmp_strerror and libkypcmp_finit. The codes are those of kypcomm/KypStatus.h.
 * Handles  A handle names one component. It is looked up and never followed, so a stale or foreign
 *          value is answered with KYP_ERR_HANDLE. A handle that one thread destroys while another
 *          uses it is not protected.
 * Threads  All callbacks of a component run on its receive thread, one at a time; the next frame
 *          waits for them. A callback calls none of the three above. A component that finds its
 *          link lost tries to connect again, no more often than every three seconds, and then
 *          registers its name, ports and topics anew.
 * Shared memory  A component with ivshm_enable=true in its settings also serves the requests of
 *          another virtual machine, from libkypcmp_register on, each port as soon as it is added;
 *          a request that comes before is lost. Its routes are then called on the thread of that
 *          channel too, beside the receive thread; the client callbacks are not, such clients come
 *          and go unseen. Without the transport the component works as if it were not enabled, and
 *          the log tells.
 * C++      Exceptions pass as they stand: std::bad_alloc, std::system_error when a lock or a
 *          thread cannot be had, and what a single call names. Callbacks throw none.
 */
#ifndef KYP_LIBKYP_LIBKYPCMP_H
#define KYP_LIBKYP_LIBKYPCMP_H

#include "kypcomm/KypCmpTypes.h"
#include "kypcomm/KypConnInfo.h"
#include "kypcomm/KypMsgRequest.h"
#include "kypcomm/KypStatus.h"
#include "utils/Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- start ----------------------------------------------------------------------------------- */

/*
 * Starts the component side of the library, before anything else here. Each call logs the version,
 * sets the log threshold to LOG_LEVEL_DEBUG (1) and counts a user, to be taken away by
 * libkypcmp_finit. The first call of the process also fills the buffer pool, makes
 * "/var/tmp/kyp/" and "/var/tmp/kyp/cmp/", reads "/opt/kyp/libkyp.ini" and has port 100 echo. A
 * file that cannot be read is logged, and the defaults apply.
 * returns  0
 * thread   any; who comes second waits for the first
 */
KYP_API int libkypcmp_init(void);

/*
 * Makes a component and tries to register its name with the server. A server that is away is no
 * obstacle: the component comes all the same and is registered with the first connection that it
 * makes once it is started. So the handle tells whether the call worked, and `*err` whether the
 * server knows of it.
 * info      copied. Its name has one to 31 characters of a-z, A-Z, 0-9, '_' and '-'. The section of
 *           that name in "/opt/kyp/libkyp.ini" holds the component's settings
 * callback, arg  stored and not used; may be null
 * err       receives a status, never null:
 *             0 with a handle            registered
 *             any other with a handle    not registered: KYP_ERR_SERVER_OFFLINE when the server
 *                                        cannot be reached, KYP_ERR_DISCONNECTED when it closed,
 *                                        KYP_ERR_RECV_TIMEOUT when it did not answer within five
 *                                        seconds, or the server's own code. On the last two the
 *                                        link stays, and so does the component without its name
 *             KYP_ERR_INPUT_PARAM        no `info`; libkypcmp_get_errno() gives 0 here
 *             KYP_ERR_COMPONENT_NAME     a bad name, also one without its NUL
 *             KYP_ERR_COMPONENT_NAME_TAKEN  another component has the name; it is not disturbed
 * returns   the handle, or null with the last three. It stays valid until libkypcmp_destory or
 *           libkypcmp_finit
 * thread    any but a callback's. Waits for a server that does not accept, and up to five seconds
 *           for one that does not answer
 */
KYP_API void* libkypcmp_register(tagCmpDrvInfo* info, KypCmpCallback callback, void* arg, int* err);

/*
 * The record that holds a component's client callbacks, for the application to fill before
 * libkypcmp_loop_start. onDisconnect is called only while onConnect is set, and a set onConnect has
 * it called also when it is null: set both or neither.
 * returns  the record, which belongs to the component and lives as long as it; null with
 *          libkypcmp_get_errno() at KYP_ERR_HANDLE
 * thread   any, before the component is started
 */
KYP_API CmpConnConfig* libkypcmp_getconfig(void* handle);

/*
 * Serves a logical port: requests for it are handed to `callback` from now on, once the component
 * is started. The ports of all components of a process are one table, and a port stays taken in it
 * until the process ends, also when the server refused it or the component was destroyed.
 * port      501 to 4096; counts with its low 16 bits once it is above 500
 * callback  answers with libkypcmp_send; null swallows the requests
 * user      handed to `callback`; stays valid until the process ends
 * returns   0, or
 *             KYP_ERR_PORT_RESERVED     a port below 501, before the handle is looked at, and one
 *                                       above 4096
 *             KYP_ERR_HANDLE            unknown handle
 *             KYP_ERR_ROUTE_REGISTERED  the port is taken: in this process, or at the server, which
 *                                       is not asked again
 *             KYP_ERR_DISCONNECTED      the link is down
 *             KYP_ERR_RECV_TIMEOUT      no answer from the server within five seconds
 *             any other                 the server's own code, or that of a frame that was none
 *           On all but the first three the port is registered again with the next reconnect.
 * thread    the one that will start the component, before it does; or a callback
 */
KYP_API int libkypcmp_addrouter(void* handle, unsigned int port, KypSvrRoute callback, void* user);

/*
 * Starts the component: its receive thread connects, registers what is not registered yet, reads
 * requests and messages and calls the callbacks. From here on the component ends with its process
 * only; see "The end". On a started component nothing happens.
 * returns  0, or KYP_ERR_HANDLE
 * thread   any but a callback's
 */
KYP_API int libkypcmp_loop_start(void* handle);

/* ---- traffic --------------------------------------------------------------------------------- */

/*
 * Answers a request, at once or later: a client that gets no answer runs into its own timeout. What
 * is still open for a client is dropped in onDisconnect: a later answer goes out under the number
 * of whoever has its place by then.
 * port      as the route got it
 * data      `length` bytes, copied before the call returns; may be null when `length` is 0
 * request   as the route got it, or a copy. A code in its `error` reaches the client as the status
 *           of the answer
 * reserved  not read
 * err       receives the status, never null:
 *             KYP_ERR_INPUT_PARAM      `length` without `data`, or a request without `conn`
 *             KYP_ERR_PACKET_TOO_LONG  2 GiB and more. Clients accept 0x5fffff bytes with the heads
 *             KYP_ERR_SEND             the link is down, or had no room for the whole answer within
 *                                      a second
 *             KYP_ERR_DISCONNECTED     the link has no descriptor any more
 * returns   what the connection's send_message returned: `length` for a client of a component, 0
 *           for one of a server's sockets or of shared memory; -1 with a status in `*err`
 * thread    any, also from a callback
 */
KYP_API int libkypcmp_send(unsigned short port, char const* data, unsigned int length,
                           _msg_request request, void* reserved, int* err);

/*
 * Sends a message to everybody who has subscribed to a topic. Nothing is kept for later: a publish
 * while the link is down is lost.
 * indexGroup, indexOffset  handed to the subscribers as they are
 * topic         a text; null throws std::logic_error
 * data, length  copied before the call returns; `data` may be null when `length` is 0
 * returns       0 for every known handle, or KYP_ERR_HANDLE. A message that was not sent shows in
 *               libkypcmp_get_errno() only:
 *                 KYP_ERR_INPUT_PARAM      `length` without `data`
 *                 KYP_ERR_PACKET_TOO_LONG  `length`, the topic and 77 exceed 0x5fffff
 *                 KYP_ERR_DISCONNECTED     the link is down
 *                 KYP_ERR_SEND_TIMEOUT     no room to send it whole within five seconds
 *                 any other                the system's errno of the failed send
 * thread        any, also from a callback
 */
KYP_API int libkypcmp_publish(void* handle, unsigned int indexGroup, unsigned int indexOffset,
                              char const* topic, char const* data, unsigned int length);

/*
 * Has messages of a topic handed to `callback` from now on, once the component is started. The
 * subscription is entered also when it could not be sent; it is sent anew with each reconnection. A
 * second one for a topic replaces the first.
 * topic    a text; null throws std::logic_error
 * user     handed to `callback`; stays valid until the process ends
 * returns  0 for every known handle, or KYP_ERR_HANDLE. That it was not sent shows in
 *          libkypcmp_get_errno() only, with the codes of libkypcmp_publish
 * thread   the one that will start the component, before it does; or a callback
 */
KYP_API int libkypcmp_subscribe(void* handle, char const* topic, KypTopicCallback callback,
                                void* user);

/*
 * Ends a subscription.
 * topic    a text; null throws std::logic_error
 * returns  0 for every known handle, or KYP_ERR_HANDLE. libkypcmp_get_errno() gives KYP_ERR_TOPIC
 *          when the topic was not subscribed, and the codes of libkypcmp_publish when the server
 *          could not be told: here the subscription has ended all the same
 * thread   as for libkypcmp_subscribe
 */
KYP_API int libkypcmp_unsubscribe(void* handle, char const* topic);

/* ---- end ------------------------------------------------------------------------------------- */

/*
 * Stops a component. ON A STARTED COMPONENT THE CALL NEVER RETURNS, see "The end"; on any other
 * there is nothing to stop.
 * returns  0, or KYP_ERR_HANDLE
 * thread   any but a callback's
 */
KYP_API int libkypcmp_loop_stop(void* handle);

/*
 * Destroys a component and closes its link; the handle is void afterwards. The server frees its
 * name, ports and topics. ON A STARTED COMPONENT THE CALL NEVER RETURNS, and neither does any later
 * one with a handle, see "The end".
 * returns  0; KYP_ERR_HANDLE for an unknown handle, and for a component that had a shared-memory
 *          group, which stays open until the process ends
 * thread   any but a callback's; nobody else uses the handle
 */
KYP_API int libkypcmp_destory(void* handle);

/*
 * Destroys all components of the process and takes one user of libkypcmp_init away; with the last
 * one the event loops and the worker threads of the process stop for good, those of a server
 * program too. Not to be called more often than libkypcmp_init. WITH A STARTED COMPONENT THE CALL
 * NEVER RETURNS, see "The end". A later libkypcmp_init makes components possible again.
 * returns  0
 * thread   any but a callback's; nobody else uses any handle
 */
KYP_API int libkypcmp_finit(void);

/* ---- status ---------------------------------------------------------------------------------- */

/*
 * The calling thread's last status, a code of KypStatus; 0 in a new thread. Other threads, receive
 * threads among them, have their own.
 * thread   any, also from a callback
 */
KYP_API int libkypcmp_get_errno(void);

/*
 * The text of a status code.
 * returns  a static text, "Unknown error code" for every number without one; never null
 * thread   any, also from a callback
 */
KYP_API char const* libkypcmp_strerror(int code);

#ifdef __cplusplus
}
#endif

#endif
