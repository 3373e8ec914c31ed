// The entry to the transfer of files.
#include <atomic>
#include <memory>

#include "kypclient/CFileThread.h"
#include "kypclient/CFileTransfer.h"
#include "kypcomm/protocol/FilePacket.h"
#include "libkyp/libkyp.h"

namespace {

// Transfers live to the end of the process, each with the one before it, so that a leak checker
// finds them all.
struct Made {
    CFileTransfer transfer;
    Made* before;
};

std::atomic<uint32_t> g_nextTransferId{0};
std::atomic<Made*> g_latest{nullptr};

CFileTransfer* keep(std::unique_ptr<Made> made) {
    made->before = g_latest.load(std::memory_order_relaxed);
    while (!g_latest.compare_exchange_weak(made->before, made.get())) continue;
    return &made.release()->transfer;
}

}  // namespace

unsigned int KypFileTransfer(_KypDeviceAddr addr, unsigned int indexGroup, unsigned int indexOffset,
                             char const* localPath, char const* remotePath,
                             KypFileCallback callback, void* user) {
    tlsErrno = KYP_OK;
    // Kept: what the caller asks for is not looked at.
    (void)indexGroup;
    (void)indexOffset;
    uint32_t const number = g_nextTransferId.fetch_add(1);
    CFileTransfer* const transfer = keep(std::unique_ptr<Made>(
        new Made{{addr, localPath, remotePath, kFileGroup, kFileOffset, number}, nullptr}));
    (void)transfer->SetNotifyCallback(callback, user);

    CFileThread& worker = utility::instance<CFileThread>();
    transfer->SetTransferHandler(worker.GetHandlerFromDeviceid(addr.deviceId));
    (void)worker.AddTransferList(transfer);
    (void)worker.start();
    return number;
}
