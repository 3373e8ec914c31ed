// Values as people write them on a command line and read them on a screen.
//
// Threads: every function is re-entrant.
#ifndef KYP_PROGRAMS_KYP_VALUES_H
#define KYP_PROGRAMS_KYP_VALUES_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kypcomm/KypTypes.h"

namespace kyptool {

using Duration = std::chrono::nanoseconds;

// Each reads a whole text, or gives nothing.

// "1234" and "0x4d2".
std::optional<uint64_t> parse_number(std::string const& text, uint64_t most);

// "4096", "64k", "5M": k and M are 1024 and its square.
std::optional<uint64_t> parse_size(std::string const& text, uint64_t most);

// "2", "0.5", "200ms", "1.5s", "2m"; a bare number is seconds. Not negative, a day at most.
std::optional<Duration> parse_duration(std::string const& text);

// "192.168.1.10.1.1": six numbers of 0 to 255.
std::optional<_KypDeviceId> parse_device_id(std::string const& text);

// "192.168.1.10".
bool is_ipv4(std::string const& text);

std::string id_text(_KypDeviceId const& id);
bool is_zero(_KypDeviceId const& id);

// Waits and timeouts, in milliseconds as the library takes them; at least 1.
int milliseconds_of(Duration duration);
double in_milliseconds(Duration duration);
double in_seconds(Duration duration);

// "12 B", "1.5 KiB", "20.0 MiB".
std::string size_text(uint64_t bytes);

// "0:07", "12:34", "1:02:03".
std::string clock_text(Duration duration);

// Text of a peer as it may go to a terminal: control characters and what is no UTF-8 become \xNN.
// With `lines`, line ends and tabs stay.
std::string printable(std::string_view text, bool lines = false);

// All of it is text that a reader can make sense of: UTF-8 without control characters except line
// ends and tabs.
bool is_text(std::string_view data);

}  // namespace kyptool

#endif
