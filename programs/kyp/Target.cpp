#include "kyp/Target.h"

#include "kyp/KnownDevices.h"
#include "kyp/Values.h"
#include "kypcomm/KypWire.h"

namespace kyptool {

namespace {

constexpr size_t kLongestPath = 107;

// The library reads a connection's parameters up to a semicolon.
bool is_socket_path(std::string const& path) {
    return path.size() <= kLongestPath && path.find(';') == std::string::npos;
}

std::string host_in(_KypDeviceId const& id) {
    std::string const text = id_text(id);
    return text.substr(0, text.rfind('.', text.rfind('.') - 1));
}

std::optional<Target> parse_device(std::string const& text) {
    size_t const at = text.find('@');
    auto const id = parse_device_id(text.substr(0, at));
    if (!id || is_zero(*id)) return std::nullopt;

    Target target;
    target.id = *id;
    target.host = at == std::string::npos ? host_in(*id) : text.substr(at + 1);
    if (at == std::string::npos) {
        if (auto const known = known_address(text)) {
            target.host = *known;
            target.isRemembered = true;
        }
    }
    if (!is_ipv4(target.host)) return std::nullopt;
    return target;
}

std::optional<Target> parse_kind(std::string const& text) {
    Target target;
    if (text == "local" || text.find('/') != std::string::npos) {
        target.isLocal = true;
        target.path = text == "local" ? kDomainPath : text;
        if (!is_socket_path(target.path)) return std::nullopt;
        return target;
    }
    if (is_ipv4(text)) {
        // Frames do not carry the id, so the usual one for an address serves as well as another.
        target.id = *parse_device_id(text + ".1.1");
        target.host = text;
        return target;
    }
    return parse_device(text);
}

}  // namespace

char const* const kTargetForms =
    "'local', the path of a socket, an IPv4 address, a device id, or ID@ADDRESS";

std::optional<Target> parse_target(std::string const& text) {
    auto target = parse_kind(text);
    if (target) target->text = text;
    return target;
}

std::string place_of(Target const& target) {
    std::string text = printable(target.text);
    bool const isShown = target.isLocal || text.find(target.host) != std::string::npos;
    if (isShown) return text;
    return text + " at " + target.host + (target.isRemembered ? " (where a scan has seen it)" : "");
}

}  // namespace kyptool
