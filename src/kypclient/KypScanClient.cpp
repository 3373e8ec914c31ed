#include "kypclient/KypScanClient.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <future>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/CScanAdapter.h"
#include "kypcomm/KypDeviceIdGenerator.h"
#include "utils/Log.h"
#include "utils/comm.h"
#include "utils/json/Json.h"
#include "utils/json/Parser.h"

template class utility::Singleton<CKypScanClient>;

namespace {

using libkyp::json::Json;

constexpr int kIdleSleepMs = 300;  // from one look at the adapters to the next, the gate shut
constexpr int kSelectMs = 500;     // bounds the reaction to stop() and to a due round
constexpr double kRoundMs = 1000;
constexpr int kHeadSize = sizeof(_KypScanCommand);

using Callback = void (*)(_KypDevice, void*);

// Keeps a callback and its argument together, so that the one is never called with the argument of
// the other. Taken with no other lock held, and not during the call.
std::mutex s_callbackMutex;

std::pair<Callback, void*> registered(CKypScanClient const& client) {
    std::lock_guard<std::mutex> lock(s_callbackMutex);
    return {client.m_callback.load(std::memory_order_relaxed),
            client.m_userData.load(std::memory_order_relaxed)};
}

// A set has no room for a descriptor beyond its size, and one of -1 must not be tested at all.
bool is_selectable(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

class ReadSet {
public:
    ReadSet() : m_highest(0) { FD_ZERO(&m_set); }

    void add(int fd) {
        if (!is_selectable(fd)) return;
        FD_SET(fd, &m_set);
        m_highest = std::max(m_highest, fd);
    }

    // What select() returns. Only the descriptors that can be read are in the set afterwards.
    int wait(int timeoutMs) {
        timeval timeout = {timeoutMs / 1000, timeoutMs % 1000 * 1000L};
        return select(m_highest + 1, &m_set, nullptr, nullptr, &timeout);
    }

    bool has(int fd) { return is_selectable(fd) && FD_ISSET(fd, &m_set); }

private:
    fd_set m_set;
    int m_highest;  // 0 in an empty set: select() is asked for one descriptor all the same
};

void warn_of_deaf_socket(CScanAdapter& adapter, int fd) {
    if (fd < FD_SETSIZE) return;
    KYP_LOG(LOG_LEVEL_ERROR, "scan socket %d of iframe:%s is beyond %d,its replies are not read",
            fd, adapter.GetAdapterName().c_str(), FD_SETSIZE - 1);
}

void move_adapter(CScanAdapter& adapter, std::string const& ip) {
    if (adapter.m_ipAddr == ip) return;
    (void)adapter.UpdateAdapterIpAddr(ip);
    warn_of_deaf_socket(adapter, adapter.GetMutilScanSocket());
    warn_of_deaf_socket(adapter, adapter.GetBroadScanSocket());
}

sockaddr_in destination(char const* ip, uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(ip);
    address.sin_port = htons(port);
    return address;
}

// The text as one log line: whoever is on the network wrote it, and a line break in it could pass
// for a line of this process.
std::string printable(std::string text) {
    const auto isControl = [](unsigned char c) { return c < ' ' || c == 0x7f; };
    // A NUL ends the text, as everywhere in the log.
    text.resize(std::min(text.size(), text.find('\0')));
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}

template <size_t N>
void fill(char (&field)[N], std::string const& text) {
    snprintf(field, N, "%s", text.c_str());
}

template <size_t N>
void fill(char (&field)[N], Json const& object, char const* key) {
    if (object.has(key)) fill(field, object.get(key).asString());
}

void fill_device(_KypDevice& device, Json const& info) {
    fill(device.kypDeviceId, info, "kypDeviceId");
    fill(device.kypVersion, info, "kypVersion");
    fill(device.rteVersion, info, "rteVersion");
    fill(device.serialNo, info, "serialNo");
    fill(device.velaosVersion, info, "velaosVersion");
    fill(device.hostName, info, "hostName");
    fill(device.sn, info, "sn");
}

// Takes the hardware address of the frame through which the reply came.
void fill_mac(_KypDevice& device, Json const& frames) {
    for (int i = 0; i < static_cast<int>(frames.size()); ++i) {
        Json const& frame = frames.get(i);
        if (!frame.has("frameIp")) continue;
        const std::string ip = frame.get("frameIp").asString();
        // Kept: a frame with an address and without a hardware address spoils the whole reply.
        const std::string mac = frame.get("frameMacAddr").asString();
        if (ip != device.ipAddr) continue;
        fill(device.macAddr, mac);
        return;
    }
}

Json parse(std::string const& text) {
    libkyp::json::Parser parser;
    parser.load(text);
    Json reply = parser.parse();
    if (!reply.isObject()) throw std::logic_error("the reply is no object");
    return reply;
}

// False when `reply` is to be passed over. Throws std::logic_error on a value of the wrong kind.
bool read_reply(_KypDevice& device, Json const& reply) {
    if (reply.has("device")) fill_device(device, reply.get("device"));
    if (!reply.has("frames")) return true;
    if (reply.get("frames").isNull()) return false;
    fill_mac(device, reply.get("frames"));
    return true;
}

void route_device(_KypDevice const& device) {
    auto& routes = utility::instance<CRouterTable>();
    std::lock_guard<std::mutex> lock(routes.m_mutex);
    // Kept: a reply without an id is entered under the empty text.
    routes.m_table[device.kypDeviceId] = device.ipAddr;
}

// One pass of the loop with the gate open.
void scan(CKypScanClient& client, std::unordered_map<std::string, _NetAdapterObj> const& list) {
    (void)client.UpdateScanAdapter(list);
    ReadSet set;
    for (CScanAdapter* adapter : client.m_adapters) {
        set.add(adapter->GetMutilScanSocket());
        set.add(adapter->GetBroadScanSocket());
    }
    const int ready = set.wait(kSelectMs);
    if (ready < 0) {
        KYP_LOG(LOG_LEVEL_ERROR, "Select error!");
        return;
    }
    // The gate may have been shut during the wait.
    if (client.m_scanning.load(std::memory_order_relaxed)) (void)client.sendScanReqPacket();
    if (ready == 0) return;
    for (CScanAdapter* adapter : client.m_adapters) {
        if (set.has(adapter->GetMutilScanSocket())) {
            (void)client.sockReadEvt(adapter->GetMutilScanSocket());
        }
        if (set.has(adapter->GetBroadScanSocket())) {
            (void)client.sockReadEvt(adapter->GetBroadScanSocket());
        }
    }
}

void pass(CKypScanClient& client) {
    const auto list = client.GetLocalAdapterList();
    // Kept: what reaches the sockets of a shut gate waits there and is reported when it opens.
    if (list.empty() || !client.m_scanning.load(std::memory_order_relaxed)) {
        CComm::Sleep(kIdleSleepMs);
        return;
    }
    scan(client, list);
}

}  // namespace

CKypScanClient::CKypScanClient()
    : m_stop(false), m_scanning(false), m_userData(nullptr), m_callback(nullptr) {}

CKypScanClient::~CKypScanClient() {
    // The thread would go on with adapters that are gone.
    if (m_thread.joinable()) std::terminate();
    for (CScanAdapter* adapter : m_adapters) delete adapter;
}

int CKypScanClient::svc() {
    while (!m_stop.load(std::memory_order_relaxed)) {
        try {
            pass(*this);
        } catch (std::exception const& error) {
            KYP_LOG(LOG_LEVEL_ERROR, "scan pass fail,error:%s", error.what());
            CComm::Sleep(kIdleSleepMs);
        } catch (...) {
            // Only a callback throws such.
            KYP_LOG(LOG_LEVEL_ERROR, "scan pass fail,error:unknown exception");
            CComm::Sleep(kIdleSleepMs);
        }
    }
    KYP_LOG(LOG_LEVEL_DEBUG, "Kyp Scan Client End");
    return 0;
}

int CKypScanClient::start() {
    if (m_thread.joinable()) return 0;

    // After a stop() the thread must not begin before m_stop is cleared, or it would end at once.
    std::promise<void> cleared;
    m_thread = std::thread([this, ready = cleared.get_future()] {
        ready.wait();
        (void)svc();
    });
    KYP_LOG(LOG_LEVEL_INFO, "KypScan Thread Start");
    (void)pthread_setname_np(m_thread.native_handle(), "KypScan");
    m_stop.store(false, std::memory_order_relaxed);
    cleared.set_value();
    return 0;
}

int CKypScanClient::stop() {
    m_stop.store(true, std::memory_order_relaxed);
    // A callback cannot wait for the thread that runs it, nor take its adapters away.
    if (m_thread.get_id() == std::this_thread::get_id()) return 0;
    if (m_thread.joinable()) {
        m_thread.join();
        KYP_LOG(LOG_LEVEL_INFO, "KypScan thread stop Over");
    }
    for (CScanAdapter* adapter : m_adapters) delete adapter;
    m_adapters.clear();
    return 0;
}

int CKypScanClient::startScan() {
    m_scanning.store(true, std::memory_order_relaxed);
    return 0;
}

int CKypScanClient::stopScan() {
    m_scanning.store(false, std::memory_order_relaxed);
    return 0;
}

int CKypScanClient::registerKypSacnEvent(void (*cb)(_KypDevice, void*), void* user) {
    std::lock_guard<std::mutex> lock(s_callbackMutex);
    m_userData.store(user, std::memory_order_relaxed);
    m_callback.store(cb, std::memory_order_relaxed);
    return 0;
}

_KypScanCommand CKypScanClient::packetKypScanReqInfo(unsigned char cmd) {
    return {cmd, 0, utils_htonl(static_cast<unsigned int>(time(nullptr)))};
}

int CKypScanClient::sendScanReqPacket() {
    // Kept: by the wall clock. After it was set back no round comes until it has caught up.
    if (m_lastSend.getElapsedTimeInMilliSec() < kRoundMs) return 0;
    m_lastSend.update();
    const _KypScanCommand multicast = packetKypScanReqInfo(KYP_SCAN_MULTICAST_REQUEST);
    const _KypScanCommand broadcast = packetKypScanReqInfo(KYP_SCAN_BROADCAST_REQUEST);
    sockaddr_in group = destination(kScanGroup, kScanPort);
    sockaddr_in everybody = destination("255.255.255.255", kScanBroadcastPort);
    for (CScanAdapter* adapter : m_adapters) {
        (void)sendScanReqPacket(adapter->GetMutilScanSocket(),
                                reinterpret_cast<char const*>(&multicast), kHeadSize, &group);
        (void)sendScanReqPacket(adapter->GetBroadScanSocket(),
                                reinterpret_cast<char const*>(&broadcast), kHeadSize, &everybody);
    }
    return 0;
}

int CKypScanClient::sendScanReqPacket(int fd, const char* buf, int len, sockaddr_in* to) {
    if (fd == -1) return -1;
    // An interface that takes nothing any more must not hold the others up.
    const ssize_t n = sendto(fd, buf, static_cast<size_t>(len), MSG_DONTWAIT,
                             reinterpret_cast<sockaddr const*>(to), sizeof *to);
    if (n == -1) KYP_LOG(LOG_LEVEL_ERROR, "send kyp search packet fail");
    return static_cast<int>(n);
}

std::unordered_map<std::string, _NetAdapterObj> CKypScanClient::GetLocalAdapterList() {
    auto& ids = utility::instance<CKypDeviceIdGenerator>();
    (void)ids.LoadLocalNetAdaptersInfo();
    return ids.GetAdapterList();
}

int CKypScanClient::UpdateScanAdapter(
    const std::unordered_map<std::string, _NetAdapterObj>& adapters) {
    for (auto const& [name, info] : adapters) {
        if (info.ipAddr.empty()) continue;
        // Kept: the hardware address is the identity, so interfaces that share one (VLANs) share an
        // adapter, which moves from address to address in every pass.
        const auto found = std::find_if(
            m_adapters.begin(), m_adapters.end(),
            [&mac = info.macAddr](CScanAdapter* adapter) { return adapter->IsEqualAdapter(mac); });
        if (found != m_adapters.end()) {
            move_adapter(**found, info.ipAddr);
            continue;
        }
        m_adapters.push_back(new CScanAdapter(info.macAddr, name, true));
        move_adapter(*m_adapters.back(), info.ipAddr);
    }
    return 0;
}

int CKypScanClient::sockReadEvt(int fd) {
    char buf[kMaxScanDatagram] = {};
    sockaddr_in from = {};
    socklen_t fromLen = sizeof from;
    // A datagram that select() announced may be gone: the kernel drops one with a bad checksum.
    const ssize_t n =
        recvfrom(fd, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (n < kHeadSize) return -1;
    return parseReplyPacket(buf, static_cast<int>(n), &from);
}

int CKypScanClient::parseReplyPacket(char* buf, int len, sockaddr_in* from) {
    if (len < kHeadSize) return 0;  // no head, so no reply
    _KypScanCommand head;
    memcpy(&head, buf, sizeof head);
    head.status = utils_ntohl(head.status);
    return dealScanMessage(&head, buf + kHeadSize, len - kHeadSize, from);
}

int CKypScanClient::dealScanMessage(_KypScanCommand* cmd, char* payload, int len,
                                    sockaddr_in* from) {
    const bool isReply =
        cmd->command == KYP_SCAN_MULTICAST_REPLY || cmd->command == KYP_SCAN_BROADCAST_REPLY;
    if (isReply && cmd->status == 0) (void)notify(payload, len, from);
    return 0;
}

int CKypScanClient::notify(char* payload, int len, sockaddr_in* from) {
    const std::string text(payload, static_cast<size_t>(std::max(len, 0)));
    _KypDevice device = {};
    inet_ntop(AF_INET, &from->sin_addr, device.ipAddr, sizeof device.ipAddr);
    try {
        if (!read_reply(device, parse(text))) return -1;
    } catch (std::logic_error const&) {
        KYP_LOG(LOG_LEVEL_ERROR, "not json:%s", printable(text).c_str());
        return -1;
    }

    auto const [callback, user] = registered(*this);
    if (callback == nullptr) return 0;
    if (!m_scanning.load(std::memory_order_relaxed)) return 0;
    route_device(device);
    callback(device, user);
    return 0;
}
