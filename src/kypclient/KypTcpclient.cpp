#include "kypclient/KypTcpclient.h"

#include <cstring>

#include "kypclient/FetchAnswer.h"
#include "kypcomm/DomainTcpSocket.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/Socket.h"
#include "kypcomm/StreamLink.h"
#include "kypcomm/TcpSocket.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "utils/CStringHelper.h"
#include "utils/Log.h"
#include "utils/comm.h"

namespace {

constexpr int kIdleSleepMs = 100;  // between two looks at a link that is down
constexpr int kReconnectTimeoutMs = 1500;
constexpr int kSelectMs = 500;  // bounds the reaction to stop()
constexpr int kBodyTimeoutMs = 5000;

// Cuts `text` at each ';' and gives every "key=value" piece to `field`. A piece without '=' is
// skipped, also an empty one.
template <typename Field>
void parse_fields(std::string text, Field field) {
    if (!text.empty() && text.back() != ';') text += ';';

    size_t begin = 0;
    for (size_t end = text.find(';'); end != std::string::npos; end = text.find(';', begin)) {
        const std::string piece = text.substr(begin, end - begin);
        begin = end + 1;
        const size_t equals = piece.find('=');
        if (equals != std::string::npos) field(piece.substr(0, equals), piece.substr(equals + 1));
    }
}

bool is_key(std::string const& key, char const* name) {
    return CStringHelper::StriCmp(key.c_str(), name) == 0;
}

template <typename Write>
int send_in_turn(CTcpclient& client, Write write) {
    if (client.isconnected()) {
        std::lock_guard<std::mutex> lock(client.m_sendMutex);
        // Again: the link may have gone while others had their turn.
        if (client.isconnected()) return write(*client.m_socket);
    }
    KYP_LOG(LOG_LEVEL_ERROR, "connection is lost,ready reconnect");
    tlsErrno = KYP_ERR_DISCONNECTED;
    return -1;
}

// There is no way to find the next frame behind one of these, so the link is closed for them.
bool breaks_link(int status) {
    return status == KYP_ERR_DISCONNECTED || status == KYP_ERR_HEADER_LENGTH ||
           status == KYP_ERR_PACKET_TOO_LONG || status == KYP_ERR_PORT_RESERVED;
}

// Any byte that is not zero was read: the count is lost when the peer closes in mid-header.
bool holds_bytes(_KypHeader const& header) {
    const _KypHeader empty{};
    return std::memcmp(&header, &empty, sizeof(header)) != 0;
}

bool read_header(Socket& socket, _KypHeader& header) {
    // Kept: a peer that stops inside a header holds this thread, and who waits in stop(), until it
    // goes on or closes.
    const int n = socket.readn(reinterpret_cast<unsigned char*>(&header), sizeof(header));
    if (n == static_cast<int>(sizeof(header))) return is_header_valid(header);

    if (n == 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "connection is close");
        tlsErrno = KYP_ERR_DISCONNECTED;
    } else {
        tlsErrno = KYP_ERR_HEADER_LENGTH;
    }
    if (n != 0 || holds_bytes(header)) {
        KYP_LOG(LOG_LEVEL_ERROR, "received not a complete KypHeader,recv:%d!=%d sizeof(KypHeader)",
                n, static_cast<int>(sizeof(header)));
    }
    return false;
}

// `buf` stays between frames as long as it is big enough.
void provide_room(std::unique_ptr<pbuf>& buf, int size) {
    if (buf != nullptr && buf->capacity() >= size) return;
    auto& pool = utility::instance<client_bufpool>();
    if (buf != nullptr) pool.put_one_free(buf.release());
    buf.reset(take_pbuf(pool, size));
}

// Reads one frame and delivers it. A fault is left in tlsErrno.
void receive_frame(CTcpclient& client, std::unique_ptr<pbuf>& buf) {
    Socket& socket = *client.m_socket;
    _KypHeader header{};
    if (!read_header(socket, header)) return;

    const int bodyLen = static_cast<int>(header.nMsgLen);
    const int frameLen = bodyLen + static_cast<int>(sizeof(header));
    provide_room(buf, frameLen);
    unsigned char* const raw = buf->rawData();
    std::memcpy(raw, &header, sizeof(header));
    // A read of no bytes would count as a peer that has closed.
    const int n = bodyLen == 0 ? 0 : socket.readn(raw + sizeof(header), bodyLen, kBodyTimeoutMs);
    if (n != bodyLen) {
        KYP_LOG(LOG_LEVEL_ERROR, "received not a complete package,recv:%d!=%d KypHeader nMsgLen", n,
                bodyLen);
        tlsErrno = KYP_ERR_HEADER_LENGTH;
        return;
    }
    client.process_frame(raw, frameLen);
}

// One attempt to connect, with its events. The socket connects again after each Shutdown.
bool attempt(CTcpclient& client, int timeoutMs) {
    if (client.m_socket == nullptr) return false;

    client.notify_connect_event(KYP_CONNECTION_PENDING);
    const bool connected = client.m_socket->Connect(timeoutMs);
    client.notify_connect_event(connected ? KYP_CONNECT_SUCCESS : KYP_ERR_CONNECT_TIMEOUT);
    return connected;
}

}  // namespace

