// A program run by a test on a terminal of its own, of 80 columns: what a person would see.
//
// Owns:     the process, as ChildProcess does, and the terminal.
// Threads:  one. The terminal is read in the waiting operations alone.
#ifndef KYP_TESTS_SUPPORT_TERMINALPROCESS_H
#define KYP_TESTS_SUPPORT_TERMINALPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

class TerminalProcess {
public:
    // `command[0]` without a '/' is a program of this build; else it is the path itself.
    explicit TerminalProcess(std::vector<std::string> command);
    ~TerminalProcess();
    TerminalProcess(TerminalProcess const&) = delete;
    TerminalProcess& operator=(TerminalProcess const&) = delete;

    // All that came so far, carriage returns and escape sequences included.
    std::string const& output() const;

    // Waits until `part` stands in output(); false when the program ends or time passes first.
    bool wait_for_output(std::string const& part,
                         std::chrono::milliseconds deadline = std::chrono::seconds(30));

    // Types Ctrl-C.
    void interrupt();

    // Waits for the end: exit code, 128 + signal, or -1 when it still runs at the deadline.
    int wait_exit(std::chrono::milliseconds deadline = std::chrono::seconds(30));

private:
    bool read_more(std::chrono::milliseconds wait);

    pid_t m_pid;
    int m_status;    // what wait_exit() gives; -1 while it runs
    int m_terminal;  // the near end
    std::string m_output;
};

#endif
