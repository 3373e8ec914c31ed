#include "kyp/KnownDevices.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "kyp/Values.h"

namespace kyptool {

namespace {

namespace fs = std::filesystem;

constexpr size_t kMostDevices = 10000;

fs::path in_folder(char const* variable, char const* rest) {
    char const* const folder = getenv(variable);
    return folder != nullptr && folder[0] == '/' ? fs::path(folder) / rest : fs::path();
}

// Empty when there is no place for it.
fs::path file_path() {
    fs::path const path = in_folder("XDG_CACHE_HOME", "kyp/devices");
    return path.empty() ? in_folder("HOME", ".cache/kyp/devices") : path;
}

std::map<std::string, std::string> read_devices(fs::path const& path) {
    std::map<std::string, std::string> devices;
    std::ifstream file(path);
    std::string id;
    std::string address;
    while (devices.size() < kMostDevices && file >> id >> address) {
        if (parse_device_id(id) && is_ipv4(address)) devices[id] = address;
    }
    return devices;
}

bool write_devices(fs::path const& path, std::map<std::string, std::string> const& devices) {
    std::ofstream file(path);
    for (auto const& [id, address] : devices) file << id << ' ' << address << '\n';
    file.close();
    return file.good();
}

}  // namespace

std::optional<std::string> known_address(std::string const& id) {
    auto const devices = read_devices(file_path());
    auto const found = devices.find(id);
    if (found == devices.end()) return std::nullopt;
    return found->second;
}

void remember_devices(std::map<std::string, std::string> const& addresses) {
    fs::path const path = file_path();
    if (path.empty() || addresses.empty()) return;

    std::error_code failed;
    fs::create_directories(path.parent_path(), failed);
    auto devices = read_devices(path);
    for (auto const& [id, address] : addresses) devices[id] = address;

    // Readers find the old file or the new one.
    fs::path const draft = path.string() + "." + std::to_string(getpid());
    if (write_devices(draft, devices)) {
        fs::rename(draft, path, failed);
    } else {
        fs::remove(draft, failed);
    }
}

}  // namespace kyptool
