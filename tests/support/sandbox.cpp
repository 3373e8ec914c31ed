// kyp_sandbox COMMAND ARGS...
//
// Runs a command in private user, mount, network and process namespaces, as user 0 of its own:
// fresh tmpfs at /opt/kyp, /var/tmp/kyp, /tmp and /dev/shm, loopback up and no other way out.
// Commands that run at the same time never meet, whatever paths and ports they use, and what they
// leave goes with them. Exit code, signals and death of the command are passed on; a killed runner
// takes the command and all that it started along.
//
// Where a user may not make namespaces, it says so and falls back to those of root, one command at
// a time. KYP_SANDBOX_ROAD=root takes that road at once.
//
// KYP_SANDBOX_IVSHM=FILE makes FILE the /usr/lib/libivshmAPI.so of the command.
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "support/CoverFolder.h"

namespace {

constexpr int kRunnerFailed = 125;  // the sandbox itself could not be made
constexpr int kCannotRun = 127;     // the command could not be started, as a shell says it

// One way of making the namespaces. Without a process namespace the keeper hunts down what the
// command leaves; some containers refuse the fresh /proc that such a namespace needs.
struct Road {
    char const* name;
    int flags;
};

constexpr int kPlain = CLONE_NEWNS | CLONE_NEWNET;
constexpr Road kRoads[] = {
    {"user", CLONE_NEWUSER | CLONE_NEWPID | kPlain},
    {"user", CLONE_NEWUSER | kPlain},
    {"root", CLONE_NEWPID | kPlain},
    {"root", kPlain},
};

// What the keeper tells the runner through their pipe.
struct Report {
    enum Kind { READY, FAILED, ENDED } kind;
    int value;      // FAILED: errno, ENDED: wait status of the command
    char step[48];  // FAILED: what it was doing
};

[[noreturn]] void fail(int report, char const* step) {
    Report message{Report::FAILED, errno, {}};
    snprintf(message.step, sizeof message.step, "%s", step);
    (void)!write(report, &message, sizeof message);
    _exit(kRunnerFailed);
}

std::string real_path(char const* path) {
    char resolved[PATH_MAX];
    return realpath(path, resolved) != nullptr ? resolved : "";
}

// Where the command file lies, looked up as execvp does it.
std::string find_command(char const* name) {
    if (strchr(name, '/') != nullptr) return real_path(name);
    char const* path = getenv("PATH");
    std::string rest = path != nullptr ? path : "/bin:/usr/bin";
    while (!rest.empty()) {
        size_t const colon = rest.find(':');
        std::string const file = rest.substr(0, colon) + "/" + name;
        if (access(file.c_str(), X_OK) == 0) return real_path(file.c_str());
        rest = colon == std::string::npos ? "" : rest.substr(colon + 1);
    }
    return "";
}

// ---- mounts

void need_tmpfs(int report, std::string const& at, char const* mode) {
    if (!mount_tmpfs(at, mode)) fail(report, ("mount a tmpfs at " + at).c_str());
}

void fresh_folder(int report, std::string const& parent, char const* parentMode,
                  std::string const& folder) {
    if (access(folder.c_str(), F_OK) != 0) {
        if (!cover_folder(parent, parentMode)) fail(report, ("cover " + parent).c_str());
        mkdir(folder.c_str(), 0755);
    }
    need_tmpfs(report, folder, "0755");
}

// What a command needs to see as it is: itself, its working folder, the runner and the files that
// its arguments name.
std::vector<std::string> needed_paths(char** command) {
    std::vector<std::string> paths = {find_command(command[0]), real_path("."),
                                      real_path("/proc/self/exe")};
    for (char** word = command + 1; *word != nullptr; ++word) {
        if (**word == '/') paths.push_back(real_path(*word));
    }
    if (char const* const library = getenv("KYP_SANDBOX_IVSHM")) {
        paths.push_back(real_path(library));
    }
    return paths;
}

// Covers `folder` and lets only those of its entries show through that hold something needed. A
// command that works in the folder itself finds it as it is.
void fresh_scratch(int report, std::string const& folder, std::vector<std::string> const& needed) {
    std::string const tmp = folder + "/";
    std::set<std::string> entries;
    for (std::string const& path : needed) {
        if (path + "/" == tmp) return;
        if (path.compare(0, tmp.size(), tmp) != 0) continue;
        entries.insert(path.substr(tmp.size(), path.find('/', tmp.size()) - tmp.size()));
    }
    int const below = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (below < 0) return;
    need_tmpfs(report, folder, "1777");
    for (std::string const& entry : entries) {
        show_entry("/proc/self/fd/" + std::to_string(below) + "/" + entry, tmp + entry);
    }
    close(below);
}

// Puts the transport that KYP_SANDBOX_IVSHM names where the library looks for it.
void offer_ivshm(int report) {
    char const* const library = getenv("KYP_SANDBOX_IVSHM");
    if (library == nullptr || *library == '\0') return;
    std::string const path = real_path(library);
    if (path.empty()) fail(report, "find the file that KYP_SANDBOX_IVSHM names");
    if (!cover_folder("/usr/lib", "0755", "libivshmAPI.so")) fail(report, "cover /usr/lib");
    if (symlink(path.c_str(), "/usr/lib/libivshmAPI.so") != 0) {
        fail(report, "make /usr/lib/libivshmAPI.so");
    }
}

void make_mounts(int report, int flags, std::vector<std::string> const& needed) {
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        fail(report, "make the mounts private");
    }
    fresh_folder(report, "/opt", "0755", "/opt/kyp");
    fresh_folder(report, "/var/tmp", "1777", "/var/tmp/kyp");
    fresh_scratch(report, "/tmp", needed);
    fresh_scratch(report, "/dev/shm", needed);
    offer_ivshm(report);