CTcpclient::CTcpclient(_KypDeviceId id, std::string param, bool isDomain)
    : IKypPeerConnection(id, param), m_isDomain(isDomain), m_stop(false), m_port(0) {
    if (m_isDomain) {
        // Kept: "domain", which the factory writes, is no key; its path is the default one anyhow.
        parse_fields(param, [this](std::string const& key, std::string const& value) {
            if (is_key(key, "hostname")) m_hostname = value;
        });
        if (m_hostname.empty()) m_hostname = kDomainPath;
        m_socket = std::make_shared<DomainTcpSocket>(m_hostname.c_str(), 0, SOCKET_TYPE_STREAM,
                                                     m_isDomain);
        KYP_LOG(LOG_LEVEL_DEBUG, "Create Unix Domain TCP Socket,Ready HostName:%s",
                m_hostname.c_str());
        return;
    }
    parse_fields(param, [this](std::string const& key, std::string const& value) {
        if (is_key(key, "ip")) m_hostname = value;
        if (is_key(key, "port")) m_port = static_cast<uint16_t>(std::stoi(value));
    });
    m_socket =
        std::make_shared<TcpSocket>(m_hostname.c_str(), m_port, SOCKET_TYPE_STREAM, m_isDomain);
    KYP_LOG(LOG_LEVEL_DEBUG, "Create  TCP Socket,Ready HostName:%s,port:%d", m_hostname.c_str(),
            m_port);
}

CTcpclient::~CTcpclient() {
    CTcpclient::stop();
    CTcpclient::disconnect();
}

int CTcpclient::start() {
    m_stop.store(false, std::memory_order_relaxed);
    if (!m_thread.joinable()) m_thread = std::thread(&CTcpclient::svc, this);
    return 0;
}

int CTcpclient::stop() {
    m_stop.store(true, std::memory_order_relaxed);
    // A callback that stops its own connection cannot wait for the thread that runs it.
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id()) m_thread.join();
    return 0;
}

int CTcpclient::connect(int timeoutMs) {
    KYP_LOG(LOG_LEVEL_INFO, "tcpclient ready connect  HostName:%s,port:%d,timeoutms:%d,isDomain:%d",
            m_hostname.c_str(), m_port, timeoutMs, m_isDomain);
    if (!attempt(*this, timeoutMs)) return 0;
    KYP_LOG(LOG_LEVEL_INFO, "Connect HostName:%s,port:%d Success,isDomain:%d", m_hostname.c_str(),
            m_port, m_isDomain);
    return 1;
}

int CTcpclient::reconnect(int timeoutMs) {
    if (!attempt(*this, timeoutMs)) return 0;
    KYP_LOG(LOG_LEVEL_INFO, "Reconnect  HostName:%s,port:%d Success,isDomain:%d,timeout:%d ms",
            m_hostname.c_str(), m_port, m_isDomain, timeoutMs);
    return 1;
}

bool CTcpclient::isconnected() {
    return m_socket != nullptr && m_socket->isConnected();
}

void CTcpclient::disconnect() {
    if (m_socket != nullptr) close_link(*m_socket, m_sendMutex);
}

int CTcpclient::raw_send(char const* data, unsigned int len, int timeoutMs) {
    return send_in_turn(*this, [=](Socket& socket) { return socket.write(data, len, timeoutMs); });
}

int CTcpclient::raw_send(Frame& frame, int timeoutMs) {
    return send_in_turn(*this, [&](Socket& socket) { return socket.write(frame, timeoutMs); });
}

int CTcpclient::raw_recv(unsigned short* port, char* buf, int len, int timeoutMs) {
    return fetch_answer(*this, port, buf, len, timeoutMs);
}

int CTcpclient::svc() {
    KYP_LOG(LOG_LEVEL_DEBUG, "connect:%s socket thread start", m_param.c_str());
    // Kept: the buffer in hand at the end does not go back to the pool, which is one buffer poorer.
    std::unique_ptr<pbuf> buf;
    while (!m_stop.load(std::memory_order_relaxed)) {
        if (!isconnected()) {
            CComm::Sleep(kIdleSleepMs);
            is_trigger_reconnect(kReconnectTimeoutMs);
            continue;
        }
        if (!m_socket->Select(kSelectMs)) continue;
        receive_frame(*this, buf);
        // Kept: nothing clears this thread's status, so one left by a lost link closes the next
        // link too, behind the first frame that was delivered.
        if (!breaks_link(tlsErrno)) continue;
        close_link(*m_socket, m_sendMutex);
        m_socket->setConnectStatus(false);
        notify_connect_event(KYP_ERR_DISCONNECTED);
    }
    KYP_LOG(LOG_LEVEL_DEBUG, "connect:%s socket thread stop", m_param.c_str());
    return 0;
}

int CTcpclient::is_trigger_reconnect(int timeoutMs) {
    if (!m_reconnectEnabled.load(std::memory_order_relaxed)) return 0;
    const double elapsedSec = m_reconnectTimer.getElapsedSecond();
    if (elapsedSec <= m_reconnectIntervalSec.load(std::memory_order_relaxed)) return 0;
    m_reconnectTimer.update();
    KYP_LOG(LOG_LEVEL_DEBUG,
            "trigger Reconnect  HostName:%s,port:%d,isDomain:%d,IntercalSec:%.2f sec",
            m_hostname.c_str(), m_port, m_isDomain, elapsedSec);
    return reconnect(timeoutMs);
}

void CTcpclient::notify_connect_event(int event) {
    if (m_connEvent != nullptr) m_connEvent(&m_deviceId, m_connEventCtx, event);
    if (event == KYP_CONNECT_SUCCESS) handle_reconnection();
}

void CTcpclient::handle_reconnection() {
    resume_subscriptions();
}

void CTcpclient::resume_subscriptions() {
    for (auto const& [topic, target] : GetSubscribeTopics()) {
        subscribe(topic.c_str(), target.callback, target.user);
    }
}
