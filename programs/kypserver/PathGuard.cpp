#include "kypserver/PathGuard.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kypserver {

namespace {

constexpr char const* kUsualDirectory = "/var/tmp/kyp";
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kLockMode = 0600;

std::string taken(std::string const& path) {
    return path + " is served by another program; stop it or choose another --domain-path";
}

// Asks as a client would. A full queue of waiting clients is somebody's, too.
bool somebody_listens(std::string const& path) {
    int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd == -1) return false;

    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    bool const answered =
        connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN;
    close(fd);
    return answered;
}

std::string check_path(std::string const& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) == -1) return "";
    if (!S_ISSOCK(status.st_mode)) {
        return path + " exists and is no socket; remove it or choose another --domain-path";
    }
    return somebody_listens(path) ? taken(path) : "";
}

}  // namespace

CPathGuard::CPathGuard() : m_lockFd(-1) {}

CPathGuard::~CPathGuard() {
    if (m_lockFd != -1) close(m_lockFd);
}

std::string CPathGuard::take(std::string const& path) {
    size_t const slash = path.rfind('/');
    std::string const directory =
        slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    std::string problem = check_directory(directory);
    if (problem.empty()) problem = lock(path);
    if (problem.empty()) problem = check_path(path);
    return problem;
}

std::string CPathGuard::check_directory(std::string const& directory) {
    // The usual place is the server's own; any other is somebody's choice, and a mistyped one shall
    // not come to life.
    if (directory == kUsualDirectory) mkdir(directory.c_str(), kDirectoryMode);

    struct stat status;
    if (stat(directory.c_str(), &status) == -1) {
        return "cannot use the directory " + directory + ": " + strerror(errno) +
               "; make it, writable for this user, or choose another --domain-path";
    }
    if (!S_ISDIR(status.st_mode)) {
        return directory + " is no directory; remove it or choose another --domain-path";
    }
    if (access(directory.c_str(), W_OK | X_OK) == -1) {
        return "cannot write to the directory " + directory + ": " + strerror(errno) +
               "; make it writable for this user or choose another --domain-path";
    }
    return "";
}

std::string CPathGuard::lock(std::string const& path) {
    std::string const lockPath = path + ".lock";
    m_lockFd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLockMode);
    if (m_lockFd == -1) {
        return "cannot open " + lockPath + ": " + strerror(errno) +
               "; remove it or choose another --domain-path";
    }
    if (flock(m_lockFd, LOCK_EX | LOCK_NB) == 0) return "";
    if (errno == EWOULDBLOCK) return taken(path);
    return "cannot lock " + lockPath + ": " + strerror(errno) + "; choose another --domain-path";
}

}  // namespace kypserver
