#include "kypserver/PortTable.h"

#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/Strands.h"

namespace kypserver {

CPortTable::CPortTable(RouteManage& routes, CHeldBytes& held, CStrands& strands)
    : m_routes(routes), m_held(held), m_strands(strands) {}

bool CPortTable::serve(IService& service) {
    if (service.in_order()) {
        m_orderedServices.emplace_back(service, m_held);
        return serve_in_order(service.port(), m_orderedServices.back());
    }
    m_entries.push_back({&service, &m_held});
    if (m_routes.addSvrPortRoute(service.port(), call_service, &m_entries.back()) == 0) return true;
    m_entries.pop_back();
    return false;
}

bool CPortTable::serve_in_order(unsigned short port, IFrameHandler& handler) {
    m_ordered.push_back({&handler, &m_strands});
    if (m_routes.addCmpPortRoute(port, call_in_order, &m_ordered.back()) != 0) {
        m_ordered.pop_back();
        return false;
    }
    m_strands.order(port);
    return true;
}

void CPortTable::give_the_rest_to(IFrameHandler& handler) {
    for (unsigned short port = kLowestPort; port <= kHighestPort; ++port) {
        if (m_routes.m_ports[port].m_bUsed == 0) serve_in_order(port, handler);
    }
}

void CPortTable::call_service(unsigned short port, char const* data, unsigned int size,
                              _msg_request head, void* entry) {
    Entry const& own = *static_cast<Entry const*>(entry);
    own.service->serve({port, data, size, head, own.held});
    own.held->served(head.conn, size);
}

// A cmp route, since a message that has come too early must be taken out of the worker's hands.
void CPortTable::call_in_order(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe, void* entry) {
    OrderedEntry const& own = *static_cast<OrderedEntry const*>(entry);
    own.strands->handle(*msg, header, aoe, *own.handler);
}

void CPortTable::OrderedService::handle(CMsgHeader& msg, _KypHeader const& head,
                                        _AoEHeader const& aoe) {
    Request const request = read_request(msg, head, aoe, m_held);
    m_service.serve(request);
    m_held.served(request.head.conn, request.size);
}

}  // namespace kypserver
