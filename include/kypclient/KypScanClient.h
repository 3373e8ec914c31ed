// Finds the devices of the local networks: sends a request a second on every usable interface, by
// multicast and by broadcast, and reports the replies to one callback.
//
// Owns:     the scan thread and one CScanAdapter for each interface that was ever usable.
// Threads:  svc() runs on the scan thread, and so do the callback and every operation that sends,
//           reads or looks at the adapters. startScan(), stopScan() and registerKypSacnEvent() from
//           any thread, also from the callback; start() and stop() from one at a time, and on the
//           scan thread itself stop() only asks for the end.
// Lifetime: one per process, utility::instance<CKypScanClient>(), never destroyed. The thread runs
//           from libkyp_init() on, whether a scan is open or not. An object that is destroyed while
//           its thread was not joined ends the process.
#ifndef KYP_KYPCLIENT_KYPSCANCLIENT_H
#define KYP_KYPCLIENT_KYPSCANCLIENT_H

#include <netinet/in.h>

#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <unordered_map>

#include "kypcomm/Adapter.h"
#include "kypcomm/KypScanInfo.h"
#include "kypcomm/KypWire.h"
#include "utils/CTimestamp.h"
#include "utils/Export.h"
#include "utils/Singleton.h"

class CScanAdapter;

class KYP_API CKypScanClient {
public:
    CKypScanClient();
    virtual ~CKypScanClient();
    CKypScanClient(CKypScanClient const&) = delete;
    CKypScanClient& operator=(CKypScanClient const&) = delete;

    // The scan loop; returns 0 after stop(). No failure ends it.
    virtual int svc();

    // Starts the thread if there is none. Returns 0.
    virtual int start();

    // Ends the thread and waits for it, about half a second, then closes all sockets. Returns 0.
    virtual int stop();

    // Open and shut the gate of the sending and the reporting. Sockets stay open meanwhile, and
    // what reaches them is read when the gate opens again. Return 0.
    int startScan();
    int stopScan();

    // Has replies reported to `cb`, null for none, with `user` behind them. A call of the callback
    // that stood before may still be under way. Returns 0.
    int registerKypSacnEvent(void (*cb)(_KypDevice, void*), void* user);

    // The head of a datagram that is sent now, in network order.
    _KypScanCommand packetKypScanReqInfo(unsigned char cmd);

    // One round: two requests on each adapter, unless the last round is less than 1000 ms ago. A
    // request that cannot be sent is logged. Returns 0.
    int sendScanReqPacket();

    // One datagram, without waiting for room. Returns the bytes sent; -1 when `fd` is -1, and with
    // a line in the log when the send failed.
    int sendScanReqPacket(int fd, const char* buf, int len, sockaddr_in* to);

    // The interfaces as they are now, by name.
    std::unordered_map<std::string, _NetAdapterObj> GetLocalAdapterList();

    // Has an adapter on each interface of `adapters` that has an address. One that is no longer
    // named stays as it is. Returns 0.
    int UpdateScanAdapter(const std::unordered_map<std::string, _NetAdapterObj>& adapters);

    // Reads one datagram and deals with it. Returns 0, or -1 when there was none or one that is
    // shorter than a head.
    int sockReadEvt(int fd);

    // Takes the head off `buf`, which is not kept. Returns 0.
    int parseReplyPacket(char* buf, int len, sockaddr_in* from);

    // Hands the payload on when `cmd`, in host order, is the head of a good reply. Returns 0.
    int dealScanMessage(_KypScanCommand* cmd, char* payload, int len, sockaddr_in* from);

    // Reports the device whose JSON text is `payload`, `len` bytes without a NUL, and enters its
    // address in CRouterTable, if there is a callback and the gate is open. Returns 0; -1, with a
    // line in the log, for a text that is no such JSON, and for one whose "frames" is null.
    int notify(char* payload, int len, sockaddr_in* from);

    std::atomic<bool> m_stop;       // asks the thread to end; relaxed, read every round
    std::atomic<bool> m_scanning;   // the gate; relaxed: nothing hangs on it
    std::thread m_thread;           // runs svc()
    CTimestamp m_lastSend;          // the last round
    std::atomic<void*> m_userData;  // goes with m_callback; the two change together
    std::atomic<void (*)(_KypDevice, void*)> m_callback;  // null until registered
    std::list<CScanAdapter*> m_adapters;                  // owned; only stop() takes away
};

extern template class KYP_API utility::Singleton<CKypScanClient>;

#endif
