#include "kyp/ScanWatch.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include "kyp/Failure.h"
#include "kyp/Values.h"
#include "kypcomm/CScanAdapter.h"
#include "utils/json/Json.h"
#include "utils/json/Parser.h"

namespace kyptool {

namespace {

constexpr int kHeadSize = sizeof(_KypScanCommand);
constexpr auto kRound = std::chrono::milliseconds(1000);
constexpr int kLongestWaitMs = 100;  // from one look at the interfaces to the next

struct RoadWords {
    char const* name;
    char const* host;
    uint16_t port;
    uint8_t command;
};
constexpr RoadWords kRoads[] = {
    {"multicast", kScanGroup, kScanPort, KYP_SCAN_MULTICAST_REQUEST},
    {"broadcast", "255.255.255.255", kScanBroadcastPort, KYP_SCAN_BROADCAST_REQUEST},
};

std::string address_text(sockaddr_in const& address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return text;
}

uint16_t bound_port(int fd) {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size) != 0) return 0;
    return ntohs(own.sin_port);
}

// Why the library has not reported a good head's text.
std::string fault_of(std::string const& text) {
    try {
        libkyp::json::Parser parser;
        parser.load(text);
        libkyp::json::Json const reply = parser.parse();
        if (!reply.isObject()) return "its text is no JSON object";
        if (reply.has("frames") && reply.get("frames").isNull()) return "its \"frames\" is null";
    } catch (std::logic_error const&) {
        return "its text is no JSON";
    }
    return "a value in its JSON is of another kind than it should be";
}

std::string times(uint64_t count) {
    return std::to_string(count) + (count == 1 ? " time" : " times");
}

std::string place_of(char const* host, uint16_t port) {
    return std::string(host) + ":" + std::to_string(port);
}

// Why the library leaves out an interface that it does not list.
std::string why_unlisted(unsigned int flags) {
    return (flags & IFF_LOOPBACK) != 0 ? "loopback" : "interfaces of this kind are left out";
}

std::string why_unusable(unsigned int flags) {
    return (flags & (IFF_UP | IFF_RUNNING)) == 0 ? "down" : "no IPv4 address";
}

std::map<std::string, unsigned int> all_interfaces() {
    std::map<std::string, unsigned int> flags;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return flags;
    for (ifaddrs const* entry = list; entry != nullptr; entry = entry->ifa_next) {
        flags[entry->ifa_name] = entry->ifa_flags;
    }
    freeifaddrs(list);
    return flags;
}

}  // namespace

bool CScanWatch::Datagram::operator<(Datagram const& other) const {
    return std::tie(other.isTaken, road, from, verdict) <
           std::tie(isTaken, other.road, other.from, other.verdict);
}

CScanWatch::CScanWatch(std::function<void(_KypDevice const&)> found)
    : m_found(std::move(found)), m_isReported(false) {
    (void)m_client.registerKypSacnEvent(on_device, this);
    (void)m_client.startScan();
}

void CScanWatch::scan(Clock::time_point end, std::atomic<bool> const& stop) {
    m_nextRound = Clock::now();
    while (Clock::now() < end && !stop) pass(end);
    explain_the_rest(GetLocalNetAdaptersInfo());
}

void CScanWatch::on_device(_KypDevice device, void* self) {
    auto* const watch = static_cast<CScanWatch*>(self);
    watch->m_isReported = true;
    watch->m_reportedId = device.kypDeviceId;
    watch->m_found(device);
}

void CScanWatch::pass(Clock::time_point end) {
    (void)m_client.UpdateScanAdapter(GetLocalNetAdaptersInfo());
    if (Clock::now() >= m_nextRound) send_round();

    std::vector<pollfd> sockets;
    for (CScanAdapter* adapter : m_client.m_adapters) {
        sockets.push_back({adapter->GetMutilScanSocket(), POLLIN, 0});  // -1 is passed over
        sockets.push_back({adapter->GetBroadScanSocket(), POLLIN, 0});
    }
    int const left = milliseconds_of(std::min(end, m_nextRound) - Clock::now());
    if (poll(sockets.data(), sockets.size(), std::min(left, kLongestWaitMs)) <= 0) return;

    size_t at = 0;
    for (CScanAdapter* adapter : m_client.m_adapters) {
        for (Road const road : {MULTICAST, BROADCAST}) {
            if (sockets[at].revents != 0) read_on(road, sockets[at].fd, story_of(*adapter));
            ++at;
        }
    }
}

void CScanWatch::send_round() {
    m_nextRound = Clock::now() + kRound;
    for (CScanAdapter* adapter : m_client.m_adapters) {
        Story& story = story_of(*adapter);
        send_on(MULTICAST, adapter->GetMutilScanSocket(), story.sent[MULTICAST]);
        send_on(BROADCAST, adapter->GetBroadScanSocket(), story.sent[BROADCAST]);
    }
}

void CScanWatch::send_on(Road road, int fd, Sent& sent) {
    sent.isOpen = fd != -1;
    if (!sent.isOpen) return;
    RoadWords const& words = kRoads[road];
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = inet_addr(words.host);
    to.sin_port = htons(words.port);
    _KypScanCommand const request = m_client.packetKypScanReqInfo(words.command);
    errno = 0;
    int const n =
        m_client.sendScanReqPacket(fd, reinterpret_cast<char const*>(&request), kHeadSize, &to);
    if (n == -1) {
        ++sent.failed;
        sent.error = errno;
    } else {
        ++sent.count;
        sent.ownPort = bound_port(fd);
    }
}

