#include "kypserver/ServerState.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypDeviceIdGenerator.h"
#include "kypcore/ThreadPool.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/Options.h"
#include "kypserver/SendLedger.h"
#include "kypserver/Switchboard.h"
#include "kypserver/TopicBroker.h"

namespace kypserver {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

int messages_for_workers() {
    pthread_mutex_lock(&CThreadPool::m_pthreadMutex);
    int const waiting = utility::instance<CThreadPool>().m_nQueueCount;
    pthread_mutex_unlock(&CThreadPool::m_pthreadMutex);
    return waiting;
}

std::string device_id() {
    std::ostringstream text;
    text << utility::instance<CKypDeviceIdGenerator>().GetLocalDeviceId();
    return text.str();
}

Json server(Clock::time_point start) {
    std::chrono::duration<double> const uptime = Clock::now() - start;
    return {{"version", KYP_VERSION},
            {"pid", getpid()},
            {"uptimeSeconds", uptime.count()},
            {"deviceId", device_id()}};
}

Json clients(StateSources const& from, CCounters::Snapshot const& counted) {
    return {{"connected", from.connections.count()},
            {"limit", from.options.maxClients},
            {"accepted", counted.accepted}};
}

Json components(CSwitchboard const& switchboard) {
    Json all = Json::array();
    for (CSwitchboard::ComponentState const& each : switchboard.state()) {
        all.push_back({{"name", each.name},
                       {"ports", each.ports},
                       {"clients", each.clients},
                       {"waitingBytes", each.waitingBytes}});
    }
    return all;
}

Json topics(CTopicBroker const& broker, CCounters::Snapshot const& counted) {
    CTopicBroker::Totals const totals = broker.totals();
    return {{"topics", totals.topics},
            {"subscriptions", totals.subscriptions},
            {"published", counted.published}};
}

Json replies(CCounters::Snapshot const& counted) {
    Json errors = Json::object();
    for (auto const& [code, count] : counted.errors) {
        char text[16];
        snprintf(text, sizeof text, "0x%x", code);
        errors[text] = count;
    }
    if (counted.otherErrors > 0) errors["other"] = counted.otherErrors;
    return {{"sent", counted.replies}, {"bytes", counted.replyBytes}, {"errors", errors}};
}

Json drops(CCounters::Snapshot const& counted) {
    return {{"topicMessages", counted.dropped[CCounters::DROP_TOPIC_MESSAGE]},
            {"datagrams", counted.dropped[CCounters::DROP_DATAGRAM]},
            {"requestsToComponents", counted.dropped[CCounters::DROP_FORWARD]},
            {"replies", counted.dropped[CCounters::DROP_REPLY]},
            {"clients", counted.dropped[CCounters::DROP_CLIENT]}};
}

}  // namespace

CStateService::Section describe_server(StateSources const& sources) {
    return [from = sources, start = Clock::now()](Json& state) {
        CCounters::Snapshot const counted = from.counters.snapshot();
        CThreadPool const& pool = utility::instance<CThreadPool>();
        state["server"] = server(start);
        state["clients"] = clients(from, counted);
        state["components"] = components(from.switchboard);
        state["topics"] = topics(from.topics, counted);
        state["requests"] = {{"received", counted.received}, {"bytes", counted.receivedBytes}};
        state["replies"] = replies(counted);
        state["otherFrames"] = {{"sent", counted.others}, {"bytes", counted.otherBytes}};
        state["dropped"] = drops(counted);
        state["queues"] = {{"messagesForWorkers", messages_for_workers()},
                           {"heldBytes", from.held.held()},
                           {"waitingBytes", from.ledger.waiting()}};
        state["workers"] = {{"count", pool.m_nThreadCount.load()},
                            {"busy", pool.m_nRunning.load()}};
    };
}

}  // namespace kypserver