    if ((flags & CLONE_NEWPID) != 0 &&
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
        fail(report, "mount /proc");
    }
}

void raise_loopback(int report) {
    int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (fd < 0 || ioctl(fd, SIOCSIFFLAGS, &request) != 0) fail(report, "raise the loopback");
    close(fd);
}

// ---- the keeper: first process of the namespaces, parent of the command

sigset_t forwarded_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGCHLD, SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2}) {
        sigaddset(&set, sig);
    }
    return set;
}

// Passes signals on to `child` until it has ended, and gives its wait status. Other children that
// end meanwhile are orphans of the command.
int keep(pid_t child) {
    sigset_t const signals = forwarded_signals();
    for (;;) {
        siginfo_t info;
        if (sigwaitinfo(&signals, &info) < 0) continue;
        if (info.si_signo != SIGCHLD) {
            // What a terminal sends reaches the command on its own.
            if (info.si_code != SI_KERNEL) kill(child, info.si_signo);
            continue;
        }
        int status;
        for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (ended == child) return status;
        }
    }
}

// Ends what the command left behind. The end of a process namespace does this by itself; without
// one, orphans come to the keeper as their reaper.
void end_orphans() {
    std::string const list = "/proc/self/task/" + std::to_string(getpid()) + "/children";
    do {
        FILE* children = fopen(list.c_str(), "re");
        if (children == nullptr) return;
        for (int pid; fscanf(children, "%d", &pid) == 1;) kill(pid, SIGKILL);
        fclose(children);
    } while (waitpid(-1, nullptr, 0) > 0);
}

[[noreturn]] void keeper(Road const& road, int go, int report, char** command,
                         std::vector<std::string> const& needed, sigset_t const& callersMask) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    char ready;
    // Nothing to read means that the runner is gone: it cannot send the death signal any more.
    if (read(go, &ready, 1) != 1) _exit(kRunnerFailed);
    close(go);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    make_mounts(report, road.flags, needed);
    raise_loopback(report);

    pid_t const child = fork();
    if (child < 0) fail(report, "fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigprocmask(SIG_SETMASK, &callersMask, nullptr);
        setenv("KYP_SANDBOX", road.name, 1);
        setenv("XDG_CACHE_HOME", "/tmp/.cache", 1);  // programs keep what they remember there
        execvp(command[0], command);
        fprintf(stderr, "kyp_sandbox: cannot run %s: %s\n", command[0], strerror(errno));
        _exit(kCannotRun);
    }
    Report message{Report::READY, 0, {}};
    (void)!write(report, &message, sizeof message);
    message = {Report::ENDED, keep(child), {}};
    if ((road.flags & CLONE_NEWPID) == 0) end_orphans();
    (void)!write(report, &message, sizeof message);
    _exit(0);
}

// ---- the runner: outside of the namespaces

bool write_file(std::string const& path, std::string const& text) {
    int const fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool const done = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return done;
}

// The caller's own map with every number standing for itself, which only root may give.
std::string whole_map(char const* file) {
    std::string map;
    FILE* own = fopen(file, "re");
    if (own == nullptr) return map;
    unsigned inside, outside, count;
    while (fscanf(own, "%u %u %u", &inside, &outside, &count) == 3) {
        std::string const first = std::to_string(inside);
        map += first + " " + first + " " + std::to_string(count) + "\n";
    }
    fclose(own);
    return map;
}

