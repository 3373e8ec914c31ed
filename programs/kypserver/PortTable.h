// Which service stands behind which logical port.
//
// Owns:     nothing; the services are the program's.
// Threads:  filled by the main thread before the workers start.
// Lifetime: outlives the workers; the routes stay in the library's table to the end of the process.
#ifndef KYP_PROGRAMS_KYPSERVER_PORTTABLE_H
#define KYP_PROGRAMS_KYPSERVER_PORTTABLE_H

#include <deque>

#include "kypserver/FrameHandler.h"
#include "kypserver/Service.h"

namespace kypserver {

class CHeldBytes;
class CStrands;

class CPortTable {
public:
    CPortTable(RouteManage& routes, CHeldBytes& held, CStrands& strands);

    // Gives the requests of the service's port to it. Returns false when the port is taken or is
    // not one.
    bool serve(IService& service);

    // Gives the frames of every port that is still free to `handler`, those of one connection in
    // order.
    void give_the_rest_to(IFrameHandler& handler);

private:
    // A service that keeps the order of its requests, as a handler of frames.
    class OrderedService : public IFrameHandler {
    public:
        OrderedService(IService& service, CHeldBytes& held) : m_service(service), m_held(held) {}
        void handle(CMsgHeader& msg, _KypHeader const& head, _AoEHeader const& aoe) override;

    private:
        IService& m_service;
        CHeldBytes& m_held;
    };
    struct Entry {
        IService* service;
        CHeldBytes* held;
    };
    struct OrderedEntry {
        IFrameHandler* handler;
        CStrands* strands;
    };

    bool serve_in_order(unsigned short port, IFrameHandler& handler);

    static void call_service(unsigned short port, char const* data, unsigned int size,
                             _msg_request head, void* entry);
    static void call_in_order(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe, void* entry);

    RouteManage& m_routes;
    CHeldBytes& m_held;
    CStrands& m_strands;
    std::deque<OrderedService> m_orderedServices;
    std::deque<Entry> m_entries;         // the contexts of the routes
    std::deque<OrderedEntry> m_ordered;  // the same for those that keep the order
};

}  // namespace kypserver

#endif
