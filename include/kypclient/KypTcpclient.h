// A client connection over a TCP or Unix-domain stream: one socket, a send lock and one receive
// thread that delivers frames and reconnects when the link is lost.
//
// Owns:     the socket, made once and used again for every reconnection, and the thread.
// Threads:  raw_send() from any thread. svc() runs on the receive thread; route, topic and
//           connection callbacks run there too, apart from the connection events of a direct call
//           of connect() or reconnect(). A callback that blocks stops the reading of frames.
//           start() and stop() from one thread at a time; the destructor not on the receive thread.
// Lifetime: the thread runs from start() to stop(), connected or not, and may be started again.
#ifndef KYP_KYPCLIENT_KYPTCPCLIENT_H
#define KYP_KYPCLIENT_KYPTCPCLIENT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "kypclient/KypPeerConn.h"
#include "kypcomm/Frame.h"
#include "kypcomm/KypTypes.h"
#include "utils/Export.h"

class Socket;

class KYP_API CTcpclient : public IKypPeerConnection {
public:
    // `param` is a list of key=value fields separated by ';', keys without regard to case: "ip" and
    // "port" for TCP, "hostname" for the domain stream, default "/var/tmp/kyp/kypserver". A port
    // that is no number throws what std::stoi throws. Does not connect.
    CTcpclient(_KypDeviceId id, std::string param, bool isDomain);
    ~CTcpclient() override;

    // Starts the receive thread if there is none. Returns 0.
    int start() override;

    // Ends the receive thread and waits for that, about half a second on an idle link. On the
    // receive thread itself it only asks for the end. Returns 0.
    int stop() override;

    // Connect with the events 2, then 1 or 6, on the calling thread; the subscriptions are sent
    // again behind event 1. 1 when connected, else 0.
    int connect(int timeoutMs) override;
    int reconnect(int timeoutMs) override;

    bool isconnected() override;

    // Closes the link. A write under way fails.
    void disconnect() override;

    // Writers take turns. -1 with tlsErrno 5 when the link is down: a send never reconnects.
    int raw_send(char const* data, unsigned int len, int timeoutMs) override;
    int raw_send(Frame& frame, int timeoutMs) override;

    // See IKypPeerConnection. -1 with tlsErrno 0x1019 when nothing was ever sent, 0x1008 when the
    // time was up, the peer's error otherwise; `buf` is filled as far as there is payload then too.
    int raw_recv(unsigned short* port, char* buf, int len, int timeoutMs) override;

    // The receive loop; returns 0 after stop().
    int svc();

    // Reconnects if that is enabled and the interval has passed since the latest attempt. What
    // reconnect() returned, else 0.
    int is_trigger_reconnect(int timeoutMs);

    // Calls the connection callback, if there is one; event 1 then renews the subscriptions.
    void notify_connect_event(int event);
    void handle_reconnection();

    // Sends "sub" for every topic, in their order.
    void resume_subscriptions();

    bool m_isDomain;                   // Unix-domain stream; else TCP
    std::atomic<bool> m_stop;          // asks the receive thread to end; relaxed, read every round
    uint16_t m_port;                   // TCP port
    std::mutex m_sendMutex;            // held during a write, and while the link is closed
    std::thread m_thread;              // runs svc()
    std::string m_hostname;            // peer address or socket path
    std::shared_ptr<Socket> m_socket;  // set by the constructor, never replaced
};

#endif
