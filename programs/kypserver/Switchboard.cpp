#include "kypserver/Switchboard.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "kypcomm/KypStatus.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/ComponentFrames.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/SendLedger.h"
#include "kypserver/ServerLog.h"
#include "kypserver/Service.h"
#include "utils/Log.h"

namespace kypserver {

namespace {

// Seconds of a clock that only goes forward.
time_t now() {
    auto const since = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(since).count();
}

PendingRequest request_of(_KypHeader const& head, _AoEHeader const& aoe) {
    return {utils_ntohl(aoe.invokeId), head.port, utils_ntohs(aoe.cmd)};
}

// What `msg`, which stands behind two heads, is held for.
size_t held_payload(CMsgHeader& msg) {
    int const size = msg.GetVaildSize() - static_cast<int>(sizeof(AoERequestHeader));
    return static_cast<size_t>(std::max(size, 0));
}

std::string on_port(_KypHeader const& head) {
    return " on port " + std::to_string(head.port);
}

}  // namespace

CSwitchboard::CSwitchboard(CConnections const& connections, CSendLedger& ledger, CHeldBytes& held,
                           CCounters& counters)
    : m_connections(connections), m_ledger(ledger), m_held(held), m_counters(counters) {}

void CSwitchboard::reserve(unsigned short port) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_registry.reserve(port);
}

void CSwitchboard::handle(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe) {
    CSocketConnection* const peer = msg.m_pConn;
    size_t const payload = held_payload(msg);
    Fault fault;
    if (aoe.state == KYP_STATE_REQUEST) {
        unsigned int const status = pass_on(msg, head, aoe, fault);
        if (status != KYP_OK) refuse(peer, request_of(head, aoe), status);
    } else {
        lead_back(msg, head, aoe, fault);
    }
    m_held.served(peer, payload);
    act_on(fault);
}

unsigned int CSwitchboard::register_component(CSocketConnection* channel, Component component) {
    std::vector<CSessions::Unanswered> unanswered;
    unsigned int status = KYP_ERR_DISCONNECTED;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // Asked under the lock: a channel that closes now finds its entry in end().
        if (m_connections.is_open(channel)) {
            make_way(m_registry.channel_of(component.name), channel, unanswered);
            status = m_registry.add(channel, std::move(component));
        }
    }
    refuse_all(unanswered);
    return status;
}

unsigned int CSwitchboard::register_port(CSocketConnection* channel, std::string const& name,
                                         uint32_t port) {
    std::vector<CSessions::Unanswered> unanswered;
    unsigned int status = KYP_ERR_DISCONNECTED;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_connections.is_open(channel)) {
            make_way(m_registry.channel_of(port), channel, unanswered);
            status = m_registry.add_port(channel, name, port);
        }
    }
    refuse_all(unanswered);
    return status;
}

void CSwitchboard::end(IConnection* conn) {
    auto* const peer = static_cast<CSocketConnection*>(conn);
    std::vector<CSessions::Unanswered> unanswered;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // As a component first: it need not hear that it has gone itself.
        if (m_registry.remove(peer)) unanswered = m_sessions.end_component(peer);
        for (CSessions::Leave const& leave : m_sessions.end_client(peer, now())) {
            m_ledger.push(leave.component, make_leave(leave.port, leave.number));
        }
    }
    refuse_all(unanswered);
}

size_t CSwitchboard::components() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_registry.count();
}

std::vector<CSwitchboard::ComponentState> CSwitchboard::state() const {
    std::vector<ComponentState> all;
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto const& [channel, component] : m_registry.all()) {
        all.push_back({component.name, component.ports, m_sessions.clients(channel),
                       m_ledger.waiting(channel)});
    }
    std::sort(all.begin(), all.end(),
              [](ComponentState const& a, ComponentState const& b) { return a.name < b.name; });
    return all;
}

// Returns 0 or why the request is refused.
unsigned int CSwitchboard::pass_on(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe,
                                   Fault& fault) {
    CSocketConnection* const client = msg.m_pConn;
    std::lock_guard<std::mutex> lock(m_mutex);
    CSocketConnection* const component = m_registry.channel_of(head.port);
    if (component == nullptr) return m_registry.reason(head.port);
    if (!has_address(msg)) return KYP_ERR_PACKET_TOO_SHORT;
    if (!is_forwardable(head)) return KYP_ERR_PACKET_TOO_LONG;

    // A client that has gone has been reported to its components already. All senders of datagrams
    // are one client, which never goes.
    bool const isStream = msg.m_enType == MSG_TYPE_STREAM;
    if (isStream && !m_connections.is_open(client)) return KYP_OK;
    uint16_t const number = m_sessions.number(client, now());
    if (number == 0) return KYP_ERR_CLIENT_LIMIT;

    PendingRequest const request = request_of(head, aoe);
    switch (m_ledger.offer(component, make_forwarded(msg, head, aoe, number))) {
        case CSendLedger::QUEUED:
            m_sessions.passed_on(client, component, request, !is_one_way(request.cmd));
            return KYP_OK;
        case CSendLedger::DROPPED_FIRST:
            fault.text = "component " + m_registry.find(component)->name +
                         " reads too slowly: as much waits for it as may (--max-component-bytes), "
                         "requests to it are refused";
            m_counters.dropped(CCounters::DROP_FORWARD);
            return KYP_ERR_SEND;
        default:
            m_counters.dropped(CCounters::DROP_FORWARD);
            return KYP_ERR_SEND;
    }
}

