// Where devices were seen: a file in the user's cache that a scan writes, so that a device whose id
// says nothing of its address can be named by the id alone.
//
// Lines of "ID ADDRESS" in $XDG_CACHE_HOME/kyp/devices, or ~/.cache/kyp/devices. It may be removed
// at any time. Nobody vouches for an address that came by a scan.
//
// Threads: one at a time; several processes may, the last one counts.
#ifndef KYP_PROGRAMS_KYP_KNOWNDEVICES_H
#define KYP_PROGRAMS_KYP_KNOWNDEVICES_H

#include <map>
#include <optional>
#include <string>

namespace kyptool {

// The address at which device `id` was seen last.
std::optional<std::string> known_address(std::string const& id);

// Enters addresses by device id, beside those that are known. A file that cannot be written is no
// failure: ids are then looked for at the address in their first numbers.
void remember_devices(std::map<std::string, std::string> const& addresses);

}  // namespace kyptool

#endif
