// What port 104 tells of the server and of those that use it.
#ifndef KYP_PROGRAMS_KYPSERVER_SERVERSTATE_H
#define KYP_PROGRAMS_KYPSERVER_SERVERSTATE_H

#include "kypserver/StateService.h"

namespace kypserver {

class CConnections;
class CCounters;
class CHeldBytes;
class CSendLedger;
class CSwitchboard;
class CTopicBroker;
struct Options;

// Who knows about what. All of them outlive the section that describe_server() makes.
struct StateSources {
    Options const& options;
    CConnections const& connections;
    CTopicBroker const& topics;
    CSwitchboard const& switchboard;
    CSendLedger const& ledger;
    CHeldBytes const& held;
    CCounters const& counters;
};

// The section with everything that `sources` know. The uptime counts from this call.
CStateService::Section describe_server(StateSources const& sources);

}  // namespace kypserver

#endif
