// Keeps a second server off a Unix-domain path.
//
// The library's domain server removes whatever stands at its path. So before it does, this class
// makes sure that nobody listens there and that it is no file of somebody's.
//
// Owns:     a lock on "<path>.lock", held until destruction; the kernel lets go of it whatever ends
//           the process. The file stays.
// Threads:  one.
#ifndef KYP_PROGRAMS_KYPSERVER_PATHGUARD_H
#define KYP_PROGRAMS_KYPSERVER_PATHGUARD_H

#include <string>

namespace kypserver {

class CPathGuard {
public:
    CPathGuard();
    ~CPathGuard();
    CPathGuard(CPathGuard const&) = delete;
    CPathGuard& operator=(CPathGuard const&) = delete;

    // Makes `path` this process's. Of missing directories only /var/tmp/kyp is made. Returns an
    // empty text, or what is in the way and what to do about it.
    std::string take(std::string const& path);

private:
    std::string check_directory(std::string const& directory);
    std::string lock(std::string const& path);

    int m_lockFd;  // -1 until locked
};

}  // namespace kypserver

#endif
