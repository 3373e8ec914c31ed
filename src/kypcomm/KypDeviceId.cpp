#include "kypcomm/KypDeviceId.h"

#include <cstdlib>
#include <cstring>
#include <ostream>
#include <sstream>
#include <string>

namespace {

// Puts the low eight bits of `count` numbers, separated by dots, at `out`. More or fewer of them
// leave zeros there.
void read_fields(const char* text, int count, uint8_t* out) {
    std::istringstream stream(text != nullptr ? text : "");
    std::string field;
    int found = 0;
    while (found < count && std::getline(stream, field, '.')) {
        out[found] = static_cast<uint8_t>(strtol(field.c_str(), nullptr, 10));
        ++found;
    }
    const bool exact = found == count && !std::getline(stream, field, '.');
    if (!exact) memset(out, 0, static_cast<size_t>(count));
}

}  // namespace

_KypDeviceId make_KypDeviceId(const char* text, int* err) {
    _KypDeviceId id = {};
    read_fields(text, 6, id.bytes);
    // Kept: bad text is no error; callers see 0 and the all-zero id.
    if (err != nullptr) *err = 0;
    return id;
}

_KypDeviceId make_KypDeviceIdByHostIp(const char* ip, int* err) {
    _KypDeviceId id = {};
    read_fields(ip, 4, id.bytes);
    id.bytes[4] = 1;
    id.bytes[5] = 1;
    if (err != nullptr) *err = 0;
    return id;
}

bool operator<(const _KypDeviceId& left, const _KypDeviceId& right) {
    return memcmp(left.bytes, right.bytes, sizeof left.bytes) < 0;
}

bool operator<(const _KypDeviceAddr& left, const _KypDeviceAddr& right) {
    const int order = memcmp(&left.deviceId, &right.deviceId, sizeof left.deviceId);
    return order != 0 ? order < 0 : left.port < right.port;
}

std::ostream& operator<<(std::ostream& stream, const _KypDeviceId& id) {
    stream << std::dec << static_cast<unsigned int>(id.bytes[0]);
    for (size_t i = 1; i < sizeof id.bytes; ++i) {
        stream << "." << static_cast<unsigned int>(id.bytes[i]);
    }
    return stream;
}