// As the library reads: one datagram, of which the first 2048 bytes count.
void CScanWatch::read_on(Road road, int fd, Story& story) {
    char datagram[kMaxScanDatagram] = {};
    sockaddr_in from{};
    socklen_t fromSize = sizeof from;
    ssize_t const n = recvfrom(fd, datagram, sizeof datagram, MSG_DONTWAIT | MSG_TRUNC,
                               reinterpret_cast<sockaddr*>(&from), &fromSize);
    if (n < 0) return;
    bool const isCut = static_cast<size_t>(n) > sizeof datagram;
    m_isReported = false;
    std::string why = verdict(datagram, std::min(static_cast<size_t>(n), sizeof datagram), from);
    if (isCut) why += " (its first " + std::to_string(sizeof datagram) + " bytes were read)";
    ++story.came[{road, place_of(address_text(from).c_str(), ntohs(from.sin_port)), m_isReported,
                  why}];
}

std::string CScanWatch::verdict(char* datagram, size_t size, sockaddr_in from) {
    if (size < kHeadSize)
        return "shorter than the " + std::to_string(kHeadSize) + " bytes of a head";
    _KypScanCommand head;
    memcpy(&head, datagram, sizeof head);
    std::string const text(datagram + kHeadSize, size - kHeadSize);

    (void)m_client.parseReplyPacket(datagram, static_cast<int>(size), &from);
    if (m_isReported) {
        return m_reportedId.empty() ? "a device that tells no id"
                                    : "device " + printable(m_reportedId);
    }
    if (head.command == KYP_SCAN_MULTICAST_REQUEST || head.command == KYP_SCAN_BROADCAST_REQUEST) {
        return "a request and no reply";
    }
    if (head.command != KYP_SCAN_MULTICAST_REPLY && head.command != KYP_SCAN_BROADCAST_REPLY) {
        return "command " + std::to_string(head.command) + " is no reply";
    }
    uint32_t const status = utils_ntohl(head.status);
    if (status != 0) return "a reply with status " + status_words(static_cast<int>(status));
    return fault_of(text);
}

CScanWatch::Story& CScanWatch::story_of(CScanAdapter& adapter) {
    Story& story = m_stories[adapter.GetAdapterName()];
    story.name = adapter.GetAdapterName();
    story.address = adapter.m_ipAddr;
    story.mac = adapter.m_macAddr;
    return story;
}

void CScanWatch::explain_the_rest(std::unordered_map<std::string, _NetAdapterObj> const& list) {
    for (auto const& [name, flags] : all_interfaces()) {
        if (m_stories.count(name) != 0) continue;
        Story& story = m_stories[name];
        story.name = name;
        auto const listed = list.find(name);
        if (listed == list.end()) {
            story.reason = why_unlisted(flags);
            continue;
        }
        story.address = listed->second.ipAddr;
        story.mac = listed->second.macAddr;
        story.reason = story.address.empty() ? why_unusable(flags)
                                             : "shares its hardware address with another interface";
    }
}

std::string CScanWatch::text() const {
    std::string out;
    for (auto const& [name, story] : m_stories) {
        out += printable(name);
        if (!story.reason.empty()) {
            out += ": not asked, " + story.reason + "\n";
            continue;
        }
        out += ", " + story.address + ", " + story.mac + "\n";
        for (Road const road : {MULTICAST, BROADCAST}) {
            Sent const& sent = story.sent[road];
            RoadWords const& words = kRoads[road];
            out +=
                "  " + std::string(words.name) + " to " + place_of(words.host, words.port) + ": ";
            if (!sent.isOpen) {
                out += "no socket could be opened, -v tells why\n";
                continue;
            }
            out += "sent " + times(sent.count) + " from port " + std::to_string(sent.ownPort);
            if (sent.failed > 0) {
                out += ", failed " + times(sent.failed) + ": " + strerror(sent.error);
            }
            out += "\n";
        }
        for (auto const& [datagram, count] : story.came) {
            out += "  " + std::string(datagram.isTaken ? "came back " : "dropped ") + times(count) +
                   ", by " + kRoads[datagram.road].name + " from " + datagram.from + ": " +
                   datagram.verdict + "\n";
        }
        if (story.came.empty()) out += "  nothing came back\n";
    }
    return out;
}

Json CScanWatch::json() const {
    Json interfaces = Json::array();
    for (auto const& [name, story] : m_stories) {
        Json entry = {{"name", name},
                      {"address", story.address},
                      {"mac", story.mac},
                      {"asked", story.reason.empty()}};
        if (!story.reason.empty()) {
            entry["reason"] = story.reason;
            interfaces.push_back(entry);
            continue;
        }
        Json sent = Json::array();
        for (Road const road : {MULTICAST, BROADCAST}) {
            Sent const& one = story.sent[road];
            Json line = {
                {"road", kRoads[road].name}, {"to", place_of(kRoads[road].host, kRoads[road].port)},
                {"open", one.isOpen},        {"port", one.ownPort},
                {"count", one.count},        {"failed", one.failed}};
            if (one.failed > 0) line["error"] = strerror(one.error);
            sent.push_back(line);
        }
        Json came = Json::array();
        for (auto const& [datagram, count] : story.came) {
            came.push_back({{"road", kRoads[datagram.road].name},
                            {"from", datagram.from},
                            {"count", count},
                            {"taken", datagram.isTaken},
                            {"verdict", datagram.verdict}});
        }
        entry["sent"] = sent;
        entry["came"] = came;
        interfaces.push_back(entry);
    }
    return {{"interfaces", interfaces}};
}

}  // namespace kyptool
