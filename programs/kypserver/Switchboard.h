// Joins clients and components: brings requests to the component that serves their port and its
// answers back to the client that has asked. A request for a port that nobody serves is answered at
// once, so that no client waits for its timeout.
//
// Owns:     who is registered, and who has called whom.
// Threads:  handle() and the registrations on any worker, end() on the loop threads. One lock makes
//           each a single step: nothing is passed on behind the word that a client has gone, and
//           every request is either passed on before its component ends or refused. It spans the
//           queueing and is outside the locks of the ledger, the connections and the library.
// Lifetime: outlives the loops and the workers.
#ifndef KYP_PROGRAMS_KYPSERVER_SWITCHBOARD_H
#define KYP_PROGRAMS_KYPSERVER_SWITCHBOARD_H

#include <mutex>
#include <string>
#include <vector>

#include "kypserver/FrameHandler.h"
#include "kypserver/Registry.h"
#include "kypserver/Sessions.h"

class CSocketConnection;
class IConnection;

namespace kypserver {

class CConnections;
class CCounters;
class CHeldBytes;
class CSendLedger;

class CSwitchboard : public IFrameHandler {
public:
    CSwitchboard(CConnections const& connections, CSendLedger& ledger, CHeldBytes& held,
                 CCounters& counters);

    // Keeps a port that the server itself serves from the components.
    void reserve(unsigned short port);

    // A request goes to its port's component, with the client's number in front of its payload.
    // Refused are, with the code in the answer: a port that nobody serves (0x1006) or whose
    // component has gone (0x4004), a frame that has no third head (0x100c) or would be too long for
    // the component (0x100d), a component that has more waiting than may (0x1011), a client when
    // all numbers are in use (0x101b).
    //
    // Anything else is a component's answer, on whichever port from 501 on, and goes to the client
    // of the number in it, without its forward head. An answer to a client that has gone is
    // dropped, one to a client that has never called the component, or on a reserved port, is
    // reported, too. Whoever answers without being a component loses its connection, and so does a
    // client for whom too much is held.
    void handle(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe) override;

    // As CRegistry's. A name or a port that a component has left without the loop knowing it yet is
    // free. A channel that has closed is refused with 5.
    unsigned int register_component(CSocketConnection* channel, Component component);
    unsigned int register_port(CSocketConnection* channel, std::string const& name, uint32_t port);

    // `conn` is closing. As a component it frees its name and ports, and what waits for its answers
    // is refused with 0x4004. As a client it is reported to each component that has taken it in.
    void end(IConnection* conn);

    size_t components() const;

    struct ComponentState {
        std::string name;
        std::vector<unsigned short> ports;
        size_t clients;       // that have called it and are still there
        size_t waitingBytes;  // towards it
    };
    std::vector<ComponentState> state() const;  // in the order of the names

private:
    // What somebody has done wrong, told and acted upon when the lock is free again.
    struct Fault {
        std::string text;                 // empty: none
        IConnection* hangUpOn = nullptr;  // null: nobody loses a connection
    };

    unsigned int pass_on(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe,
                         Fault& fault);
    void lead_back(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe, Fault& fault);
    void give_to_client(CSocketConnection* client, CMsgHeader& msg, _KypHeader const& head,
                        _AoEHeader const& aoe, Fault& fault);
    void make_way(CSocketConnection* owner, CSocketConnection* channel,
                  std::vector<CSessions::Unanswered>& unanswered);
    void refuse(CSocketConnection* client, PendingRequest const& request, unsigned int status);
    void refuse_all(std::vector<CSessions::Unanswered> const& unanswered);
    void act_on(Fault const& fault);

    CConnections const& m_connections;
    CSendLedger& m_ledger;
    CHeldBytes& m_held;
    CCounters& m_counters;
    mutable std::mutex m_mutex;  // guards the two below
    CRegistry m_registry;
    CSessions m_sessions;
};

}  // namespace kypserver

#endif
