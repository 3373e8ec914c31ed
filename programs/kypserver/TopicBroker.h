// Port 103: brings what one connection publishes to all that have subscribed to the topic.
//
// Owns:     the subscriptions. They end with their connection.
// Threads:  serve() on any worker, end() on the loop threads. One lock orders publications: all
//           subscribers of a topic see them in the same order. It is outside the ledger's lock and
//           that of the connections.
// Lifetime: outlives the loops and the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_TOPICBROKER_H
#define KYP_PROGRAMS_KYPSERVER_TOPICBROKER_H

#include <cstddef>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kypserver/Service.h"

namespace kypserver {

class CConnections;
class CCounters;
class CSendLedger;

class CTopicBroker : public IService {
public:
    // Longer topics are refused.
    static constexpr size_t kLongestTopic = 1024;

    CTopicBroker(CConnections const& connections, CSendLedger& ledger, CCounters& counters,
                 size_t maxTopics);

    unsigned short port() const override;

    // What one connection publishes reaches each subscriber in its order.
    bool in_order() const override;

    // "sub", "unsub" and "pub" with their commands 6, 7 and 8; none of them is answered. What is
    // malformed, or too much for one connection, is reported and dropped. Another command is
    // answered with 0x1009.
    void serve(Request const& request) override;

    // Forgets the subscriptions of `conn`.
    void end(IConnection* conn);

    // How many connections have subscribed to `topic`.
    size_t subscribers(std::string_view topic) const;

    struct Totals {
        size_t topics = 0;         // that somebody has subscribed to
        size_t subscriptions = 0;  // of all connections
    };
    Totals totals() const;

private:
    void subscribe(Request const& request, std::string_view topic);
    char const* add_subscriber(IConnection* conn, std::string topic);
    void unsubscribe(IConnection* conn, std::string_view topic);
    void publish(Request const& request, std::string_view topic);
    std::vector<std::string> deliver(Request const& request, std::string_view topic);
    void remove_subscriber(std::string_view topic, IConnection* conn);
    void refuse(Request const& request, char const* reason) const;

    CConnections const& m_connections;
    CSendLedger& m_ledger;
    CCounters& m_counters;
    size_t const m_maxTopics;    // of one connection
    mutable std::mutex m_mutex;  // guards the two tables
    std::map<std::string, std::vector<IConnection*>, std::less<>> m_topics;  // none is empty
    std::unordered_map<IConnection*, std::unordered_set<std::string>> m_byConn;
};

}  // namespace kypserver

#endif
