/*
 * One request as a route sees it, and the route itself. Plain C11 and C++17.
 *
 * The same record serves a server program's routes and a component's.
 */
#ifndef KYP_KYPCOMM_KYPMSGREQUEST_H
#define KYP_KYPCOMM_KYPMSGREQUEST_H

#include <assert.h>
#include <stdint.h>

/* The peer that a route answers on. In C nothing but an address. */
#ifdef __cplusplus
class IConnection;
#else
typedef struct IConnection IConnection;
#endif

/* Host order, passed by value. A route that answers later keeps a copy. */
typedef struct __attribute__((packed)) _msg_request {
    uint8_t version;      /* of the frame's head: 1 */
    uint16_t cmd;         /* goes back in the answer: 2 read, 4 write, 9 read and write */
    uint32_t invokeId;    /* goes back in the answer */
    uint32_t indexGroup;  /* the operation; 0 when the frame had no room for it */
    uint32_t indexOffset; /* the same */
    uint32_t error;       /* 0 in a request; what stands here goes back in the answer */
    IConnection* conn;    /* where to answer; not owned */
} _msg_request;
static_assert(sizeof(_msg_request) == 27, "the layout is the binary interface");

#ifdef __cplusplus
extern "C" {
#endif

/*
 * A svr route: takes a request for a logical port.
 * port     the one that the route is registered for
 * data     the `size` bytes behind the heads; valid during the call
 * request  what the answer needs, see above
 * ctx      as given when the route was registered
 */
typedef void (*KypSvrRoute)(unsigned short port, char const* data, unsigned int size,
                            _msg_request request, void* ctx);

#ifdef __cplusplus
}
#endif

#endif
