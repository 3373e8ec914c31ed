#include "kypserver/Sessions.h"

#include <algorithm>
#include <utility>

namespace kypserver {

uint16_t CSessions::number(CSocketConnection* client, time_t now) {
    auto const found = m_clients.find(client);
    if (found != m_clients.end()) return found->second.number;

    bool wasResting = false;
    uint16_t const number = m_numbers.take(client, now, &wasResting);
    if (number == 0) return 0;
    if (wasResting) m_gone.erase(number);
    m_clients.emplace(client, Client{number, {}});
    return number;
}

void CSessions::passed_on(CSocketConnection* client, CSocketConnection* component,
                          PendingRequest const& request, bool isAwaited) {
    std::vector<Session>& sessions = m_clients.at(client).sessions;
    Session* session = find(sessions, component);
    if (session == nullptr) session = &sessions.emplace_back(Session{component, 0, 0, {}});
    session->lastPort = request.port;
    ++session->taken;
    if (isAwaited) session->pending.add(request);
}

CSessions::Verdict CSessions::answered(CSocketConnection* component, uint16_t number,
                                       uint32_t invokeId, bool isTurnedAway,
                                       CSocketConnection** client) {
    CSocketConnection* const owner = m_numbers.owner(number);
    if (owner == nullptr) {
        answered_too_late(component, number, invokeId);
        return CLIENT_HAS_GONE;
    }
    Session* const session = find(m_clients.at(owner).sessions, component);
    if (session == nullptr) return NEVER_CALLED;

    // A component may also send what nobody has asked for, to a client that it knows.
    session->pending.remove(invokeId);
    if (isTurnedAway && session->taken > 0) --session->taken;
    *client = owner;
    return FOR_CLIENT;
}

std::vector<CSessions::Leave> CSessions::end_client(CSocketConnection* client, time_t now) {
    std::vector<Leave> leaves;
    auto const found = m_clients.find(client);
    if (found == m_clients.end()) return leaves;

    uint16_t const number = found->second.number;
    std::vector<Session> sessions = std::move(found->second.sessions);
    m_clients.erase(found);
    for (Session const& session : sessions) {
        if (session.taken == 0) continue;
        leaves.push_back({session.component, session.lastPort, number});
    }
    sessions.erase(std::remove_if(sessions.begin(), sessions.end(),
                                  [](Session const& s) { return s.pending.empty(); }),
                   sessions.end());
    if (sessions.empty()) {
        m_numbers.release(number);
        return leaves;
    }
    m_numbers.rest(number, now);
    m_gone[number] = std::move(sessions);
    return leaves;
}

std::vector<CSessions::Unanswered> CSessions::end_component(CSocketConnection* component) {
    std::vector<Unanswered> unanswered;
    for (auto& [client, entry] : m_clients) {
        Session* const session = find(entry.sessions, component);
        if (session == nullptr) continue;

        for (PendingRequest const& request : session->pending.all()) {
            unanswered.push_back({client, request});
        }
        entry.sessions.erase(entry.sessions.begin() + (session - entry.sessions.data()));
    }
    for (auto at = m_gone.begin(); at != m_gone.end();) {
        std::vector<Session>& sessions = at->second;
        if (Session* const session = find(sessions, component)) {
            sessions.erase(sessions.begin() + (session - sessions.data()));
        }
        if (!sessions.empty()) {
            ++at;
            continue;
        }
        m_numbers.release(at->first);
        at = m_gone.erase(at);
    }
    return unanswered;
}

size_t CSessions::clients(CSocketConnection const* component) const {
    auto const has = [component](Session const& session) { return session.component == component; };
    return static_cast<size_t>(
        std::count_if(m_clients.begin(), m_clients.end(), [&has](auto const& entry) {
            auto const& sessions = entry.second.sessions;
            return std::any_of(sessions.begin(), sessions.end(), has);
        }));
}

CSessions::Session* CSessions::find(std::vector<Session>& sessions, CSocketConnection* component) {
    auto const found = std::find_if(
        sessions.begin(), sessions.end(),
        [component](Session const& session) { return session.component == component; });
    return found != sessions.end() ? &*found : nullptr;
}

void CSessions::answered_too_late(CSocketConnection* component, uint16_t number,
                                  uint32_t invokeId) {
    auto const gone = m_gone.find(number);
    if (gone == m_gone.end()) return;

    std::vector<Session>& sessions = gone->second;
    Session* const session = find(sessions, component);
    if (session == nullptr || !session->pending.remove(invokeId)) return;
    if (session->pending.empty()) sessions.erase(sessions.begin() + (session - sessions.data()));
    if (!sessions.empty()) return;
    m_gone.erase(gone);
    m_numbers.release(number);
}

}  // namespace kypserver
