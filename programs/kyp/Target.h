// Whom a command speaks to.
//
// Lifetime: a value.
#ifndef KYP_PROGRAMS_KYP_TARGET_H
#define KYP_PROGRAMS_KYP_TARGET_H

#include <optional>
#include <string>

#include "kypcomm/KypTypes.h"

namespace kyptool {

struct Target {
    std::string text;  // as it was written; names the target on the screen

    bool isLocal = false;
    std::string path;  // local: the server's socket

    _KypDeviceId id{};          // else: the device,
    std::string host;           // and the IPv4 address at which it is reached,
    bool isRemembered = false;  // which a scan has told earlier
};

// "local" for the server of this machine, a path with a '/' for another socket, an IPv4 address, a
// device id, or "ID@ADDRESS". An id alone is looked for where a scan has seen it last, or else at
// the address in its first four numbers.
std::optional<Target> parse_target(std::string const& text);

// "1.2.3.4.5.6 at 10.0.0.2": the target, and its address where the text does not show it.
std::string place_of(Target const& target);

// What parse_target() takes, for people.
extern char const* const kTargetForms;

}  // namespace kyptool

#endif
