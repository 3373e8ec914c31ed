#include "kyp/Settings.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "kyp/Options.h"

namespace kyptool {

namespace {

constexpr char const* kGroup = "Global options";

}  // namespace

void add_global_options(CLI::App& app, Settings& settings) {
    app.add_option("-t,--target", settings.targetText,
                   "whom to speak to: " + std::string(kTargetForms) +
                       " (the environment's KYP_TARGET, or else local)")
        ->type_name("TARGET")
        ->group(kGroup);
    add_duration(app, "--timeout", settings.timeout,
                 "how long to wait for a connection and for each answer: 2, 0.5s, 200ms (2s)")
        ->group(kGroup);
    app.add_flag("--json", settings.json, "print results as JSON, one object a line")
        ->group(kGroup);
    app.add_flag("-q,--quiet", settings.quiet, "print nothing beside results and errors")
        ->group(kGroup);
    app.add_flag("-v,--verbose", settings.verbose,
                 "show the library's log on standard error; twice: all of it")
        ->group(kGroup);
}

void add_target_word(CLI::App& app, Settings& settings) {
    app.add_option("TARGET", settings.targetText, "the same as --target")->type_name("");
}

void settle_target(Settings& settings) {
    std::string text = settings.targetText;
    char const* const environment = getenv("KYP_TARGET");
    if (text.empty() && environment != nullptr) text = environment;
    if (text.empty()) text = "local";

    auto const target = parse_target(text);
    if (!target) {
        throw CLI::ValidationError("TARGET",
                                   "'" + printable(text) + "' is none of " + kTargetForms);
    }
    settings.target = *target;
}

}  // namespace kyptool
