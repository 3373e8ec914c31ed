// The one worker behind all file transfers. It serves the head of a list until that has ended, and
// keeps one connection for each device.
//
// Owns:     its thread. Transfers are only listed here, and connections belong to CPeerConnMgr: a
//           handle dangles once it was released there.
// Threads:  any, stop() not from a report. No lock is held while a packet is exchanged, a
//           connection made or a report given.
// Lifetime: one per process, utility::instance<CFileThread>(), never destroyed.
#ifndef KYP_KYPCLIENT_CFILETHREAD_H
#define KYP_KYPCLIENT_CFILETHREAD_H

#include <atomic>
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "kypcomm/KypTypes.h"
#include "utils/Export.h"
#include "utils/Singleton.h"

class CFileTransfer;

class KYP_API CFileThread {
public:
    CFileThread();
    ~CFileThread();
    CFileThread(CFileThread const&) = delete;
    CFileThread& operator=(CFileThread const&) = delete;

    // Starts the worker if there is none. Returns 0.
    int start();

    // Ends the worker behind the exchange that is under way, and waits for it. What is listed stays
    // so. Returns 0.
    int stop();

    // Lists a transfer, behind all others. Returns 0.
    int AddTransferList(CFileTransfer* transfer);

    // The transfer that is served now, null when there is none.
    CFileTransfer* GetFileTransferObject();

    // Takes a transfer off the list, its first entry if it has several, and leaves it alive.
    void EraseFileTransferObject(CFileTransfer* transfer);

    // The connection to the device of that text, null when there is none.
    void* GetHandlerFromDeviceId(const std::string& deviceId);

    // The connection to a device. The first call for it waits up to 1500 ms, and gives a connection
    // also when the device cannot be reached; null only when none could be made.
    void* GetHandlerFromDeviceid(_KypDeviceId id);

    // The worker's road. Returns 0.
    int svc();

    std::atomic<bool> m_stop;                 // set by stop(), polled every round; relaxed
    std::mutex m_mutex;                       // guards m_thread, m_transfers and m_handlers
    std::thread m_thread;                     // the worker
    std::condition_variable m_cond;           // nothing waits on it
    std::list<CFileTransfer*> m_transfers;    // not owned
    std::map<std::string, void*> m_handlers;  // by the text of the device id; not owned
};

extern template class KYP_API utility::Singleton<CFileThread>;

#endif
