// How a command ends that cannot do what it was asked for: thrown where it shows, told by main() in
// one line. A tool of short commands has nothing to undo on the way up, so this is an exception.
//
// Lifetime: a value.
#ifndef KYP_PROGRAMS_KYP_FAILURE_H
#define KYP_PROGRAMS_KYP_FAILURE_H

#include <stdexcept>
#include <string>

namespace kyptool {

// What a script sees. Told in --help and in the manual.
enum ExitCode : int {
    EXIT_FINE = 0,
    EXIT_REFUSED = 1,      // the peer said no
    EXIT_USAGE = 2,        // the command line or a local file is wrong
    EXIT_UNREACHABLE = 3,  // nobody there, or no answer in time
};

struct Failure : std::runtime_error {
    Failure(ExitCode exit, std::string const& text, int code = 0)
        : std::runtime_error(text), exitCode(exit), status(code) {}

    ExitCode exitCode;
    int status;  // the status code behind it, 0 when there is none
};

// "router port not register (0x1006)": the words of the status table, or of the system for a failed
// call, with the code beside them.
std::string status_words(int code);

// "`what`: words (code)", with the exit code that belongs to it.
Failure refused(std::string const& what, int code);
Failure unreachable(std::string const& what, int code);
Failure wrong_usage(std::string const& what);

// The failure of an exchange: no answer in time is UNREACHABLE, every other code is REFUSED.
Failure no_answer_or_refused(std::string const& what, int code);

}  // namespace kyptool

#endif
