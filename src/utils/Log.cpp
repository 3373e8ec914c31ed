#include "utils/Log.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "utils/comm.h"

namespace {

constexpr size_t kMaxMessage = 8192;

constexpr char kProduct[] = "libkyp";
constexpr char kWhite[] = "\x1b[37m";
constexpr char kGreen[] = "\x1b[32m";
constexpr char const* kColours[] = {"\x1b[31m", "\x1b[33m"};  // red, yellow
constexpr int kRed = 0;
constexpr int kYellow = 1;

std::atomic<int> s_threshold{0};  // relaxed: a line more or less while it changes
std::mutex s_lineMutex;           // the innermost lock of the process; orders whole lines

bool is_filtered(int level) {
    return s_threshold.load(std::memory_order_relaxed) > level;
}

// A failed call's errno survives the line that tells of it.
class ErrnoKeeper {
public:
    ErrnoKeeper() : m_errno(errno) {}
    ~ErrnoKeeper() { errno = m_errno; }
    ErrnoKeeper(ErrnoKeeper const&) = delete;
    ErrnoKeeper& operator=(ErrnoKeeper const&) = delete;

private:
    int m_errno;
};

char const* file_name(char const* path) {
    if (path == nullptr) return "";
    char const* const slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

void print_placed_line(int level, char const* file, char const* func, int line,
                       char const* message) {
    int colour = kYellow;
    char const* const name = GetLogLevelStr(level, &colour);

    std::lock_guard<std::mutex> lock(s_lineMutex);
    auto const thread = static_cast<unsigned int>(syscall(SYS_gettid));
    printf("%s %s[%s,%s,%s,%s,%d,%u]%s:%s\n", CComm::GetCurrentTimeMs().c_str(), kColours[colour],
           kProduct, name, file_name(file), func, line, thread, kWhite, message);
}

void print_plain_line(int level, char const* message) {
    int colour = kYellow;
    char const* const name = GetLogLevelStr(level, &colour);

    std::lock_guard<std::mutex> lock(s_lineMutex);
    auto const thread = static_cast<unsigned int>(pthread_self());
    printf("%s %s[%s,%s]%s ,0x%x:%s\n", CComm::GetCurrentTimeMs().c_str(), kGreen, kProduct, name,
           kWhite, thread, message);
}

// The two below stand apart from their callers, so that a filtered line neither clears the message
// buffer nor reserves stack for it.
__attribute__((noinline, format(printf, 5, 0))) void log_placed(int level, char const* file,
                                                                char const* func, int line,
                                                                char const* fmt, va_list args) {
    ErrnoKeeper keeper;
    char message[kMaxMessage] = {};
    vsnprintf(message, sizeof message, fmt, args);
    message[kMaxMessage - 1] = '\0';
    print_placed_line(level, file, func, line, message);
}

__attribute__((noinline, format(printf, 2, 0))) void log_plain(int level, char const* fmt,
                                                               va_list args) {
    ErrnoKeeper keeper;
    char message[kMaxMessage] = {};
    vsnprintf(message, sizeof message, fmt, args);
    message[kMaxMessage - 1] = '\0';
    print_plain_line(level, message);
}

}  // namespace

void SetLogLevel(int level) {
    s_threshold.store(level, std::memory_order_relaxed);
}

char const* GetLogLevelStr(int level, int* colourIndex) {
    // Kept: CRITICAL is yellow like the harmless levels; only WARNING and ERROR are red.
    *colourIndex = level == LOG_LEVEL_WARNING || level == LOG_LEVEL_ERROR ? kRed : kYellow;
    switch (level) {
        case LOG_LEVEL_TRACE:
            return "TRACE";
        case LOG_LEVEL_DEBUG:
            return "DEBUG";
        case LOG_LEVEL_INFO:
            return "INFO";
        case LOG_LEVEL_WARNING:
            return "WARNING";
        case LOG_LEVEL_ERROR:
            return "ERROR";
        case LOG_LEVEL_CRITICAL:
            return "CRITICAL";
        case LOG_LEVEL_NOTICE:
            return "NOTICE";
        case LOG_LEVEL_COMM:
            return "COMM";
        default:
            return "UNKNOWN";
    }
}

void utils_log_message(int level, char const* file, char const* func, int line, char const* fmt,
                       ...) {
    if (is_filtered(level)) return;

    va_list args;
    va_start(args, fmt);
    log_placed(level, file, func, line, fmt, args);
    va_end(args);
}

void utils_log_message(int level, char const* fmt, ...) {
    if (is_filtered(level)) return;

    va_list args;
    va_start(args, fmt);
    log_plain(level, fmt, args);
    va_end(args);
}
