/*
 * How the progress of a file transfer is told. Plain C11 and C++17.
 */
#ifndef KYP_KYPCOMM_KYPFILEPROGRESS_H
#define KYP_KYPCOMM_KYPFILEPROGRESS_H

#include "kypcomm/KypTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where a transfer stands. */
enum KypFileState {
    KYP_FILE_WAITING = 0,  /* not started */
    KYP_FILE_RUNNING = 1,  /* transferring */
    KYP_FILE_FINISHED = 2, /* the device says that it has the whole file */
    KYP_FILE_FAILED = 3,   /* `error` tells why */
};

/*
 * Takes one report: the first before the transfer is queued, then one behind each exchange with
 * the device.
 * id          the device
 * transferId  the number that KypFileTransfer returns
 * progress    chunks sent of all, 0 to 1; stays 0 for an empty file
 * error       0 or a status: the device's own, or
 *               KYP_ERR_OPEN_FILE    first report only: the file cannot be opened
 *               KYP_ERR_INPUT_PARAM  first report only: a path is longer than 255 bytes and was
 *                                    cut; a file of the shorter name may be open or not
 *               KYP_ERR_TRANSFER     no answer in time or no link; this is the last report
 * state       a KypFileState
 * user        as given to KypFileTransfer
 * returns     -1 to end the transfer here; anything else lets it go on
 * thread      the first report: the one that calls KypFileTransfer. The others: the one worker of
 *             all transfers, which sends nothing meanwhile
 */
typedef int (*KypFileCallback)(_KypDeviceId id, int transferId, float progress, int error,
                               int state, void* user);

#ifdef __cplusplus
}
#endif

#endif
