#include "kypserver/RegistrationService.h"

#include <string>

#include "kypcomm/KypStatus.h"
#include "kypcomm/protocol/CompRegisterPackage.h"
#include "kypcore/SocketConnection.h"
#include "kypserver/Connections.h"
#include "kypserver/Errands.h"
#include "kypserver/RegistrationBody.h"
#include "kypserver/SendLedger.h"
#include "kypserver/ServerLog.h"
#include "kypserver/Switchboard.h"
#include "utils/Log.h"

namespace kypserver {

namespace {

std::string printable(std::string_view name) {
    return is_component_name(name) ? std::string(name) : "of an illegal name";
}

}  // namespace

CRegistrationService::CRegistrationService(CConnections const& connections,
                                           CSwitchboard& switchboard, CSendLedger& ledger,
                                           CErrands& errands, std::chrono::milliseconds quietTime)
    : m_connections(connections),
      m_switchboard(switchboard),
      m_ledger(ledger),
      m_errands(errands),
      m_quietTime(quietTime) {}

unsigned short CRegistrationService::port() const {
    return kPortRegister;
}

bool CRegistrationService::in_order() const {
    return true;
}

void CRegistrationService::serve(Request const& request) {
    IConnection* const channel = request.head.conn;
    if (request.state != KYP_STATE_REQUEST) {
        report("the connection of %s is closed: it answers on port 102",
               m_connections.name(channel).c_str());
        return m_connections.hang_up(channel);
    }
    if (is_one_way(request.head.cmd)) {
        return report("a registration of %s is dropped: it has command %u",
                      m_connections.name(channel).c_str(),
                      static_cast<unsigned int>(request.head.cmd));
    }

    RegistrationBody body;
    if (!m_connections.is_local(channel)) return reply(request, body, decide(request, body));
    uint32_t const ticket = m_ledger.hold(channel);
    reply(request, body, decide(request, body));
    keep_quiet(channel, ticket);
}

// However many registrations come on a channel, it has one errand.
void CRegistrationService::keep_quiet(IConnection* channel, uint32_t ticket) {
    std::lock_guard<std::mutex> lock(m_mutex);
    bool const isNew = m_quiet.count(channel) == 0;
    m_quiet[channel] = {ticket, Clock::now() + m_quietTime};
    if (isNew) m_errands.after(m_quietTime, [this, channel] { look_after(channel); });
}

void CRegistrationService::look_after(IConnection* channel) {
    uint32_t ticket = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Quiet const quiet = m_quiet.at(channel);
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(quiet.until - Clock::now());
        if (left.count() > 0) {
            m_errands.after(left, [this, channel] { look_after(channel); });
            return;
        }
        ticket = quiet.ticket;
        m_quiet.erase(channel);
    }
    m_ledger.release(channel, ticket);
}

// Fills `body` as far as the request goes. Returns the verdict.
unsigned int CRegistrationService::decide(Request const& request, RegistrationBody& body) {
    unsigned int const malformed = read_registration(request.data, request.size, body);
    if (!m_connections.is_local(request.head.conn)) return KYP_ERR_PROTOCOL;
    if (request.head.cmd != KYP_CMD_READ_WRITE) return KYP_ERR_COMMAND;
    if (malformed != KYP_OK) return malformed;
    return enter(request, body);
}

unsigned int CRegistrationService::enter(Request const& request, RegistrationBody const& body) {
    auto* const channel = static_cast<CSocketConnection*>(request.head.conn);
    std::string const name(body.name);
    switch (body.cmdId) {
        case kRegisterComponent:
            return m_switchboard.register_component(channel,
                                                    {name, body.drvParam0, body.drvParam1, {}});
        case kRegisterPort:
            return m_switchboard.register_port(channel, name, body.routePort);
        default:
            return KYP_ERR_COMMAND;
    }
}

void CRegistrationService::reply(Request const& request, RegistrationBody const& body,
                                 unsigned int status) {
    std::string const peer = m_connections.name(request.head.conn);
    if (status == KYP_OK) {
        KYP_LOG(LOG_LEVEL_INFO, "component:%s registers,cmd:%d,port:%d,client:%s",
                printable(body.name).c_str(), static_cast<int>(body.cmdId),
                static_cast<int>(body.routePort), peer.c_str());
    } else {
        report("a registration of %s is refused: component %s, command %u, port %u: 0x%x, %s",
               peer.c_str(), printable(body.name).c_str(), static_cast<unsigned int>(body.cmdId),
               body.routePort, status, LibkypGetErrorString(static_cast<int>(status)));
    }
    CompRegisterPackage package(body.type, static_cast<uint16_t>(body.cmdId | kRegisterReply),
                                status, "", body.drvParam0, body.drvParam1, body.routePort);
    package.name = body.name;
    package.nameLen = static_cast<uint16_t>(body.name.size());
    Message const bytes = package.serialization();
    answer(request, status, bytes.data, static_cast<int>(bytes.length));
}

}  // namespace kypserver
