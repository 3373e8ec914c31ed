// The components and the ports that they serve.
//
// Owns:     its entries.
// Threads:  no lock: its owner has one.
// Lifetime: an entry lives from its component's registration until remove().
#ifndef KYP_PROGRAMS_KYPSERVER_REGISTRY_H
#define KYP_PROGRAMS_KYPSERVER_REGISTRY_H

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "kypcomm/KypWire.h"

class CSocketConnection;

namespace kypserver {

struct Component {
    std::string name;
    uint32_t drvParam0;  // told by the component; nobody asks for them here
    uint32_t drvParam1;
    std::vector<unsigned short> ports;
};

class CRegistry {
public:
    CRegistry();

    // `port` is served by the server itself: no component may have it.
    void reserve(unsigned short port);

    // Makes `channel` the channel of a component. Returns 0, also when it is just that already;
    // 0x4005 for an illegal name, 0x4003 for one that another channel has, 0x1018 when the channel
    // is that of a component with another name.
    unsigned int add(CSocketConnection* channel, Component component);

    // Has the component `name` on `channel` serve `port`. Returns 0, also when it does already;
    // 0x4001 when it is not registered there, 0x1012 for a port outside 501..4096, 0x1007 for one
    // that another component or the server itself serves.
    unsigned int add_port(CSocketConnection* channel, std::string const& name, uint32_t port);

    // Frees name and ports. Returns false when `channel` is not that of a component.
    bool remove(CSocketConnection* channel);

    // Null when there is none.
    Component const* find(CSocketConnection* channel) const;
    CSocketConnection* channel_of(std::string const& name) const;
    CSocketConnection* channel_of(uint32_t port) const;

    // Why nobody serves `port`: 0x4004 when its component has gone, 0x1006 when it never had one.
    unsigned int reason(uint32_t port) const;

    size_t count() const;  // components
    std::unordered_map<CSocketConnection*, Component> const& all() const;

private:
    struct Port {
        CSocketConnection* channel = nullptr;
        bool wasServed = false;
        bool isReserved = false;
    };

    std::unordered_map<CSocketConnection*, Component> m_components;
    std::unordered_map<std::string, CSocketConnection*> m_names;
    std::array<Port, kHighestPort + 1> m_ports;
};

}  // namespace kypserver

#endif
