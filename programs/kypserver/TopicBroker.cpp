#include "kypserver/TopicBroker.h"

#include <algorithm>
#include <utility>

#include "kypcomm/KypStatus.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/SendLedger.h"
#include "kypserver/ServerLog.h"
#include "kypserver/TopicBody.h"

namespace kypserver {

namespace {

// The type that a body must have for its frame's command.
std::string_view type_of(unsigned int cmd) {
    if (cmd == KYP_CMD_SUBSCRIBE) return "sub";
    if (cmd == KYP_CMD_UNSUBSCRIBE) return "unsub";
    return "pub";
}

_KypHeader delivery_head(size_t bodySize) {
    _KypHeader head = {};
    head.version = kKypVersion;
    head.port = kPortPubSub;
    head.nMsgLen = static_cast<uint32_t>(sizeof(_AoEHeader) + bodySize);
    return head;
}

_AoEHeader delivery_aoe() {
    _AoEHeader aoe = {};
    aoe.cmd = utils_htons(KYP_CMD_PUBLISH);
    return aoe;
}

}  // namespace

CTopicBroker::CTopicBroker(CConnections const& connections, CSendLedger& ledger,
                           CCounters& counters, size_t maxTopics)
    : m_connections(connections), m_ledger(ledger), m_counters(counters), m_maxTopics(maxTopics) {}

unsigned short CTopicBroker::port() const {
    return kPortPubSub;
}

bool CTopicBroker::in_order() const {
    return true;
}

void CTopicBroker::serve(Request const& request) {
    unsigned int const cmd = request.head.cmd;
    if (!is_one_way(cmd)) return answer(request, KYP_ERR_COMMAND);

    TopicBody body;
    if (!read_topic_body(request.data, request.size, body)) {
        return refuse(request, "its body is malformed");
    }
    if (body.type != type_of(cmd)) return refuse(request, "its command is not that of its body");
    if (body.topic.size() > kLongestTopic) return refuse(request, "its topic is too long");

    if (cmd == KYP_CMD_PUBLISH) return publish(request, body.topic);
    if (cmd == KYP_CMD_SUBSCRIBE) return subscribe(request, body.topic);
    unsubscribe(request.head.conn, body.topic);
}

void CTopicBroker::end(IConnection* conn) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_byConn.find(conn);
    if (found == m_byConn.end()) return;

    for (std::string const& topic : found->second) remove_subscriber(topic, conn);
    m_byConn.erase(found);
}

size_t CTopicBroker::subscribers(std::string_view topic) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_topics.find(topic);
    return found != m_topics.end() ? found->second.size() : 0;
}

CTopicBroker::Totals CTopicBroker::totals() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    Totals totals;
    totals.topics = m_topics.size();
    for (auto const& [topic, subscribers] : m_topics) totals.subscriptions += subscribers.size();
    return totals;
}

void CTopicBroker::subscribe(Request const& request, std::string_view topic) {
    char const* const reason = add_subscriber(request.head.conn, std::string(topic));
    if (reason != nullptr) refuse(request, reason);
}

// Returns why the subscription is not taken, or null.
char const* CTopicBroker::add_subscriber(IConnection* conn, std::string topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Asked under the lock: a connection that closes now finds its new subscription in end().
    if (!m_connections.is_open(conn)) return "it did not come on an open connection";

    std::unordered_set<std::string>& own = m_byConn[conn];
    if (own.count(topic) != 0) return nullptr;
    if (own.size() >= m_maxTopics) return "there are too many subscriptions (--max-topics)";

    own.insert(topic);
    m_topics[std::move(topic)].push_back(conn);
    return nullptr;
}

void CTopicBroker::unsubscribe(IConnection* conn, std::string_view topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_byConn.find(conn);
    if (found == m_byConn.end() || found->second.erase(std::string(topic)) == 0) return;

    remove_subscriber(topic, conn);
    if (found->second.empty()) m_byConn.erase(found);
}

void CTopicBroker::publish(Request const& request, std::string_view topic) {
    m_counters.published();
    for (std::string const& name : deliver(request, topic)) {
        report(
            "%s reads too slowly: as much waits for it as may (--max-waiting-bytes), topic "
            "messages for it are dropped",
            name.c_str());
    }
}

// Returns the names of the subscribers for whom a burst of drops has begun. The body goes out as it
// came in: a subscriber expects the same one, straight behind the second head.
std::vector<std::string> CTopicBroker::deliver(Request const& request, std::string_view topic) {
    std::vector<std::string> slow;
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const found = m_topics.find(topic);
    if (found == m_topics.end()) return slow;

    _KypHeader const head = delivery_head(request.size);
    _AoEHeader const aoe = delivery_aoe();
    for (IConnection* conn : found->second) {
        CSendLedger::Offer const result =
            m_ledger.offer(conn, head, aoe, request.data, request.size);
        if (result != CSendLedger::QUEUED) m_counters.dropped(CCounters::DROP_TOPIC_MESSAGE);
        if (result == CSendLedger::DROPPED_FIRST) slow.push_back(m_connections.name(conn));
    }
    return slow;
}

// The caller holds m_mutex.
void CTopicBroker::remove_subscriber(std::string_view topic, IConnection* conn) {
    auto const found = m_topics.find(topic);
    if (found == m_topics.end()) return;

    std::vector<IConnection*>& all = found->second;
    all.erase(std::remove(all.begin(), all.end(), conn), all.end());
    if (all.empty()) m_topics.erase(found);
}

void CTopicBroker::refuse(Request const& request, char const* reason) const {
    report("a topic message of %s with command %u and %u bytes is dropped: %s",
           m_connections.name(request.head.conn).c_str(),
           static_cast<unsigned int>(request.head.cmd), request.size, reason);
}

}  // namespace kypserver
