#include "kypserver/Registry.h"

#include <utility>

#include "kypcomm/KypStatus.h"
#include "kypserver/RegistrationBody.h"

namespace kypserver {

namespace {

bool may_be_served(uint32_t port) {
    return port > kHighestReservedPort && port <= kHighestPort;
}

}  // namespace

CRegistry::CRegistry() = default;

void CRegistry::reserve(unsigned short port) {
    if (port <= kHighestPort) m_ports[port].isReserved = true;
}

unsigned int CRegistry::add(CSocketConnection* channel, Component component) {
    if (!is_component_name(component.name)) return KYP_ERR_COMPONENT_NAME;
    if (Component const* const own = find(channel)) {
        return own->name == component.name ? KYP_OK : KYP_ERR_UNSUPPORTED_CALL;
    }
    if (!m_names.emplace(component.name, channel).second) return KYP_ERR_COMPONENT_NAME_TAKEN;

    m_components.emplace(channel, std::move(component));
    return KYP_OK;
}

unsigned int CRegistry::add_port(CSocketConnection* channel, std::string const& name,
                                 uint32_t port) {
    auto const found = m_components.find(channel);
    if (found == m_components.end() || found->second.name != name) {
        return KYP_ERR_COMPONENT_NOT_REGISTERED;
    }
    if (!may_be_served(port)) return KYP_ERR_PORT_RESERVED;

    Port& entry = m_ports[port];
    if (entry.channel == channel) return KYP_OK;
    if (entry.channel != nullptr || entry.isReserved) return KYP_ERR_ROUTE_REGISTERED;
    entry.channel = channel;
    entry.wasServed = true;
    found->second.ports.push_back(static_cast<unsigned short>(port));
    return KYP_OK;
}

bool CRegistry::remove(CSocketConnection* channel) {
    auto const found = m_components.find(channel);
    if (found == m_components.end()) return false;

    for (unsigned short port : found->second.ports) m_ports[port].channel = nullptr;
    m_names.erase(found->second.name);
    m_components.erase(found);
    return true;
}

Component const* CRegistry::find(CSocketConnection* channel) const {
    auto const found = m_components.find(channel);
    return found != m_components.end() ? &found->second : nullptr;
}

CSocketConnection* CRegistry::channel_of(std::string const& name) const {
    auto const found = m_names.find(name);
    return found != m_names.end() ? found->second : nullptr;
}

CSocketConnection* CRegistry::channel_of(uint32_t port) const {
    return port <= kHighestPort ? m_ports[port].channel : nullptr;
}

unsigned int CRegistry::reason(uint32_t port) const {
    bool const wasServed = port <= kHighestPort && m_ports[port].wasServed;
    return wasServed ? KYP_ERR_COMPONENT_OFFLINE : KYP_ERR_ROUTE_NOT_REGISTERED;
}

std::unordered_map<CSocketConnection*, Component> const& CRegistry::all() const {
    return m_components;
}

size_t CRegistry::count() const {
    return m_components.size();
}

}  // namespace kypserver
