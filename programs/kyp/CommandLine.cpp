#include "kyp/CommandLine.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <cstdio>
#include <sstream>
#include <string>
#include <utility>

#include "kyp/BenchCommand.h"
#include "kyp/Failure.h"
#include "kyp/IdCommand.h"
#include "kyp/PingCommand.h"
#include "kyp/PubCommand.h"
#include "kyp/RequestCommand.h"
#include "kyp/ScanCommand.h"
#include "kyp/SendCommand.h"
#include "kyp/StatCommand.h"
#include "kyp/SubCommand.h"

namespace kyptool {

namespace {

constexpr char const* kFooter =
    "'kyp COMMAND --help' tells the options of a command.\n\n"
    "Exit codes:\n"
    "  0  fine\n"
    "  1  the peer said no; its code and what it means are told\n"
    "  2  wrong usage: an option, or a file of this machine\n"
    "  3  not reachable, or no answer in time\n";

// The words behind the colon are the ones that nobody expected.
std::string unexpected(std::string const& complaint) {
    size_t const colon = complaint.find(": ");
    std::string const words = colon == std::string::npos ? complaint : complaint.substr(colon + 2);
    return "nothing here takes '" + printable(words) + "'";
}

constexpr size_t kHelpWidth = 80;
constexpr size_t kNameWidth = 26;

// `text` with line ends in place of blanks, so that no line is longer than `width`.
std::string wrapped(std::string const& text, size_t width) {
    std::string out;
    size_t lineBegin = 0;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (!out.empty()) {
            bool const isFull = out.size() - lineBegin + 1 + word.size() > width;
            out += isFull ? '\n' : ' ';
            if (isFull) lineBegin = out.size();
        }
        out += word;
    }
    return out;
}

// Help for a terminal of 80 columns.
class CHelp : public CLI::Formatter {
public:
    CHelp() {
        column_width(kNameWidth);
        label("REQUIRED", "");
        label("SUBCOMMAND", "COMMAND");
        label("Positionals", "Arguments");
    }

    std::string make_help(CLI::App const* app, std::string name,
                          CLI::AppFormatMode mode) const override {
        std::string text = Formatter::make_help(app, name, mode);
        for (size_t at = 0; (at = text.find("\n\n\n", at)) != std::string::npos;) text.erase(at, 1);
        while (text.size() > 1 && text.substr(text.size() - 2) == "\n\n") text.pop_back();
        return text;
    }

    std::string make_description(CLI::App const* app) const override {
        std::string text = app->get_description();
        text[0] = static_cast<char>(toupper(static_cast<unsigned char>(text[0])));
        return wrapped(text, kHelpWidth) + ".\n\n";
    }

    std::string make_subcommand(CLI::App const* sub) const override {
        std::ostringstream out;
        CLI::detail::format_help(out, sub->get_name(),
                                 wrapped(sub->get_description(), kHelpWidth - kNameWidth),
                                 kNameWidth);
        return out.str();
    }

    std::string make_option_desc(CLI::Option const* option) const override {
        return wrapped(option->get_description(), kHelpWidth - kNameWidth);
    }
};

}  // namespace

CCommandLine::CCommandLine()
    : m_app(std::make_unique<CLI::App>("speaks to kyp devices from the command line", "kyp")),
      m_pChosen(nullptr) {
    m_app->formatter(std::make_shared<CHelp>());
    m_app->set_version_flag("--version", "kyp " KYP_VERSION, "print the version");
    m_app->set_help_flag("-h,--help", "print this help");
    m_app->footer(kFooter);
    m_app->require_subcommand(0, 1);
    add_global_options(*m_app, m_settings);
    enter(std::make_unique<CScanCommand>());
    enter(std::make_unique<CIdCommand>());
    enter(std::make_unique<CPingCommand>());
    enter(std::make_unique<CRequestCommand>(CRequestCommand::READ));
    enter(std::make_unique<CRequestCommand>(CRequestCommand::WRITE));
    enter(std::make_unique<CRequestCommand>(CRequestCommand::CALL));
    enter(std::make_unique<CPubCommand>());
    enter(std::make_unique<CSubCommand>());
    enter(std::make_unique<CSendCommand>());
    enter(std::make_unique<CStatCommand>());
    enter(std::make_unique<CBenchCommand>());
}

CCommandLine::~CCommandLine() = default;

void CCommandLine::enter(std::unique_ptr<ICommand> command) {
    CLI::App* const sub = command->enter(*m_app, m_settings);
    sub->set_help_flag("-h,--help", "print this help");
    sub->group("Commands");
    sub->footer("");
    add_global_options(*sub, m_settings);
    m_entries.push_back({std::move(command), sub});
}

std::optional<int> CCommandLine::parse(int argc, char const* const* argv) {
    try {
        m_app->parse(argc, argv);
        for (Entry const& entry : m_entries) {
            if (entry.app->parsed()) m_pChosen = entry.command.get();
        }
        if (m_pChosen == nullptr) return complain("no command was given");
        settle_target(m_settings);
        m_pChosen->check(m_settings);
    } catch (CLI::Success const& success) {
        return m_app->exit(success);
    } catch (CLI::ExtrasError const& error) {
        return complain(unexpected(error.what()));
    } catch (CLI::ParseError const& error) {
        return complain(error.what());
    }
    return std::nullopt;
}

ICommand& CCommandLine::command() const {
    return *m_pChosen;
}

Settings const& CCommandLine::settings() const {
    return m_settings;
}

int CCommandLine::complain(std::string const& problem) const {
    std::string name = "kyp";
    for (Entry const& entry : m_entries) {
        if (entry.app->parsed()) name += " " + entry.app->get_name();
    }
    fprintf(stderr, "kyp: %s\nSee '%s --help'.\n", problem.c_str(), name.c_str());
    return EXIT_USAGE;
}

}  // namespace kyptool
