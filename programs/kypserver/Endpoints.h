// The sockets that clients reach this server by.
//
// Owns:     the library's servers behind the sockets.
// Threads:  the main thread.
// Lifetime: opened before the loops start, destroyed behind their end.
#ifndef KYP_PROGRAMS_KYPSERVER_ENDPOINTS_H
#define KYP_PROGRAMS_KYPSERVER_ENDPOINTS_H

#include <memory>
#include <string>

#include "kypserver/Options.h"
#include "kypserver/PathGuard.h"
#include "kypserver/StreamEndpoint.h"
#include "kypserver/UdpEndpoint.h"

namespace kypserver {

class CEndpoints {
public:
    CEndpoints(Options const& options, Traffic const& traffic);
    ~CEndpoints();
    CEndpoints(CEndpoints const&) = delete;
    CEndpoints& operator=(CEndpoints const&) = delete;

    // Opens what the options name; clients that come now wait for serve(). Returns an empty text,
    // or what is in the way and what to do about it, in one line.
    std::string open();

    // Has the loops serve what is open. Returns as open() does.
    std::string serve();

    // "tcp 0.0.0.0:9999, domain /var/tmp/kyp/kypserver": what is open, with the true ports.
    std::string describe() const;

private:
    std::string open_tcp();
    std::string open_domain();
    std::string open_udp();

    Options const& m_options;
    Traffic const m_traffic;
    CPathGuard m_pathGuard;  // lets go behind the end of m_domain
    std::unique_ptr<CTcpEndpoint> m_tcp;
    std::unique_ptr<CDomainEndpoint> m_domain;
    std::unique_ptr<CUdpEndpoint> m_udp;
};

}  // namespace kypserver

#endif