// Makes the keeper user 0 of its namespace. Root keeps all users, so that files of others stay
// readable; anybody else is alone in there.
bool map_users(pid_t pid) {
    std::string const folder = "/proc/" + std::to_string(pid);
    if (geteuid() == 0 && write_file(folder + "/uid_map", whole_map("/proc/self/uid_map"))) {
        return write_file(folder + "/gid_map", whole_map("/proc/self/gid_map"));
    }
    return write_file(folder + "/setgroups", "deny") &&
           write_file(folder + "/uid_map", "0 " + std::to_string(geteuid()) + " 1") &&
           write_file(folder + "/gid_map", "0 " + std::to_string(getegid()) + " 1");
}

// Ends as the command ended, so that a caller sees the same.
[[noreturn]] void end_like(int status) {
    if (WIFEXITED(status)) exit(WEXITSTATUS(status));
    int const sig = WTERMSIG(status);
    rlimit const none{0, 0};
    setrlimit(RLIMIT_CORE, &none);  // the command has left its own
    signal(sig, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    raise(sig);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    exit(128 + sig);
}

// Tries one road. Returns only when it cannot be taken, with the reason.
std::string take(Road const& road, char** command, std::vector<std::string> const& needed,
                 sigset_t const& callersMask) {
    int go[2], report[2];
    if (pipe2(go, O_CLOEXEC) != 0 || pipe2(report, O_CLOEXEC) != 0) return strerror(errno);

    long const pid = syscall(SYS_clone, road.flags | SIGCHLD, nullptr, nullptr, nullptr, nullptr);
    if (pid == 0) {
        close(go[1]);
        close(report[0]);
        keeper(road, go[0], report[1], command, needed, callersMask);
    }
    std::string const reason = std::string("make the namespaces: ") + strerror(errno);
    close(go[0]);
    close(report[1]);
    bool const mapped =
        pid > 0 && ((road.flags & CLONE_NEWUSER) == 0 || map_users(static_cast<pid_t>(pid)));
    if (mapped) (void)!write(go[1], "g", 1);
    close(go[1]);

    Report message{};
    bool const told = read(report[0], &message, sizeof message) == sizeof message;
    if (told && message.kind == Report::READY) {
        int const status = keep(static_cast<pid_t>(pid));
        if (read(report[0], &message, sizeof message) == sizeof message) end_like(message.value);
        end_like(status);  // the keeper itself was killed
    }
    close(report[0]);
    if (pid < 0) return reason;
    waitpid(static_cast<pid_t>(pid), nullptr, 0);
    if (!mapped) return "map the user";
    return told ? std::string(message.step) + ": " + strerror(message.value) : "start";
}

// Root's namespaces are used one at a time, whoever runs this program file. The lock ends with the
// process.
void wait_for_turn() {
    if (getenv("KYP_SANDBOX") != nullptr) return;
    int const fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) flock(fd, LOCK_EX);
}

[[noreturn]] void give_up(std::string const& userReason, std::string const& rootReason) {
    fprintf(stderr,
            "kyp_sandbox: no private namespaces here.\n"
            "  as this user: %s\n  as root:      %s\n"
            "Allow user namespaces (sysctl kernel.unprivileged_userns_clone=1, "
            "kernel.apparmor_restrict_unprivileged_userns=0, user.max_user_namespaces above 0) "
            "or run as root with the right to mount (a container needs --privileged).\n",
            userReason.c_str(), rootReason.c_str());
    exit(kRunnerFailed);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: kyp_sandbox COMMAND ARGS...\n");
        return 2;
    }
    sigset_t const signals = forwarded_signals();
    signal(SIGCHLD, SIG_DFL);  // a caller may ignore it, and then no status would come
    sigset_t callersMask;
    sigprocmask(SIG_BLOCK, &signals, &callersMask);
    std::vector<std::string> const needed = needed_paths(argv + 1);
    char const* const asked = getenv("KYP_SANDBOX_ROAD");

    std::string userReason = "not tried";
    for (Road const& road : {kRoads[0], kRoads[1]}) {
        if (asked != nullptr && strcmp(asked, road.name) != 0) continue;
        userReason = take(road, argv + 1, needed, callersMask);
    }
    if (geteuid() != 0) give_up(userReason, "not root");

    fprintf(stderr, "kyp_sandbox: no user namespaces (%s); using root, one command at a time\n",
            userReason.c_str());
    wait_for_turn();
    std::string rootReason;
    for (Road const& road : {kRoads[2], kRoads[3]}) {
        rootReason = take(road, argv + 1, needed, callersMask);
    }
    give_up(userReason, rootReason);
}
