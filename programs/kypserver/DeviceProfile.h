// What this device tells who scans for it, and the JSON text that says so.
//
// Threads:  read_profile() and reply_json() from any.
// Lifetime: values.
#ifndef KYP_PROGRAMS_KYPSERVER_DEVICEPROFILE_H
#define KYP_PROGRAMS_KYPSERVER_DEVICEPROFILE_H

#include <cstddef>
#include <string>
#include <vector>

namespace kypserver {

// One network interface of this device.
struct Frame {
    std::string ip;   // "192.168.1.10"
    std::string mac;  // "00:1a:2b:3c:4d:5e"
};

// Each text as it was found; reply_json() makes it fit.
struct DeviceProfile {
    std::string deviceId;  // "192.168.1.10.1.1"; empty while there is none
    std::string protocolVersion;
    std::string runtimeVersion;
    std::string serial;
    std::string osVersion;
    std::string hostName;
};

// What does not change while the server runs: the versions and the release of the operating system.
// The rest is left empty.
DeviceProfile read_profile();

// The name of this host, which it may get long after the server has started.
std::string host_name();

// The operating system's own name for itself: PRETTY_NAME in the text of an os-release file,
// without its quotes. Empty when the text has none.
std::string pretty_name(std::string const& osRelease);

// The reply for `profile`, `maxSize` bytes at most. The reader refuses quotes, backslashes and
// control characters, so they become '?', and it keeps 31 bytes of a text, 255 of the release, so
// the rest is cut here. Frames that find no room are left out, from the end.
std::string reply_json(DeviceProfile const& profile, std::vector<Frame> const& frames,
                       size_t maxSize);

}  // namespace kypserver

#endif
