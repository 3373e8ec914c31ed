// Which client has called which component, and what waits for an answer.
//
// A client has one number for all components, from its first call until its end. A session joins it
// with one component, from the first request that was passed on until one of the two ends.
//
// A component that is full turns clients away with 0x101b and knows nothing of them afterwards. It
// must not hear of their end either: by then a place may be free, and a component takes the word
// that a stranger has gone for a new client. One that goes before its 0x101b has come counts as
// taken in.
//
// Owns:     its entries.
// Threads:  no lock: its owner has one.
// Lifetime: a client's entry ends with end_client(), which the owner calls for each of them.
#ifndef KYP_PROGRAMS_KYPSERVER_SESSIONS_H
#define KYP_PROGRAMS_KYPSERVER_SESSIONS_H

#include <cstdint>
#include <ctime>
#include <unordered_map>
#include <vector>

#include "kypserver/ClientNumbers.h"
#include "kypserver/PendingRequests.h"

namespace kypserver {

class CSessions {
public:
    // A component that must hear that a client has gone.
    struct Leave {
        CSocketConnection* component;
        unsigned short port;  // the one that the client has called last
        uint16_t number;
    };

    // A request that will not be answered.
    struct Unanswered {
        CSocketConnection* client;
        PendingRequest request;
    };

    enum Verdict {
        FOR_CLIENT,
        CLIENT_HAS_GONE,
        NEVER_CALLED,  // the client of that number has never called this component
    };

    // The number of `client`; 0 when there is none for it.
    uint16_t number(CSocketConnection* client, time_t now);

    // A request of `client`, which has a number, was passed on. `isAwaited` when an answer is to
    // come.
    void passed_on(CSocketConnection* client, CSocketConnection* component,
                   PendingRequest const& request, bool isAwaited);

    // Whose the answer of `component` to request `invokeId` of client `number` is. With FOR_CLIENT,
    // *client is set. `isTurnedAway` when it says that the component has no place for the client.
    Verdict answered(CSocketConnection* component, uint16_t number, uint32_t invokeId,
                     bool isTurnedAway, CSocketConnection** client);

    // Frees the number of `client`, or has it rest. Returns the components that have taken it in.
    std::vector<Leave> end_client(CSocketConnection* client, time_t now);

    // Ends the sessions of `component`: nothing comes from it any more.
    std::vector<Unanswered> end_component(CSocketConnection* component);

    // How many clients have called `component`.
    size_t clients(CSocketConnection const* component) const;

private:
    struct Session {
        CSocketConnection* component;
        unsigned short lastPort;
        uint64_t taken;  // requests passed on that were not turned away
        CPendingRequests pending;
    };
    struct Client {
        uint16_t number;
        std::vector<Session> sessions;
    };

    static Session* find(std::vector<Session>& sessions, CSocketConnection* component);
    void answered_too_late(CSocketConnection* component, uint16_t number, uint32_t invokeId);

    CClientNumbers m_numbers;
    std::unordered_map<CSocketConnection*, Client> m_clients;
    // Of clients that have gone, by the number that rests for them. None is without requests.
    std::unordered_map<uint16_t, std::vector<Session>> m_gone;
};

}  // namespace kypserver

#endif
