// The options that every command has.
//
// Lifetime: a value, settled before a command runs.
#ifndef KYP_PROGRAMS_KYP_SETTINGS_H
#define KYP_PROGRAMS_KYP_SETTINGS_H

#include <chrono>
#include <string>

#include "kyp/Target.h"
#include "kyp/Values.h"

namespace CLI {
class App;
}

namespace kyptool {

struct Settings {
    std::string targetText;  // empty: KYP_TARGET of the environment, or else "local"
    Target target;           // settled by settle_target()
    Duration timeout = std::chrono::seconds(2);  // for each connection and each answer
    bool json = false;
    bool quiet = false;
    int verbose = 0;  // 1: the library's log from DEBUG on, 2: all of it
};

void add_global_options(CLI::App& app, Settings& settings);

// The target as the first word behind a command that has no other words.
void add_target_word(CLI::App& app, Settings& settings);

// Throws CLI::ValidationError for a target that is none.
void settle_target(Settings& settings);

}  // namespace kyptool

#endif
