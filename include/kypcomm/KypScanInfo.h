/*
 * What the device scan finds, and the callback that is told of it. Plain C11 and C++17.
 */
#ifndef KYP_KYPCOMM_KYPSCANINFO_H
#define KYP_KYPCOMM_KYPSCANINFO_H

#include <assert.h>

/*
 * One device's reply. Texts end in a NUL and are cut to their arrays; what the reply does not say
 * is empty. Nobody vouches for them: they hold whatever bytes the sender of the datagram chose,
 * control characters too, and two devices may claim the same id.
 */
typedef struct _KypDevice {
    char ipAddr[32];  /* where the reply came from, "192.168.1.10" */
    char macAddr[32]; /* of the interface with that address; empty when the device does not list it
                       */
    char serialNo[32];
    char sn[32];
    char kypDeviceId[32]; /* "192.168.1.10.1.1" */
    char kypVersion[32];
    char rteVersion[32];
    char velaosVersion[256];
    char hostName[32];
    char reserved[32]; /* zero */
} _KypDevice;

static_assert(sizeof(_KypDevice) == 544, "the layout is the binary interface");

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Tells of a reply to the scan. A device replies to each round, by each road on which it was asked,
 * so the same one comes again and again.
 * ctx     as given when the callback was registered
 * thread  the scan thread: while the callback runs, no request is sent and no reply is read
 */
typedef void (*KypScanCallback)(_KypDevice device, void* ctx);

#ifdef __cplusplus
}
#endif

#endif
