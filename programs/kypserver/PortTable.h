// Which service stands behind which logical port. A request for a port that nobody serves is
// answered at once, so that no client waits for its timeout.
//
// Owns:     nothing; the services are the program's.
// Threads:  filled by the main thread before the workers start.
// Lifetime: the routes stay in the library's table to the end of the process.
#ifndef KYP_PROGRAMS_KYPSERVER_PORTTABLE_H
#define KYP_PROGRAMS_KYPSERVER_PORTTABLE_H

#include "kypserver/Service.h"

namespace kypserver {

class CPortTable {
public:
    explicit CPortTable(RouteManage& routes);

    // Gives the requests of the service's port to it. Returns false when the port is taken or is
    // not one.
    bool serve(IService& service);

    // Refuses requests on every port that is still free.
    void refuse_the_rest();

private:
    RouteManage& m_routes;
};

}  // namespace kypserver

#endif
