// A small server inside the test's own process: three loops, four workers, routes that a test
// names. It knows nothing that the server core does not do by itself.
//
// Owns:     its endpoints. Loops, records and workers are the process's.
// Threads:  routes run on the workers, several at once.
// Lifetime: one per process: workers cannot be started a second time. Clients of the same process
//           may outlive it.
#ifndef KYP_TESTS_SUPPORT_CORESERVER_H
#define KYP_TESTS_SUPPORT_CORESERVER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kypcore/router/RouteManage.h"
#include "support/FrameBytes.h"

class CSocketConnection;
class ISocketServer;

class CoreServer {
public:
    using Route = std::function<void(_msg_request const& request, uint16_t port, Bytes data)>;

    // No port from here on has a route.
    static constexpr uint16_t kUnservedPort = 700;

    // Serves port 100, which sends every payload back, and nothing else yet.
    CoreServer();
    ~CoreServer();
    CoreServer(CoreServer const&) = delete;
    CoreServer& operator=(CoreServer const&) = delete;

    // Each gives false when the endpoint could not be opened.
    bool listen_tcp(uint16_t port = 9999);
    bool listen_unix(std::string const& path = "/var/tmp/kyp/kypserver");
    bool listen_udp(uint16_t port = 38898);

    // Serves `port`, below kUnservedPort, from now on.
    void serve(uint16_t port, Route route);

    // Answers `request`, which came on `port`.
    static void answer(_msg_request const& request, uint16_t port, Bytes const& payload,
                       uint32_t error = 0);

    // The accepted connections that are open at this moment.
    std::vector<CSocketConnection*> connections();

    // Has the kernel end every accepted connection; clients see an orderly close.
    void drop_connections();

private:
    static void call_route(unsigned short port, char const* data, unsigned int size,
                           _msg_request request, void* self);
    Route route(uint16_t port);
    bool watch(std::unique_ptr<ISocketServer> server, bool isStream);

    std::vector<std::unique_ptr<ISocketServer>> m_servers;
    std::mutex m_routeMutex;
    std::map<uint16_t, Route> m_routes;  // guarded by m_routeMutex
};

#endif
