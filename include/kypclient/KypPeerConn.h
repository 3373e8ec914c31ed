// The transport-independent half of a client connection: invoke ids, the ring of 500 response
// slots, requests, publish and subscribe. CTcpclient adds the bytes' transport.
//
// Two ways of asking exist. The split one sends by send_request_packet(), parks the answer in
// m_peerBuffer and fetches it later by raw_recv(). The blocking one, AddKypRequest(), copies the
// answer straight into the caller's buffer.
//
// Owns:     m_pLatestRequest, and the buffers below m_peerBuffer. Contexts of callbacks belong to
//           whoever registered them.
// Threads:  the split way belongs to one calling thread at a time; the blocking way, publish and
//           subscribe may run on any number of threads beside it. process_frame(), filter() and the
//           callbacks run on the transport's receive thread. Lock order: a slot's mutex before
//           that of m_peerBuffer; no lock is held during a callback or a write to the peer.
// Lifetime: a subclass stops its thread before this destructor runs. The connection callback is
//           registered before the first connect.
#ifndef KYP_KYPCLIENT_KYPPEERCONN_H
#define KYP_KYPCLIENT_KYPPEERCONN_H

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "kypclient/KypRequest.h"
#include "kypclient/msgrouter/MsgRouter.h"
#include "kypcomm/Frame.h"
#include "kypcomm/KypTypes.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/PeerBuffer.h"
#include "utils/CTimestamp.h"
#include "utils/Export.h"

class pbuf;

// What a subscription calls: the message's two address words, its topic, its data and their size.
// The pointers are valid during the call only.
struct _libkypSubscribelCallBack {
    void (*callback)(unsigned int indexGroup, unsigned int indexOffset, char const* topic,
                     char const* data, unsigned int length, void* user);
    void* user;  // handed to the callback; not owned
};
static_assert(sizeof(_libkypSubscribelCallBack) == 16, "the layout is the binary interface");

constexpr unsigned int kResponseSlots = 500;

class KYP_API IKypPeerConnection {
public:
    // Both enter the route of port 103, through which subscribed topics arrive.
    IKypPeerConnection();
    IKypPeerConnection(_KypDeviceId id, std::string param);
    virtual ~IKypPeerConnection();
    IKypPeerConnection(IKypPeerConnection const&) = delete;
    IKypPeerConnection& operator=(IKypPeerConnection const&) = delete;

    // Starts and stops the receive thread. Both return 0.
    virtual int start();
    virtual int stop();

    // Connects to the peer, waiting up to `timeoutMs`. 1 when connected, else 0.
    virtual int connect(int timeoutMs);
    virtual int reconnect(int timeoutMs);
    virtual bool isconnected();
    virtual void disconnect();

    // Writes one whole frame. Returns the bytes written, fewer when the time was up, or -1 with the
    // reason in tlsErrno.
    virtual int raw_send(char const* data, unsigned int len, int timeoutMs) = 0;
    virtual int raw_send(Frame& frame, int timeoutMs) = 0;

    // Fetches the answer of the split way: waits up to `timeoutMs`, or reads on from an answer
    // already fetched. Returns the bytes given to `buf`, or -1 with the reason in tlsErrno.
    virtual int raw_recv(unsigned short* port, char* buf, int len, int timeoutMs) = 0;

    // Sends one request of the split way; an answer not yet fetched is dropped. The data is copied.
    // Returns the bytes sent, the whole frame, or -1; tlsErrno is what raw_send left. The answer
    // has one second to arrive, unless raw_recv() sets another time before. Commands 6, 7 and 8
    // await no answer and leave one that is awaited alone.
    virtual int send_request_packet(unsigned short port, _KypPayload payload, int timeoutMs);

    // The next invoke id: 1 first, never 0.
    unsigned int GetInvokeId();

    // Prepends the three heads of a request with a new invoke id, which m_lastInvokeId keeps.
    // Returns 0.
    int MakeKypRequestHeaderTobuf(pbuf* buf, unsigned short port, unsigned short cmd,
                                  unsigned int indexGroup, unsigned int indexOffset);

