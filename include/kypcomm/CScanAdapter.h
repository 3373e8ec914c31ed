// The two datagram sockets by which one network interface takes part in the device scan.
//
// Owns:     both sockets; the destructor closes them.
// Threads:  the scan thread alone.
// Lifetime: keeps its interface for life, named by the hardware address; the IP address may change.
#ifndef KYP_KYPCOMM_CSCANADAPTER_H
#define KYP_KYPCOMM_CSCANADAPTER_H

#include <string>

#include "utils/Export.h"

class KYP_API CScanAdapter {
public:
    // Opens nothing.
    CScanAdapter(std::string mac, std::string name, bool useBroadcast);
    CScanAdapter(CScanAdapter const&) = delete;
    CScanAdapter& operator=(CScanAdapter const&) = delete;
    ~CScanAdapter();

    // True when `mac` is this adapter's, byte for byte.
    bool IsEqualAdapter(std::string mac);

    std::string GetAdapterName();

    // The descriptors, -1 when closed. They stay this object's.
    int GetMutilScanSocket();
    int GetBroadScanSocket();

    // Moves to address `ip`: closes both sockets and opens them there. Nothing happens when it is
    // the present one. Returns 0 always; a socket that could not be opened is -1, with the reason
    // logged.
    int UpdateAdapterIpAddr(std::string ip);

    // Opens the socket on m_ipAddr, port 38897, and joins the scan group. Returns 0, or -1 with the
    // reason logged and m_multiSocket as it was.
    int AddSockt2MutilCast();

    // Opens the broadcast socket on m_ipAddr and a port of the kernel's choice. Returns 0, or -1
    // with the reason logged; after a failed bind m_broadSocket holds the unbound socket.
    int AddSocket2BroadcastSock();

    // Closes whichever socket is open.
    void ReleaseSocket();

    bool m_useBroadcast;
    int m_multiSocket;      // -1 when closed
    int m_broadSocket;      // -1 when closed
    std::string m_macAddr;  // the adapter's identity
    std::string m_ipAddr;   // empty until the first update
    std::string m_adapterName;
};

#endif
