#include "kypserver/PortTable.h"

#include <algorithm>

#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/HeldBytes.h"
#include "kypserver/Strands.h"
#include "utils/Log.h"

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

void CPortTable::serve_range(unsigned short first, unsigned short last, IFrameHandler& handler) {
    for (unsigned int port = first; port <= last; ++port) {
        if (m_routes.m_ports[port].m_bUsed != 0) continue;
        serve_in_order(static_cast<unsigned short>(port), handler);
    }
}

void CPortTable::refuse_the_rest() {
    for (unsigned short port = kLowestPort; port <= kHighestPort; ++port) {
        if (m_routes.m_ports[port].m_bUsed == 0) m_routes.addCmpPortRoute(port, refuse, this);
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

// A cmp route, since it must tell requests from responses: an answer to a stray response could
// travel to and fro between two servers for ever.
void CPortTable::refuse(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe, void* table) {
    CPortTable& self = *static_cast<CPortTable*>(table);
    if (aoe.state == KYP_STATE_REQUEST && !is_one_way(utils_ntohs(aoe.cmd))) {
        self.answer_refusal(msg, header, aoe);
    }
    int const payload = msg->GetVaildSize() - static_cast<int>(sizeof(AoERequestHeader));
    self.m_held.served(msg->m_pConn, static_cast<size_t>(std::max(payload, 0)));
}

void CPortTable::answer_refusal(CMsgHeader* msg, _KypHeader const& header, _AoEHeader const& aoe) {
    KYP_LOG(LOG_LEVEL_INFO, "nobody serves port:%d,client:%s", static_cast<int>(header.port),
            msg->m_pConn->m_szPeerName);
    m_held.answering(msg->m_pConn, 0);
    m_routes.ErrorResponse(header, aoe, KYP_ERR_ROUTE_NOT_REGISTERED,
                           static_cast<IConnection*>(msg->m_pConn));
}

}  // namespace kypserver
