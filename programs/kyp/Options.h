// Options whose values are read by the functions of Values.h. A text that they do not read ends the
// command with what is wrong with it.
#ifndef KYP_PROGRAMS_KYP_OPTIONS_H
#define KYP_PROGRAMS_KYP_OPTIONS_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "kyp/Values.h"

namespace kyptool {

CLI::Option* add_duration(CLI::App& app, std::string const& names, Duration& value,
                          std::string const& what);
CLI::Option* add_duration(CLI::App& app, std::string const& names, std::optional<Duration>& value,
                          std::string const& what);

// "0x10" and "16", up to `most`.
CLI::Option* add_number(CLI::App& app, std::string const& names, uint32_t& value,
                        std::string const& what, uint32_t least = 0, uint32_t most = UINT32_MAX);
CLI::Option* add_size(CLI::App& app, std::string const& names, uint32_t& value,
                      std::string const& what, uint32_t most);

// The longest payload that fits, with its heads, into what the library sends as one frame.
constexpr uint32_t kLongestPayload = 0x600000 - 29;

// A logical port of a device.
CLI::Option* add_port(CLI::App& app, std::string const& names, uint32_t& port,
                      std::string const& what);

// --group and --offset.
void add_address_words(CLI::App& app, uint32_t& group, uint32_t& offset);

}  // namespace kyptool

#endif
