#include "kypserver/Spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kypcomm/KypStatus.h"
#include "kypserver/Options.h"
#include "kypserver/ServerLog.h"

namespace kypserver {

namespace {

constexpr char const* kHiddenPrefix = ".kypserver-part-";
constexpr size_t kLongestName = 255;
constexpr mode_t kParentMode = 0755;
constexpr mode_t kDirectoryMode = 0750;
constexpr mode_t kFileMode = 0640;
constexpr int kHiddenNamesTried = 100;
// Writing out begins as a file grows, so that little is left to wait for at its end: the sender
// waits no longer than a second.
constexpr size_t kWriteOutSize = size_t{1} << 20;

bool has_hidden_prefix(std::string const& name) {
    return name.compare(0, strlen(kHiddenPrefix), kHiddenPrefix) == 0;
}

bool is_control(char c) {
    return (c >= 0 && c < ' ') || c == 0x7f;
}

bool is_full(int error) {
    return error == ENOSPC || error == EDQUOT;
}

}  // namespace

std::string spool_name(std::string const& given) {
    if (std::any_of(given.begin(), given.end(), is_control)) return "";
    size_t const slash = given.rfind('/');
    std::string name = slash == std::string::npos ? given : given.substr(slash + 1);
    if (name == "." || name == ".." || name.size() > kLongestName) return "";
    return has_hidden_prefix(name) ? "" : name;
}

// ---- the file ----------------------------------------------------------------------------------

CIncomingFile::CIncomingFile(int directory, int fd, std::string hiddenName)
    : m_directory(directory), m_fd(fd), m_hiddenName(std::move(hiddenName)), m_fresh(0) {}

CIncomingFile::~CIncomingFile() {
    close(m_fd);
    if (!m_hiddenName.empty()) (void)unlinkat(m_directory, m_hiddenName.c_str(), 0);
}

int CIncomingFile::write(char const* data, size_t size) {
    while (size > 0) {
        ssize_t const written = ::write(m_fd, data, size);
        if (written == -1 && errno == EINTR) continue;
        if (written <= 0) {
            int const error = errno;
            report("a file cannot be written: %s", strerror(error));
            return is_full(error) ? KYP_ERR_DISK_FULL : KYP_ERR_WRITE_FILE;
        }
        data += written;
        size -= static_cast<size_t>(written);
        m_fresh += static_cast<size_t>(written);
    }
    if (m_fresh >= kWriteOutSize) {
        (void)sync_file_range(m_fd, 0, 0, SYNC_FILE_RANGE_WRITE);
        m_fresh = 0;
    }
    return KYP_OK;
}

int CIncomingFile::sync() {
    if (fsync(m_fd) == 0) return KYP_OK;
    int const error = errno;
    report("a file cannot be brought to the disk: %s", strerror(error));
    return is_full(error) ? KYP_ERR_DISK_FULL : KYP_ERR_WRITE_FILE;
}

int CIncomingFile::publish(std::string const& name) {
    if (renameat(m_directory, m_hiddenName.c_str(), m_directory, name.c_str()) == -1) {
        report("a file cannot be given its name: %s", strerror(errno));
        return KYP_ERR_CREATE_FILE;
    }
    m_hiddenName.clear();
    // The name is there for everybody; whether it would outlive a power failure is another matter.
    if (fsync(m_directory) == -1) {
        report("a file's name cannot be brought to the disk: %s", strerror(errno));
    }
    return KYP_OK;
}

// ---- the directory -----------------------------------------------------------------------------

CSpool::CSpool() : m_directory(-1), m_nextFile(0) {}

CSpool::~CSpool() {
    if (m_directory != -1) close(m_directory);
}

std::string CSpool::open(std::string const& directory) {
    // The usual place is the server's own; any other is somebody's choice, and a mistyped one shall
    // not come to life.
    if (directory == kUsualSpool) {
        mkdir(directory.substr(0, directory.rfind('/')).c_str(), kParentMode);
        mkdir(directory.c_str(), kDirectoryMode);
    }
    m_directory = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_directory == -1) {
        return "cannot use the directory " + directory + ": " + strerror(errno) +
               "; make it, writable for this user, or choose another --spool-dir";
    }
    if (faccessat(m_directory, ".", W_OK | X_OK, AT_EACCESS) == -1) {
        return "cannot write to the directory " + directory + ": " + strerror(errno) +
               "; make it writable for this user or choose another --spool-dir";
    }
    if (flock(m_directory, LOCK_EX | LOCK_NB) == -1) {
        return errno == EWOULDBLOCK
                   ? directory + " is used by another server; choose another --spool-dir"
                   : "cannot lock " + directory + ": " + strerror(errno) +
                         "; choose another --spool-dir";
    }
    remove_leftovers();
    return "";
}

uint64_t CSpool::room() const {
    struct statvfs status = {};
    if (fstatvfs(m_directory, &status) == -1) return 0;
    return uint64_t{status.f_bavail} * status.f_frsize;
}

int CSpool::begin(std::unique_ptr<CIncomingFile>& file) {
    file = nullptr;
    for (int tries = 0; tries < kHiddenNamesTried; ++tries) {
        std::string const name = kHiddenPrefix + std::to_string(m_nextFile++);
        int const fd = openat(m_directory, name.c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode);
        if (fd != -1) {
            file = std::make_unique<CIncomingFile>(m_directory, fd, name);
            return KYP_OK;
        }
        if (errno == EEXIST) continue;  // somebody else's, whatever it is
        break;
    }
    int const error = errno;
    report("a file cannot be made: %s", strerror(error));
    return is_full(error) ? KYP_ERR_DISK_FULL : KYP_ERR_CREATE_FILE;
}

void CSpool::remove_leftovers() const {
    int const fd = openat(m_directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const entries = fd == -1 ? nullptr : fdopendir(fd);
    if (entries == nullptr) {
        if (fd != -1) close(fd);
        return;
    }
    while (dirent const* entry = readdir(entries)) {
        if (has_hidden_prefix(entry->d_name)) (void)unlinkat(m_directory, entry->d_name, 0);
    }
    closedir(entries);
}

}  // namespace kypserver
