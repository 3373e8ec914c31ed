#include "kypcomm/Adapter.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <vector>

#include "utils/Log.h"

std::string g_strCodesysSerailNo;

namespace {

constexpr char const* kSkippedPrefixes[] = {"docker", "tap", "lo", "can0"};

std::once_flag serialOnce;

bool is_skipped(std::string const& name) {
    return std::any_of(std::begin(kSkippedPrefixes), std::end(kSkippedPrefixes),
                       [&name](char const* prefix) {
                           return strncasecmp(name.c_str(), prefix, strlen(prefix)) == 0;
                       });
}

// Each name once, in the order in which the kernel gives them.
std::vector<std::string> interface_names(ifaddrs const* list) {
    std::vector<std::string> names;
    for (; list != nullptr; list = list->ifa_next) {
        if (list->ifa_name == nullptr) continue;
        std::string name = list->ifa_name;
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

ifreq request_for(std::string const& name) {
    ifreq request = {};
    memcpy(request.ifr_name, name.c_str(), std::min<size_t>(name.size(), IFNAMSIZ - 1));
    return request;
}

// False with the reason logged.
bool read_mac(int fd, ifreq request, std::string& mac) {
    if (ioctl(fd, SIOCGIFHWADDR, &request) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "ioctl SIOCGIFHWADDR: %s", strerror(errno));
        return false;
    }
    unsigned char bytes[6];
    memcpy(bytes, request.ifr_hwaddr.sa_data, sizeof bytes);
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
             bytes[3], bytes[4], bytes[5]);
    mac = text;
    return true;
}

// The address of an interface that is up; empty when it is down or has none.
std::string read_ip(int fd, ifreq request) {
    if (ioctl(fd, SIOCGIFFLAGS, &request) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "ioctl SIOCGIFFLAGS: %s", strerror(errno));
        return "";
    }
    if ((request.ifr_flags & (IFF_UP | IFF_RUNNING)) == 0) {
        KYP_LOG(LOG_LEVEL_TRACE, "ifram:%s is down", request.ifr_name);
        return "";
    }
    if (ioctl(fd, SIOCGIFADDR, &request) == -1) return "";

    sockaddr_in address;
    memcpy(&address, &request.ifr_addr, sizeof address);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

void collect(int fd, std::string const& name,
             std::unordered_map<std::string, _NetAdapterObj>& adapters) {
    const ifreq request = request_for(name);
    std::string mac;
    if (!read_mac(fd, request, mac)) return;

    // Before the state is looked at: the serial also comes from an interface that is down.
    GetRuntimeSerial(mac, name);
    std::string ip = read_ip(fd, request);
    if (!ip.empty()) {
        KYP_LOG(LOG_LEVEL_TRACE, "device %s mac:%s,ip:%s", name.c_str(), mac.c_str(), ip.c_str());
    }
    adapters[name] = {std::move(mac), name, std::move(ip)};
}

}  // namespace

_NetAdapterObj::_NetAdapterObj() = default;
_NetAdapterObj::~_NetAdapterObj() = default;

std::unordered_map<std::string, _NetAdapterObj> GetLocalNetAdaptersInfo() {
    std::unordered_map<std::string, _NetAdapterObj> adapters;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "getifaddrs fail,Error:%s", strerror(errno));
        return adapters;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd == -1) {
        // Kept: the list is not given back here; a caller that is out of descriptors loses it too.
        KYP_LOG(LOG_LEVEL_ERROR, "Create Socket Error:%s", strerror(errno));
        return adapters;
    }
    for (std::string const& name : interface_names(list)) {
        if (!is_skipped(name)) collect(fd, name, adapters);
    }
    close(fd);
    freeifaddrs(list);
    return adapters;
}

std::string GetRuntimeSerial(std::string mac, std::string adapterName) {
    std::call_once(serialOnce, [&mac, &adapterName] {
        for (char& c : mac) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        mac.erase(std::remove(mac.begin(), mac.end(), ':'), mac.end());
        g_strCodesysSerailNo = mac;
        KYP_LOG(LOG_LEVEL_DEBUG, "runtime serial:%s from %s", mac.c_str(), adapterName.c_str());
    });
    return g_strCodesysSerailNo;
}

std::string IntToHex(int value) {
    std::ostringstream text;
    text << std::uppercase << std::hex << std::setw(2) << std::setfill('0') << value;
    return text.str();
}
