#include "support/SecondHost.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

namespace {

// Gives the lines to `ip`, in the network of the calling thread.
bool ip_batch(std::string const& lines) {
    return system(("PATH=$PATH:/usr/sbin:/sbin; printf '" + lines + "' | ip -batch -").c_str()) ==
           0;
}

std::string raise_cable(std::string const& address) {
    return "link set lo up\\n"
           "addr add " +
           address +
           "/24 broadcast + dev kyp0\\n"
           "link set kyp0 up\\n"
           "route add default dev kyp0\\n";
}

}  // namespace

SecondHost::SecondHost() : m_network(-1), m_ready(false) {
    std::thread([this] {
        if (unshare(CLONE_NEWNET) == 0) m_network = open("/proc/thread-self/ns/net", O_CLOEXEC);
    }).join();
    if (m_network < 0) return;

    std::string const there =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(m_network);
    m_ready = ip_batch(
        "link add kyp0 type veth peer name kyp1\\n"
        "link set kyp1 netns " +
        there + "\\n" + raise_cable(kHere));
    run([this] {
        m_ready = m_ready && ip_batch("link set kyp1 name kyp0\\n" + raise_cable(kThere));
    });
}

SecondHost::~SecondHost() {
    ip_batch("link del kyp0\\n");
    close(m_network);
}

bool SecondHost::ready() const {
    return m_ready;
}

void SecondHost::run(std::function<void()> const& work) const {
    std::thread([this, &work] {
        if (enter()) work();
    }).join();
}

bool SecondHost::enter() const {
    return setns(m_network, CLONE_NEWNET) == 0;
}
