// Start and end of the library's server core: buffers, connection records, event loops, workers.
//
// Threads:  the main thread.
// Lifetime: one start and one stop in a process; the library allows no more.
#ifndef KYP_PROGRAMS_KYPSERVER_SERVERCORE_H
#define KYP_PROGRAMS_KYPSERVER_SERVERCORE_H

#include <string>

#include "kypserver/Options.h"

namespace kypserver {

class CErrands;

class CServerCore {
public:
    CServerCore(Options const& options, CErrands& errands);

    // stop().
    ~CServerCore();
    CServerCore(CServerCore const&) = delete;
    CServerCore& operator=(CServerCore const&) = delete;

    // Fills the pools. Before anything is opened or started.
    void prepare();

    // Starts loops and workers. Returns an empty text, or what is in the way and what to do.
    std::string start();

    // Ends errands, loops, then workers: an errand may need a loop, no message comes in when the
    // workers have gone, and a worker's last answer still finds its loop. Waits for both, half a
    // second at most for idle ones.
    void stop();

private:
    Options const& m_options;
    CErrands& m_errands;
    bool m_bRunning;
};

}  // namespace kypserver

#endif