void CSwitchboard::lead_back(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe,
                             Fault& fault) {
    CSocketConnection* const channel = msg.m_pConn;
    std::lock_guard<std::mutex> lock(m_mutex);
    Component const* const component = m_registry.find(channel);
    if (component == nullptr) {
        fault = {"the connection of " + m_connections.name(channel) + " is closed: it answers" +
                     on_port(head) + " and is no component",
                 channel};
        return;
    }
    if (head.port <= kHighestReservedPort) {
        fault.text = "an answer of component " + component->name + on_port(head) +
                     " is dropped: the port is reserved";
        return;
    }
    _KypforwardHeader forward;
    if (!read_forward_head(msg, forward)) {
        m_counters.dropped(CCounters::DROP_REPLY);
        fault.text = "an answer of component " + component->name + on_port(head) +
                     " is dropped: it is too short";
        return;
    }
    bool const isTurnedAway = utils_ntohl(aoe.error) == KYP_ERR_CLIENT_LIMIT;
    CSocketConnection* client = nullptr;
    switch (
        m_sessions.answered(channel, forward.replyFd, forward.replyInvoke, isTurnedAway, &client)) {
        case CSessions::FOR_CLIENT:
            return give_to_client(client, msg, head, aoe, fault);
        case CSessions::NEVER_CALLED:
            m_counters.dropped(CCounters::DROP_REPLY);
            fault.text = "an answer of component " + component->name + on_port(head) +
                         " is dropped: client " + std::to_string(forward.replyFd) +
                         " has never called it";
            return;
        case CSessions::CLIENT_HAS_GONE:
            m_counters.dropped(CCounters::DROP_REPLY);
            return;
    }
}

// The caller holds m_mutex.
void CSwitchboard::give_to_client(CSocketConnection* client, CMsgHeader& msg,
                                  _KypHeader const& head, _AoEHeader const& aoe, Fault& fault) {
    auto const payload = static_cast<size_t>(msg.GetVaildSize()) - sizeof(_KypforwardHeader);
    if (!m_held.has_room(client, payload)) {
        m_counters.dropped(CCounters::DROP_CLIENT);
        fault = {"the connection of " + m_connections.name(client) +
                     " is closed: it has as many answers unread as may be (--max-held-bytes)",
                 client};
        return;
    }
    // Before it is queued, since it may have left then.
    m_held.answering(client, payload);
    send_frame(client, make_answer(msg, head, aoe));
}

// The caller holds m_mutex. A component that has died is often back before the loop has found out:
// its name and ports must not be taken by its own ghost.
void CSwitchboard::make_way(CSocketConnection* owner, CSocketConnection* channel,
                            std::vector<CSessions::Unanswered>& unanswered) {
    if (owner == nullptr || owner == channel || !m_connections.has_hung_up(owner)) return;

    m_registry.remove(owner);
    unanswered = m_sessions.end_component(owner);
}

void CSwitchboard::refuse(CSocketConnection* client, PendingRequest const& request,
                          unsigned int status) {
    KYP_LOG(LOG_LEVEL_INFO, "request to port:%d refused,client:%s,error:0x%x",
            static_cast<int>(request.port), client->m_szPeerName, status);
    if (is_one_way(request.cmd)) return;

    Request refused = {};
    refused.port = request.port;
    refused.head.cmd = request.cmd;
    refused.head.invokeId = request.invokeId;
    refused.head.conn = client;
    refused.held = &m_held;
    answer(refused, status);
}

void CSwitchboard::refuse_all(std::vector<CSessions::Unanswered> const& unanswered) {
    for (CSessions::Unanswered const& each : unanswered) {
        refuse(each.client, each.request, KYP_ERR_COMPONENT_OFFLINE);
    }
}

void CSwitchboard::act_on(Fault const& fault) {
    if (fault.text.empty()) return;
    report("%s", fault.text.c_str());
    if (fault.hangUpOn != nullptr) m_connections.hang_up(fault.hangUpOn);
}

}  // namespace kypserver
