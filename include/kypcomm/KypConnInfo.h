/*
 * What a caller hands over to have a connection made, one record for each transport, and the
 * callbacks that a connection calls. Plain C11 and C++17.
 *
 * The size of a record travels beside it and must fit exactly. A record is read during the call
 * that makes the connection and never afterwards.
 */
#ifndef KYP_KYPCOMM_KYPCONNINFO_H
#define KYP_KYPCOMM_KYPCONNINFO_H

#include <assert.h>

#include "kypcomm/KypTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Tells of a change in a connection's link.
 * deviceId  the device that the connection was made for; valid during the call
 * ctx       as given when the connection was made
 * event     KYP_CONNECTION_PENDING before each attempt, KYP_CONNECT_SUCCESS or
 *           KYP_ERR_CONNECT_TIMEOUT after it, KYP_ERR_DISCONNECTED when the link was given up
 * thread    the connection's receive thread, or the one that makes or reconnects the connection;
 *           never calls libkyp_releaseInstance or libkyp_destory, which would wait for it
 */
typedef void (*KypConnEvent)(_KypDeviceId* deviceId, void* ctx, int event);

/*
 * Takes a message that answers no request of this connection.
 * port   its logical port, the one that the callback is registered for
 * data   what follows the _AoEHeader, so neither the invoke id nor the status; the 8 bytes of an
 *        AoERequestHeader, if there is one, come first. In a frame of version 0 all that follows
 *        the _KypHeader. Valid during the call
 * thread the connection's receive thread, which reads nothing else meanwhile
 */
typedef void (*KypRouteCallback)(unsigned short port, char const* data, unsigned int len,
                                 void* ctx);

/*
 * Takes a message of a subscribed topic.
 * indexGroup, indexOffset  the two words that the publisher gave
 * topic, data              valid during the call; `topic` ends in a NUL
 * thread                   the connection's receive thread, which reads nothing else meanwhile
 */
typedef void (*KypTopicCallback)(unsigned int indexGroup, unsigned int indexOffset,
                                 char const* topic, char const* data, unsigned int len, void* ctx);

#ifdef __cplusplus
}
#endif

/* Transports by number. 2 and 4 are one and the same. */
enum KypConnType {
    KYP_CONN_TCP = 0,          /* KypTcpConnInfo */
    KYP_CONN_NONE = 1,         /* a number without a transport */
    KYP_CONN_DOMAIN = 2,       /* KypDomainConnInfo */
    KYP_CONN_IVSHM = 3,        /* KypIvshmConnInfo */
    KYP_CONN_DOMAIN_ALIAS = 4, /* KypDomainConnInfo */
};

/* KYP_CONN_TCP: TCP to port 9999 of a device. */
typedef struct __attribute__((packed)) KypTcpConnInfo {
    _KypDeviceId deviceId; /* the host is looked up for it, or made of its first four bytes */
    KypConnEvent event;    /* null for none */
    void* ctx;
} KypTcpConnInfo;

/* KYP_CONN_DOMAIN: Unix-domain stream to the server of this machine. */
typedef struct __attribute__((packed)) KypDomainConnInfo {
    KypConnEvent event; /* never called */
    void* ctx;
} KypDomainConnInfo;

/* KYP_CONN_IVSHM: shared memory between virtual machines. In natural layout. */
typedef struct KypIvshmConnInfo {
    int groupIndex;     /* 0 or 1 */
    int maxBytes;       /* largest frame; counts for the first connection of the group */
    KypConnEvent event; /* never called */
    void* ctx;
} KypIvshmConnInfo;

static_assert(sizeof(KypTcpConnInfo) == 22, "the layout is the binary interface");
static_assert(sizeof(KypDomainConnInfo) == 16, "the layout is the binary interface");
static_assert(sizeof(KypIvshmConnInfo) == 24, "the layout is the binary interface");

#endif
