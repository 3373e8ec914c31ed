// The command-line tool: runs one command on a thread of its own, while this thread waits for its
// end or for a signal that asks for it.

#include <signal.h>

#include <atomic>
#include <exception>
#include <string>
#include <thread>

#include "kyp/CommandLine.h"
#include "kyp/Device.h"
#include "kyp/Failure.h"
#include "libkyp/libkyp.h"

using namespace kyptool;

namespace {

constexpr int kDone = SIGUSR1;  // from the command's thread: its exit code is there

// They come to the main thread alone, and only when it asks for them.
sigset_t take_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int const sig : {SIGINT, SIGTERM, SIGHUP, kDone}) sigaddset(&signals, sig);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void let_signals_end_the_process() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int const sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, sig);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void tell(Failure const& failure, Settings const& settings, CScreen& screen) {
    screen.end_progress();
    screen.error("kyp: " + std::string(failure.what()) + "\n");
    if (!settings.json) return;
    Json error = {{"message", failure.what()}};
    if (failure.status != 0) {
        error["code"] = failure.status;
        error["text"] = libkyp_strerror(failure.status);
    }
    screen.print_json({{"error", error}});
}

int run(ICommand& command, Settings const& settings, CScreen& screen) {
    try {
        return command.run(settings, screen);
    } catch (Failure const& failure) {
        tell(failure, settings, screen);
        return failure.exitCode;
    } catch (std::exception const& error) {  // out of memory, or of threads
        tell({EXIT_USAGE, error.what()}, settings, screen);
        return EXIT_USAGE;
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Never destroyed: threads of the library and of the command may outlive main().
    static auto* const line = new CCommandLine;
    if (auto const code = line->parse(argc, argv)) return *code;

    sigset_t const signals = take_signals();
    static auto* const screen = new CScreen(line->settings().quiet, line->settings().verbose);
    screen->on_broken_pipe(CDevice::close_all);

    static std::atomic<int> result{EXIT_FINE};
    pthread_t const self = pthread_self();
    std::thread([self] {
        result = run(line->command(), line->settings(), *screen);
        pthread_kill(self, kDone);
    }).detach();

    int sig = 0;
    sigwait(&signals, &sig);
    int code = result;
    if (sig != kDone) {
        // A second signal ends the process where it stands: somebody may not read what it prints.
        let_signals_end_the_process();
        code = line->command().interrupted(line->settings(), *screen, sig);
    }
    screen->end_progress();
    CDevice::close_all();
    return screen->exit_code(code);
}
