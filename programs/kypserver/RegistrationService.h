// Port 102: takes components and their ports in.
//
// A component that registers takes the next frame on its channel for the reply, whatever it is, and
// it mostly registers several things in a row. So from the moment at which its request is read here
// other frames for it are kept back, until it has been quiet for a while.
//
// Owns:     an entry for each channel that is kept quiet, with one errand for it.
// Threads:  serve() on any worker.
// Lifetime: outlives the workers and the errands.
#ifndef KYP_PROGRAMS_KYPSERVER_REGISTRATIONSERVICE_H
#define KYP_PROGRAMS_KYPSERVER_REGISTRATIONSERVICE_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "kypserver/Service.h"

namespace kypserver {

class CConnections;
class CErrands;
class CSendLedger;
class CSwitchboard;
struct RegistrationBody;

class CRegistrationService : public IService {
public:
    CRegistrationService(CConnections const& connections, CSwitchboard& switchboard,
                         CSendLedger& ledger, CErrands& errands,
                         std::chrono::milliseconds quietTime);

    unsigned short port() const override;
    bool in_order() const override;

    // Every request with a command that awaits an answer gets one, with the verdict in its body and
    // in its head: what CSwitchboard says, 0x100b for a peer that did not come over the Unix-domain
    // socket, 0x1009 for a command that is not 9 or a body that asks for nothing known, 0x100c or
    // 0x1004 for a body that is too short or too long. A peer that sends a response loses its
    // connection.
    void serve(Request const& request) override;

private:
    using Clock = std::chrono::steady_clock;

    // A channel that is kept quiet.
    struct Quiet {
        uint32_t ticket;  // of the ledger
        Clock::time_point until;
    };

    unsigned int decide(Request const& request, RegistrationBody& body);
    unsigned int enter(Request const& request, RegistrationBody const& body);
    void reply(Request const& request, RegistrationBody const& body, unsigned int status);
    void keep_quiet(IConnection* channel, uint32_t ticket);
    void look_after(IConnection* channel);

    CConnections const& m_connections;
    CSwitchboard& m_switchboard;
    CSendLedger& m_ledger;
    CErrands& m_errands;
    std::chrono::milliseconds const m_quietTime;
    std::mutex m_mutex;  // guards m_quiet; outside the errands' lock
    std::unordered_map<IConnection*, Quiet> m_quiet;
};

}  // namespace kypserver

#endif
