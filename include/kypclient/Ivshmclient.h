// A client connection over shared memory: one of the logical clients of an IvshmGroup.
//
// There is no handshake and no link that could be lost: connect() and reconnect() are true at once,
// isconnected() is always false, and no connection event ever comes. Each send reports a failure
// (see IvshmGroup::raw_send), so a request is given up when it has been sent; what the peer sends
// reaches routes and topics.
//
// Owns:     its place in the group, which the destructor gives back.
// Threads:  raw_send() from any thread. Callbacks run on the group's thread.
// Lifetime: while the group delivers a frame to it, its destructor waits: not to be deleted from a
//           callback.
#ifndef KYP_KYPCLIENT_IVSHMCLIENT_H
#define KYP_KYPCLIENT_IVSHMCLIENT_H

#include <string>

#include "kypclient/KypPeerConn.h"
#include "kypcomm/Frame.h"
#include "kypcomm/KypTypes.h"
#include "utils/Export.h"

class IvshmGroup;

class KYP_API CIvshmClient : public IKypPeerConnection {
public:
    CIvshmClient(IvshmGroup* group, unsigned short id);

    // Without a group: it sends and receives nothing.
    CIvshmClient(_KypDeviceId id, std::string param);

    ~CIvshmClient() override;

    // Both return 1 at once.
    int connect(int timeoutMs) override;
    int reconnect(int timeoutMs) override;

    bool isconnected() override;
    void disconnect() override;

    // Sends bytes that carry their ShmHeader already. Returns 0 whatever became of them, with
    // tlsErrno as IvshmGroup::raw_send leaves it, or -1 with 0x2001 without a group.
    int raw_send(char const* data, unsigned int size, int timeoutMs) override;

    // Puts a ShmHeader in front of `frame` and sends both. -1 with the reason in tlsErrno, 0x2001
    // without a group.
    int raw_send(Frame& frame, int timeoutMs) override;

    // As over TCP (see IKypPeerConnection).
    int raw_recv(unsigned short* port, char* buf, int len, int timeoutMs) override;

    bool m_connected;           // false
    unsigned short m_clientId;  // 1..32, or 0 without a group
    IvshmGroup* m_pGroup;       // not owned; null without a group and after its end
};

#endif
