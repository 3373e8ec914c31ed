// The whole command line of the tool.
//
// Owns:     the commands.
// Lifetime: as long as the process; the command that runs may be left behind in its thread.
#ifndef KYP_PROGRAMS_KYP_COMMANDLINE_H
#define KYP_PROGRAMS_KYP_COMMANDLINE_H

#include <memory>
#include <optional>
#include <vector>

#include "kyp/Command.h"
#include "kyp/Settings.h"

namespace kyptool {

class CCommandLine {
public:
    CCommandLine();
    ~CCommandLine();
    CCommandLine(CCommandLine const&) = delete;
    CCommandLine& operator=(CCommandLine const&) = delete;

    // Returns nothing when command() is to run, or else the exit code: 0 behind --help and
    // --version, EXIT_USAGE with the reason on standard error.
    std::optional<int> parse(int argc, char const* const* argv);

    ICommand& command() const;
    Settings const& settings() const;

private:
    struct Entry {
        std::unique_ptr<ICommand> command;
        CLI::App* app;
    };

    void enter(std::unique_ptr<ICommand> command);
    int complain(std::string const& problem) const;

    Settings m_settings;
    std::unique_ptr<CLI::App> m_app;
    std::vector<Entry> m_entries;
    ICommand* m_pChosen;
};

}  // namespace kyptool

#endif
