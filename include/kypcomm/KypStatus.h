/*
 * The status codes and the calling thread's last status. Plain C11 and C++17.
 *
 * Codes 1 to 10 are also what a connection callback receives; 0x1000 are faults of the protocol,
 * 0x2000 of the interface, 0x3000 of files, 0x4000 of components. A code travels on the wire in the
 * `error` word of a response.
 *
 * Threads  any; each thread has a last status of its own, which lives as long as the thread.
 */
#ifndef KYP_KYPCOMM_KYPSTATUS_H
#define KYP_KYPCOMM_KYPSTATUS_H

#include "utils/Export.h"

enum KypStatus {
    KYP_OK = 0,                                /* No Error */
    KYP_CONNECT_SUCCESS = 1,                   /* connect Success */
    KYP_CONNECTION_PENDING = 2,                /* connection pending */
    KYP_ERR_NO_CONNECTION = 3,                 /* no connection */
    KYP_ERR_CONNECT_REFUSED = 4,               /* connect refuse */
    KYP_ERR_DISCONNECTED = 5,                  /* connection disconnect */
    KYP_ERR_CONNECT_TIMEOUT = 6,               /* connect timeout */
    KYP_ERR_HOST_UNREACHABLE = 7,              /* host unreachable */
    KYP_AUTH_CONTINUE = 8,                     /* auth continue */
    KYP_ERR_NO_CHANNEL = 9,                    /* No connection channel established */
    KYP_ERR_SEND_TIMEOUT = 10,                 /* send timeout */
    KYP_ERR_DEVICE_ID = 0x1001,                /* invaild Kyp Device Id */
    KYP_ERR_INDEX_GROUP = 0x1002,              /* invaild Id Group */
    KYP_ERR_INDEX_OFFSET = 0x1003,             /* invaild Id Offset */
    KYP_ERR_PACKET_LENGTH = 0x1004,            /* Invalid packet length */
    KYP_ERR_PORT = 0x1005,                     /* invaild port,port is 1-65535 */
    KYP_ERR_ROUTE_NOT_REGISTERED = 0x1006,     /* router port not register */
    KYP_ERR_ROUTE_REGISTERED = 0x1007,         /* router port alaready register */
    KYP_ERR_RECV_TIMEOUT = 0x1008,             /* recv message timeout */
    KYP_ERR_COMMAND = 0x1009,                  /* unknown cmdId */
    KYP_ERR_TOPIC = 0x100a,                    /* unknown topic */
    KYP_ERR_PROTOCOL = 0x100b,                 /* no support protocol */
    KYP_ERR_PACKET_TOO_SHORT = 0x100c,         /* packet length too small */
    KYP_ERR_PACKET_TOO_LONG = 0x100d,          /* packet length too long */
    KYP_ERR_SERIALIZE = 0x100e,                /* serialized error */
    KYP_ERR_DESERIALIZE = 0x100f,              /* deserialized error */
    KYP_ERR_HEADER_LENGTH = 0x1010,            /* kyp header length not match from buff recv */
    KYP_ERR_SEND = 0x1011,                     /* send message error */
    KYP_ERR_PORT_RESERVED = 0x1012,            /* port 1~500 system reserved */
    KYP_ERR_INVOKE_ID = 0x1013,                /* message invokeId not match */
    KYP_ERR_PORT_RANGE = 0x1014,               /* Invaild port,range 1~4096 */
    KYP_ERR_PARAM = 0x1015,                    /* input param illegal */
    KYP_ERR_CONN_TYPE = 0x1016,                /* unknown conntype */
    KYP_ERR_IVSHM_NOT_INIT = 0x1017,           /* ivshm shared memory not init */
    KYP_ERR_UNSUPPORTED_CALL = 0x1018,         /* unsupport function call */
    KYP_ERR_NO_REQUEST = 0x1019,               /* not exist vaild request */
    KYP_ERR_IVSHM_GROUP = 0x101a,              /* invaild ivshm group index */
    KYP_ERR_CLIENT_LIMIT = 0x101b,             /* client num exceeded */
    KYP_ERR_CLIENT_ID = 0x101c,                /* invaild client id */
    KYP_ERR_IVSHM_HANDLE = 0x101d,             /* invaild ivshm send handle */
    KYP_ERR_IVSHM_TIMEOUT = 0x101e,            /* ivshm send timeout */
    KYP_ERR_HANDLE = 0x2001,                   /* invaild handler */
    KYP_ERR_NETADAPTER = 0x2002,               /* invaild netadapter */
    KYP_ERR_INIT_RESOURCE = 0x2003,            /* init resource fail */
    KYP_ERR_INPUT_PARAM = 0x2004,              /* invaild input param */
    KYP_ERR_SERVER_NOT_RUNNING = 0x2005,       /* kyp server not runing */
    KYP_ERR_REQUEST_COMMAND = 0x2006,          /* invaild request cmd */
    KYP_ERR_BUFFER_LENGTH = 0x2007,            /* invaild buff length */
    KYP_ERR_NO_MEMORY = 0x2008,                /* no memory */
    KYP_ERR_DISK_FULL = 0x2009,                /* disk is full */
    KYP_ERR_CREATE_FILE = 0x3000,              /* create file fail */
    KYP_ERR_OPEN_FILE = 0x3001,                /* open file fail */
    KYP_ERR_FILE_MISSING = 0x3002,             /* file not exist */
    KYP_ERR_READ_FILE = 0x3003,                /* read file buffer fail */
    KYP_ERR_WRITE_FILE = 0x3004,               /* write file buffer fail */
    KYP_ERR_FILE_HANDLE = 0x3005,              /* invaild file handler */
    KYP_ERR_TRANSFER = 0x3006,                 /* transfer fault,network error */
    KYP_ERR_COMPONENT_NOT_REGISTERED = 0x4001, /* component not register */
    KYP_ERR_SERVER_CONNECT_TIMEOUT = 0x4002,   /* connect kypserver timeout */
    KYP_ERR_COMPONENT_NAME_TAKEN =
        0x4003, /* same component name already register,kypserver refuse register */
    KYP_ERR_COMPONENT_OFFLINE = 0x4004, /* component is offline */
    KYP_ERR_COMPONENT_NAME = 0x4005,    /* component name is illegal */
    KYP_ERR_COMPONENT_CHANNEL = 0x4006, /* component not build connectchannel */
    KYP_ERR_SERVER_OFFLINE = 0x4007,    /* kyp server is offline */
};

/* The last status of this thread, 0 in a new thread. Each thread has its own. */
extern KYP_API __thread int tlsErrno;

#ifdef __cplusplus

/* The text of `code`, "Unknown error code" for every code without one. Static, never null. */
KYP_API char const* LibkypGetErrorString(int code);

#endif

#endif
