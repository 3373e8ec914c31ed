// `kypserver` as a child of this process, and the library's client side started beside it.
//
// Lifetime: the server ends with this object or, at the latest, with this process.
#ifndef KYP_BENCH_COMMON_KYPSERVER_H
#define KYP_BENCH_COMMON_KYPSERVER_H

#include <sys/types.h>

#include <string>

class KypServer {
public:
    // Returns when the server takes connections.
    explicit KypServer(std::string const& program);
    ~KypServer();
    KypServer(KypServer const&) = delete;
    KypServer& operator=(KypServer const&) = delete;

    pid_t pid() const { return m_pid; }

private:
    pid_t const m_pid;
};

#endif
