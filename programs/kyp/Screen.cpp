#include "kyp/Screen.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>

#include "kyp/Failure.h"
#include "libkyp/libkyp.h"
#include "utils/Log.h"

namespace kyptool {

namespace {

constexpr int kFirstFreeDescriptor = 3;
constexpr size_t kUsualWidth = 80;

// Standard output as the library finds it from now on; gives what it was.
int divert_standard_output(int verbose) {
    int const results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, kFirstFreeDescriptor);
    int const log = verbose > 0 ? STDERR_FILENO : open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(log, STDOUT_FILENO);
    if (log > STDERR_FILENO) close(log);
    setvbuf(stdout, nullptr, _IOLBF, 0);  // whole lines between those of others
    return results;
}

void start_library(int verbose) {
    int const silence = LOG_LEVEL_COMM + 1;
    if (verbose == 0) SetLogLevel(silence);
    libkyp_init();
    if (verbose == 0) SetLogLevel(silence);  // the start has set it anew
    if (verbose > 1) SetLogLevel(LOG_LEVEL_TRACE);
}

// False with errno set when the rest of `text` could not be written.
bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t const n = write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        text.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

}  // namespace

CScreen::CScreen(bool quiet, int verbose)
    : m_quiet(quiet),
      m_results(divert_standard_output(verbose)),
      m_failed(false),
      m_progressWidth(0) {
    signal(SIGPIPE, SIG_IGN);  // the library writes to sockets whose peer may have gone
    start_library(verbose);
}

void CScreen::print(std::string_view text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    clear_progress_locked();
    write_locked(text);
}

void CScreen::print_json(Json const& value) {
    print(value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n");
}

void CScreen::note(std::string_view text) {
    if (!m_quiet) error(text);
}

void CScreen::error(std::string_view text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    clear_progress_locked();
    (void)write_all(STDERR_FILENO, text);  // there is nobody else to tell
}

void CScreen::progress(std::string_view text) {
    if (m_quiet) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    std::string line = "\r" + std::string(text);
    if (m_progressWidth > text.size()) line.append(m_progressWidth - text.size(), ' ');
    m_progressWidth = text.size();
    (void)write_all(STDERR_FILENO, line);
}

void CScreen::end_progress() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_progressWidth == 0) return;
    m_progressWidth = 0;
    (void)write_all(STDERR_FILENO, "\n");
}

bool CScreen::is_terminal() const {
    return isatty(m_results) == 1;
}

bool CScreen::progress_is_terminal() const {
    return isatty(STDERR_FILENO) == 1;
}

size_t CScreen::width() const {
    winsize size{};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualWidth;
    return size.ws_col;
}

int CScreen::exit_code(int code) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_failed ? int{EXIT_USAGE} : code;
}

void CScreen::on_broken_pipe(std::function<void()> cleanup) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_cleanup = std::move(cleanup);
}

void CScreen::clear_progress_locked() {
    if (m_progressWidth == 0) return;
    (void)write_all(STDERR_FILENO, "\r" + std::string(m_progressWidth, ' ') + "\r");
    m_progressWidth = 0;
}

void CScreen::write_locked(std::string_view text) {
    if (m_failed || write_all(m_results, text)) return;
    int const error = errno;
    if (error == EPIPE) {
        if (m_cleanup) m_cleanup();
        signal(SIGPIPE, SIG_DFL);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        raise(SIGPIPE);
    }
    m_failed = true;
    (void)write_all(STDERR_FILENO,
                    "kyp: the result cannot be written: " + std::string(strerror(error)) + "\n");
}

}  // namespace kyptool
