#include "kypserver/PortTable.h"

#include "kypcomm/KypStatus.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcore/SocketConnection.h"
#include "utils/Log.h"

namespace kypserver {

namespace {

void call_service(unsigned short port, char const* data, unsigned int size, _msg_request head,
                  void* ctx) {
    static_cast<IService*>(ctx)->serve({port, data, size, head});
}

// A cmp route, since it must tell requests from responses: an answer to a stray response could
// travel to and fro between two servers for ever.
void refuse(CMsgHeader* msg, _KypHeader& header, _AoEHeader& aoe, void* ctx) {
    if (aoe.state != KYP_STATE_REQUEST || is_one_way(utils_ntohs(aoe.cmd))) return;

    KYP_LOG(LOG_LEVEL_INFO, "nobody serves port:%d,client:%s", static_cast<int>(header.port),
            msg->m_pConn->m_szPeerName);
    static_cast<RouteManage*>(ctx)->ErrorResponse(header, aoe, KYP_ERR_ROUTE_NOT_REGISTERED,
                                                  static_cast<IConnection*>(msg->m_pConn));
}

}  // namespace

CPortTable::CPortTable(RouteManage& routes) : m_routes(routes) {}

bool CPortTable::serve(IService& service) {
    return m_routes.addSvrPortRoute(service.port(), call_service, &service) == 0;
}

void CPortTable::refuse_the_rest() {
    for (unsigned short port = kLowestPort; port <= kHighestPort; ++port) {
        if (m_routes.m_ports[port].m_bUsed == 0) m_routes.addCmpPortRoute(port, refuse, &m_routes);
    }
}

}  // namespace kypserver
