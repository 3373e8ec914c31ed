/*
 * What an application hands over to become a component and what it gets back to watch its clients.
 * Plain C11 and C++17.
 */
#ifndef KYP_KYPCOMM_KYPCMPTYPES_H
#define KYP_KYPCOMM_KYPCMPTYPES_H

#include <assert.h>
#include <stdint.h>

/* One client of a component; the IConnection of its requests is the same object at the same
 * address. In C nothing but an address. */
#ifdef __cplusplus
class VirtualConn;
namespace libkyp {
namespace compmodule {
class CompModule;
}
}  // namespace libkyp
#else
typedef struct VirtualConn VirtualConn;
typedef struct CompModule CompModule;
#endif

/* A component's description. */
typedef struct tagCmpDrvInfo {
    uint32_t drvParam0; /* carried to the server as it is */
    uint32_t drvParam1; /* the same */
    char name[32];      /* ends in a NUL */
} tagCmpDrvInfo;
static_assert(sizeof(tagCmpDrvInfo) == 40, "the layout is the binary interface");

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Tells that a client has come or gone.
 * conn      the client: on coming a fresh one, on going the one that came. Its address serves the
 *           next client after it has gone
 * userData  CmpConnConfig::userData
 * thread    the component's receive thread, which reads nothing else meanwhile
 */
typedef void (*KypCmpConnEvent)(VirtualConn* conn, void* userData);

/* Stored with the component and never called. */
typedef int (*KypCmpCallback)(unsigned int code, char const* data, unsigned int length, void* arg);

#ifdef __cplusplus
}
#endif

/* A component's client callbacks, for the application to set before the component is started. */
typedef struct __attribute__((packed)) CmpConnConfig {
    uint32_t mode; /* 1; this and the owner, which is the component, are not to be changed */
#ifdef __cplusplus
    libkyp::compmodule::CompModule* owner;
#else
    CompModule* owner;
#endif
    KypCmpConnEvent onConnect;    /* null at first */
    KypCmpConnEvent onDisconnect; /* null at first; only looked at when onConnect is set, and then
                                   * called also when it is null: set both or neither */
    void* userData;               /* null at first; handed to both */
} CmpConnConfig;
static_assert(sizeof(CmpConnConfig) == 36, "the layout is the binary interface");

#endif