    // Occupies the slot of the id in `aoe` (network order). Null, with a log line, while an earlier
    // owner has not released it. The caller stores the id in the slot.
    KypResponse* GetFreeResponse(KypRequest* req, _AoEHeader const& aoe);

    // Claims the answer to `invokeId`: the slot that awaits it and from now on awaits nothing, or
    // null when nobody waits.
    KypResponse* GetPendingResponse(unsigned int invokeId);

    // Sends a request of the blocking way; `req->frame` holds AoERequestHeader and payload. Waits
    // up to 3 seconds for room on the link. The occupied slot, or null.
    KypResponse* WriteKypRequest(KypRequest* req);

    // Sends `req` and waits for its answer up to `req->deadline`. Returns 0, the peer's error or
    // 0x1008, also in tlsErrno; -1 when it could not be sent. `req` is the caller's again.
    int AddKypRequest(KypRequest* req);

    // Delivers one whole frame, _KypHeader included: to the request that awaits it, else to its
    // port's route. Returns -1 for an answer that came too late, else 0.
    int process_frame(unsigned char* frame, int length);

    // `cb` is called for each change of the link with a status code: 2, 1, 6 or 5. Null for none.
    void register_connevent(void (*cb)(_KypDeviceId*, void*, int), void* ctx);

    // Sets the pause between reconnection attempts and whether there are any.
    void set_reconnect_event(int intervalSec, bool enabled);

    // Enters and removes a port route, with `port` cut to 16 bits. 0 or 0x1007.
    int add_router(int port, void (*cb)(unsigned short, char const*, unsigned int, void*),
                   void* ctx);
    int del_router(int port);

    // Publishes payload.data on `topic`; payload.cmd is 8. Returns 0, 0x100d for a message too
    // long, or the reason for which the link did not take it. Nothing is queued.
    int publish(char const* topic, _KypPayload payload);

    // Enters or replaces the subscription and tells the peer. The entry stays when that fails: it
    // is sent again after the next connect. Returns as publish does. A null topic throws
    // std::logic_error, here and in publish and unsubscribe.
    int subscribe(char const* topic,
                  void (*cb)(unsigned int, unsigned int, char const*, char const*, unsigned int,
                             void*),
                  void* ctx);

    // Removes the subscription and tells the peer. 0x100a for an unknown topic.
    int unsubscribe(char const* topic);

    // Sends one body of type "pub", "sub" or "unsub" to port 103, waiting up to 5 seconds.
    int SendPubSubMsg(char const* type, char const* topic, _KypPayload payload);

    // A copy of the subscriptions.
    std::map<std::string, _libkypSubscribelCallBack> GetSubscribeTopics();

    // Delivers one pub/sub body to its topic's callback. Returns 0.
    int filter(char const* data, unsigned int len);

    std::atomic<bool> m_reconnectEnabled;     // may the receive loop reconnect
    void* m_connEventCtx;                     // context of m_connEvent
    std::atomic<int> m_reconnectIntervalSec;  // seconds between attempts
    std::atomic<uint32_t> m_invokeId;         // the next id; a 0 is skipped
    std::atomic<uint32_t> m_lastInvokeId;     // id of the latest request sent, whatever its way but
                                              // the blocking one
    PeerBuffer m_peerBuffer;                  // the answer of the split way, as a whole frame
    std::string m_param;                      // the parameter text as given
    CMsgRouter m_router;
    KypRequest* m_pLatestRequest;    // of the split way; owned; its slot is m_pLatestResponse
    KypResponse* m_pLatestResponse;  // null when no answer is awaited
    void (*m_connEvent)(_KypDeviceId*, void*, int);  // null for none
    _KypDeviceId m_deviceId;                         // identity of the peer
    CTimestamp m_reconnectTimer;  // latest reconnection attempt; receive thread only
    std::map<std::string, _libkypSubscribelCallBack> m_topics;  // one entry per topic; guarded by a
                                                                // lock inside KypPeerConn.cpp
    KypResponse m_responses[kResponseSlots];                    // by invoke id modulo their number
};

// The route of port 103; `ctx` is the IKypPeerConnection whose filter() gets the message.
KYP_API void libkypsubscribeMsgRouterCallBack(unsigned short port, char const* data,
                                              unsigned int len, void* ctx);

#endif
