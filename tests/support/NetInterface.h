// A network interface that exists for one test. Works inside the sandbox only.
//
// Owns:     the interface and the far end of its cable, whose name begins with "tap" so that no
//           list shows it.
#ifndef KYP_TESTS_SUPPORT_NETINTERFACE_H
#define KYP_TESTS_SUPPORT_NETINTERFACE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

class NetInterface {
public:
    NetInterface(std::string name, std::string const& mac) : m_name(std::move(name)) {
        ip("link add " + m_name + " address " + mac + " type veth peer name tap_" + m_name);
    }
    ~NetInterface() { ip("link del " + m_name); }
    NetInterface(NetInterface const&) = delete;
    NetInterface& operator=(NetInterface const&) = delete;

    // Without a length of the network, so that no route comes with the address.
    NetInterface& with_address(std::string const& address) {
        ip("addr add " + address + "/32 dev " + m_name);
        return *this;
    }

    NetInterface& without_address() {
        ip("addr flush dev " + m_name);
        return *this;
    }

    NetInterface& up() {
        ip("link set " + m_name + " up");
        return *this;
    }

private:
    static void ip(std::string const& arguments) {
        EXPECT_EQ(0, std::system(("ip " + arguments).c_str())) << arguments;
    }

    std::string m_name;
};

#endif
