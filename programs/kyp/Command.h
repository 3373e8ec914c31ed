// One command of the tool.
//
// Threads:  run() has a thread of its own; interrupted() is called on the main thread meanwhile.
// Lifetime: all commands are made before the command line is read, and one of them runs.
#ifndef KYP_PROGRAMS_KYP_COMMAND_H
#define KYP_PROGRAMS_KYP_COMMAND_H

#include "kyp/Screen.h"
#include "kyp/Settings.h"

namespace CLI {
class App;
}

namespace kyptool {

class ICommand {
public:
    virtual ~ICommand() = default;

    // Makes the command known; the result is its part of the command line.
    virtual CLI::App* enter(CLI::App& app, Settings& settings) = 0;

    // Looks at options that only make sense together; throws CLI::ParseError.
    virtual void check(Settings const&) {}

    // Does the work. Returns an exit code or throws Failure.
    virtual int run(Settings const& settings, CScreen& screen) = 0;

    // Somebody wants the end: signal `sig` has come while run() is under way. Prints what there is
    // to print; nothing comes from run() behind it. Returns the exit code.
    virtual int interrupted(Settings const&, CScreen&, int sig) { return 128 + sig; }
};

}  // namespace kyptool

#endif
