// Which service stands behind which logical port. A request for a port that nobody serves is
// answered at once, so that no client waits for its timeout.
//
// Owns:     nothing; the services are the program's.
// Threads:  filled by the main thread before the workers start.
// Lifetime: outlives the workers; the routes stay in the library's table to the end of the process.
#ifndef KYP_PROGRAMS_KYPSERVER_PORTTABLE_H
#define KYP_PROGRAMS_KYPSERVER_PORTTABLE_H

#include <deque>

#include "kypserver/Service.h"

namespace kypserver {

class CHeldBytes;

class CPortTable {
public:
    CPortTable(RouteManage& routes, CHeldBytes& held);

    // Gives the requests of the service's port to it. Returns false when the port is taken or is
    // not one.
    bool serve(IService& service);

    // Refuses requests on every port that is still free.
    void refuse_the_rest();

private:
    struct Entry {
        IService* service;
        CHeldBytes* held;
    };

    static void call_service(unsigned short port, char const* data, unsigned int size,
                             _msg_request head, void* entry);
    static void refuse(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe, void* table);
    void answer_refusal(CMsgHeader* msg, _KypHeader const& header, _AoEHeader const& aoe);

    RouteManage& m_routes;
    CHeldBytes& m_held;
    std::deque<Entry> m_entries;  // the contexts of the services' routes
};

}  // namespace kypserver

#endif
