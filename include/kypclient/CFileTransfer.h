// One file on its way to a device: its packets, where it stands, and its reports.
//
// Owns:     the file, by a shared pointer. The connection belongs to CPeerConnMgr, what stands
//           behind m_userData to whoever gave it.
// Threads:  one at a time: first the thread that makes the transfer, which also gets the first
//           report, then the worker of CFileThread.
// Lifetime: one that KypFileTransfer made lives to the end of the process.
#ifndef KYP_KYPCLIENT_CFILETRANSFER_H
#define KYP_KYPCLIENT_CFILETRANSFER_H

#include <cstdint>
#include <memory>
#include <string>

#include "kypcomm/KypFileProgress.h"
#include "kypcomm/KypTypes.h"
#include "utils/Export.h"

class CFile;

class KYP_API CFileTransfer {
public:
    // Opens the file at `localPath`. m_error tells of a path of more than 255 bytes, of which the
    // first 255 count, by KYP_ERR_INPUT_PARAM, and of a file that cannot be opened by
    // KYP_ERR_OPEN_FILE. A null path is an empty one. The two index numbers are not used.
    CFileTransfer(_KypDeviceAddr addr, const char* localPath, const char* remotePath,
                  unsigned int indexGroup, unsigned int indexOffset, unsigned int transferId);
    ~CFileTransfer();
    CFileTransfer(CFileTransfer const&) = delete;
    CFileTransfer& operator=(CFileTransfer const&) = delete;

    // Counts the chunks of an open file. Returns 0.
    int CalcChunkNum();

    void SetSSRC(unsigned int ssrc);
    unsigned int GetSSRC();

    // `handler` is a handle of libkyp_createInstance; null and unknown ones fail at the first
    // exchange.
    void SetTransferHandler(void* handler);

    // Has `callback`, which may be null, told of everything from now on, and reports at once.
    // Returns 0.
    int SetNotifyCallback(KypFileCallback callback, void* user);

    // The target device: "192.168.1.10.1.1".
    std::string GetRemoteDeviceId();

    // True when nothing is left to send, or when the transfer was given up.
    bool IsTransferEnd();

    // Sends the next packet and waits for its answer. Returns 0, also when the exchange failed, or
    // -1 when there is no open file, or no room for the name in a packet.
    int SendFile();

    // Writes the head of the file-info packet. Returns its 15 bytes.
    int MakeFileInfoHeader(char* buf);

    // Writes name and target path, which follow that head. Returns their length together; -1 with
    // tlsErrno at KYP_ERR_INPUT_PARAM and nothing written when that is more than `size`.
    int MakeFileInfoPacket(char* buf, int size);

    // Counts one chunk more and writes its head. Returns its 9 bytes.
    int MakeFileChunkHeader(char* buf, int last);

    // Reads the next chunk, up to 8192 bytes of at most `size` - 9, and writes it behind its head.
    // Returns the length of both; 0 with m_error set and no head when nothing was read.
    int MakeFileChunkPacket(char* buf, int size);

    // Sends `len` bytes, waits up to a second for the answer, takes what it says and reports.
    // Returns 0, also when the exchange failed.
    int ReadWriteReq(void* handler, char* buf, int len);

    // Makes one report. A callback that returns -1 gives the transfer up.
    void NotifyProgress();

    bool m_sendInfo;                // the next packet is the file-info packet
    bool m_abort;                   // given up
    uint8_t m_state;                // a KypFileState
    uint32_t m_transferId;          // the number that KypFileTransfer returned
    uint32_t m_chunkSeq;            // chunks made so far
    uint32_t m_chunkNum;            // chunks in all; 0 for an empty file
    uint32_t m_ssrc;                // session number, given by the device
    uint32_t m_error;               // last status, 0 for none
    void* m_userData;               // for the callback; not owned
    _KypDeviceAddr m_deviceAddr;    // target device and logical port
    void* m_handler;                // connection handle; not owned
    KypFileCallback m_callback;     // null for none
    std::shared_ptr<CFile> m_file;  // never null unless a caller takes it away
    char m_remotePath[256];         // target path, zero to its end
};

#endif
