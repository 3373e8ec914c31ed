#include "kypserver/DeviceProfile.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "kypcomm/KypScanInfo.h"
#include "kypcomm/KypWire.h"
#include "utils/json/Json.h"

namespace kypserver {

namespace {

using libkyp::json::Json;

constexpr size_t kTextRoom = sizeof(_KypDevice::hostName) - 1;
constexpr size_t kReleaseRoom = sizeof(_KypDevice::velaosVersion) - 1;

bool is_refused(char c) {
    auto const byte = static_cast<unsigned char>(c);
    return byte < ' ' || byte == 0x7f || c == '"' || c == '\\';
}

// `text` as the reader takes it, cut in front of a character and not within one.
std::string fit(std::string text, size_t room = kTextRoom) {
    std::replace_if(text.begin(), text.end(), is_refused, '?');
    if (text.size() <= room) return text;
    while (room > 0 && (static_cast<unsigned char>(text[room]) & 0xc0) == 0x80) --room;
    text.resize(room);
    return text;
}

// Without the quotes around it and the backslashes in front of characters, as a shell reads it.
std::string unquote(std::string const& value) {
    if (value.empty() || (value[0] != '"' && value[0] != '\'')) return value;
    char const quote = value[0];
    std::string text;
    for (size_t i = 1; i < value.size() && value[i] != quote; ++i) {
        if (quote == '"' && value[i] == '\\' && i + 1 < value.size()) ++i;
        text += value[i];
    }
    return text;
}

std::string read_file(char const* path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string os_version() {
    for (char const* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::string name = pretty_name(read_file(path));
        if (!name.empty()) return name;
    }
    utsname system = {};
    if (uname(&system) == -1) return "";
    return std::string(system.sysname) + " " + system.release;
}

Json device_json(DeviceProfile const& profile) {
    Json device(Json::json_object);
    // Without one the key is left out: a text of zeros would pass for an id.
    if (!profile.deviceId.empty()) device["kypDeviceId"] = fit(profile.deviceId);
    device["kypVersion"] = fit(profile.protocolVersion);
    device["rteVersion"] = fit(profile.runtimeVersion);
    device["serialNo"] = fit(profile.serial);
    device["velaosVersion"] = fit(profile.osVersion, kReleaseRoom);
    device["hostName"] = fit(profile.hostName);
    device["sn"] = fit(profile.serial);
    return device;
}

}  // namespace

DeviceProfile read_profile() {
    DeviceProfile profile;
    profile.protocolVersion = std::to_string(kKypVersion);
    profile.runtimeVersion = KYP_VERSION;
    profile.osVersion = os_version();
    return profile;
}

std::string host_name() {
    char name[256] = "";
    (void)gethostname(name, sizeof name - 1);
    return name;
}

std::string pretty_name(std::string const& osRelease) {
    std::string const key = "PRETTY_NAME=";
    std::istringstream lines(osRelease);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, key.size(), key) == 0) return unquote(line.substr(key.size()));
    }
    return "";
}

std::string reply_json(DeviceProfile const& profile, std::vector<Frame> const& frames,
                       size_t maxSize) {
    Json reply(Json::json_object);
    reply["device"] = device_json(profile);
    reply["frames"] = Json(Json::json_array);
    size_t size = reply.toString().size();
    for (Frame const& frame : frames) {
        Json entry(Json::json_object);
        entry["frameIp"] = fit(frame.ip);
        entry["frameMacAddr"] = fit(frame.mac);
        size += entry.toString().size() + 1;  // and the comma
        if (size > maxSize) break;
        reply["frames"].append(entry);
    }
    return reply.toString();
}

}  // namespace kypserver
