// The reference server: puts the parts together, says when clients can come, and waits for its end.

#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "kypcomm/KypDeviceIdGenerator.h"
#include "kypserver/Connections.h"
#include "kypserver/Counters.h"
#include "kypserver/EchoService.h"
#include "kypserver/Endpoints.h"
#include "kypserver/Errands.h"
#include "kypserver/FileService.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/IdentityService.h"
#include "kypserver/Options.h"
#include "kypserver/PortTable.h"
#include "kypserver/RegistrationService.h"
#include "kypserver/ScanResponder.h"
#include "kypserver/SendLedger.h"
#include "kypserver/ServerCore.h"
#include "kypserver/ServerLog.h"
#include "kypserver/ServerState.h"
#include "kypserver/StateService.h"
#include "kypserver/Strands.h"
#include "kypserver/Switchboard.h"
#include "kypserver/TopicBroker.h"
#include "utils/Log.h"

using namespace kypserver;

namespace {

constexpr rlim_t kOwnDescriptors = 64;  // what the server opens for itself, and some to spare

// Signals come to the main thread alone, and only when it asks for them.
sigset_t take_signals() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    // The library writes to sockets whose peer may have gone.
    signal(SIGPIPE, SIG_IGN);
    return ends;
}

int log_threshold(int verbose) {
    if (verbose == 0) return LOG_LEVEL_ERROR;
    return verbose == 1 ? LOG_LEVEL_DEBUG : LOG_LEVEL_TRACE;
}

// A server that runs out of descriptors can not even turn a client away.
void fit_to_descriptors(size_t& maxClients) {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == -1) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    rlim_t const room = limit.rlim_cur > 2 * kOwnDescriptors ? limit.rlim_cur - kOwnDescriptors
                                                             : limit.rlim_cur / 2;
    if (room >= maxClients) return;
    maxClients = room;
    report("only %zu clients have room: raise the limit of open files for more", maxClients);
}

// Works without an id as well: clients then reach this device by its address alone.
void load_device_id() {
    _KypDeviceId const id = utility::instance<CKypDeviceIdGenerator>().GetLocalDeviceId();
    _KypDeviceId const none = {};
    if (memcmp(&id, &none, sizeof id) == 0) {
        report(
            "this device has no id: there is neither an IPv4 address nor one in "
            "/opt/kyp/kypdevice.xml");
    }
}

int fail(std::string const& problem) {
    fprintf(stderr, "kypserver: %s\n", problem.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (auto const code = parse_options(argc, argv, options)) return *code;

    sigset_t const ends = take_signals();
    setvbuf(stdout, nullptr, _IOLBF, 0);  // whole lines at once, also into a file
    fit_to_descriptors(options.maxClients);
    // The pool announces its size above every other level.
    SetLogLevel(options.verbose > 0 ? log_threshold(options.verbose) : LOG_LEVEL_COMM);

    CConnections connections(options.maxClients);
    CCounters counters;
    CSendLedger ledger(connections, options.maxWaitingBytes, options.maxComponentBytes);
    CHeldBytes held(options.maxHeldBytes);
    connections.on_begin([&](IConnection* conn) {
        held.begin(conn);
        counters.accepted();
    });
    CStrands strands;
    CErrands errands;
    CEchoService echo;
    CIdentityService identity(options.allowSetId, errands);
    CTopicBroker topics(connections, ledger, counters, options.maxTopics);
    CSwitchboard switchboard(connections, ledger, held, counters);
    CRegistrationService registration(connections, switchboard, ledger, errands,
                                      std::chrono::milliseconds(options.quietMs));
    CStateService state;
    state.add(describe_server({options, connections, topics, switchboard, ledger, held, counters}));
    CFileService files(options.files, connections);
    connections.on_end([&](IConnection* conn) {
        strands.end(conn);
        files.end(conn);
        topics.end(conn);
        switchboard.end(conn);
        ledger.closed(conn);  // last: nothing more is offered now
    });

    CPortTable ports(utility::instance<RouteManage>(), held, strands);
    for (IService* service : {static_cast<IService*>(&echo), static_cast<IService*>(&identity),
                              static_cast<IService*>(&registration),
                              static_cast<IService*>(&topics), static_cast<IService*>(&state)}) {
        ports.serve(*service);
    }
    if (options.files.receive && !ports.serve(files)) {
        return fail("port " + std::to_string(options.files.port) +
                    " has another service; choose another --file-port");
    }
    if (options.files.receive) switchboard.reserve(files.port());
    ports.give_the_rest_to(switchboard);

    CEndpoints endpoints(options, {connections, ledger, held, strands, counters});
    CServerCore core(options, errands);
    core.prepare();
    SetLogLevel(log_threshold(options.verbose));

    std::string problem = endpoints.open();
    if (problem.empty()) problem = files.open();
    if (problem.empty()) problem = core.start();
    if (problem.empty()) problem = endpoints.serve();
    if (!problem.empty()) return fail(problem);
    load_device_id();
    CScanResponder scans;
    if (options.scan) (void)scans.start();

    printf("kypserver ready: %s%s\n", endpoints.describe().c_str(), files.describe().c_str());
    fflush(stdout);
    int sig = 0;
    sigwait(&ends, &sig);
    scans.stop();
    files.stop();  // its answers need the loops
    core.stop();
    return 0;
}
