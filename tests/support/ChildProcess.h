// A program run by a test, with its output caught.
//
// Owns:     the process: the destructor kills it and waits for it, and so does the end of the
// test's
//           own thread that started it.
// Threads:  one.
#ifndef KYP_TESTS_SUPPORT_CHILDPROCESS_H
#define KYP_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

class ChildProcess {
public:
    // WITHOUT_CAPABILITIES: user 0 of the sandbox, but without its power to pass file permissions.
    enum Rights { ALL_RIGHTS, WITHOUT_CAPABILITIES };

    // `command[0]` without a '/' is a program of this build; else it is the path itself.
    explicit ChildProcess(std::vector<std::string> command, Rights rights = ALL_RIGHTS);
    ~ChildProcess();
    ChildProcess(ChildProcess const&) = delete;
    ChildProcess& operator=(ChildProcess const&) = delete;

    pid_t pid() const;

    // All that came on standard output, on standard error, and both one behind the other.
    std::string output() const;
    std::string errors() const;
    std::string all_output() const;

    // Waits until `part` stands in all_output(); false when the program ends or time passes first.
    bool wait_for_output(std::string const& part,
                         std::chrono::milliseconds deadline = std::chrono::seconds(30));

    void signal(int sig);

    // Waits for the end: exit code, 128 + signal, or -1 when it still runs at the deadline.
    int wait_exit(std::chrono::milliseconds deadline = std::chrono::seconds(30));

private:
    pid_t m_pid;
    int m_status;  // what wait_exit() gives; -1 while it runs
    int m_out;     // unnamed files
    int m_err;
};

// Where this build keeps its programs.
std::string program_path(std::string const& name);

#endif
