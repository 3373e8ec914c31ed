#include "kypcomm/protocol/CompRegisterPackage.h"

#include <cstring>

#include "MessageCursor.h"

namespace {

constexpr int kFixedSize = 17;  // up to the name

// A reply carries its request's command with this bit set.
constexpr unsigned kReplyBit = 0x1000;

bool carries_route_port(unsigned cmdId) {
    const unsigned request = cmdId & ~kReplyBit;
    return request == 3 || request == 4;
}

}  // namespace

CompRegisterPackage::CompRegisterPackage() : nameLen(0), drvParam0(0), drvParam1(0), routePort(0) {}

CompRegisterPackage::CompRegisterPackage(unsigned char typeValue, unsigned short cmdIdValue,
                                         unsigned int errIdValue, char const* nameValue,
                                         unsigned int drvParam0Value, unsigned int drvParam1Value,
                                         unsigned int routePortValue)
    : nameLen(0),
      drvParam0(drvParam0Value),
      drvParam1(drvParam1Value),
      routePort(routePortValue),
      name(nameValue) {
    type = typeValue;
    cmdId = cmdIdValue;
    errId = errIdValue;
    // Kept: a name of 64 KiB or more goes out with the low 16 bits of its length.
    nameLen = static_cast<uint16_t>(name.size());
}

CompRegisterPackage::~CompRegisterPackage() = default;

Message CompRegisterPackage::serialization() {
    std::string body;
    append_field(body, type);
    append_field(body, cmdId);
    append_field(body, errId);
    append_field(body, nameLen);
    append_field(body, drvParam0);
    append_field(body, drvParam1);
    body.append(name, 0, nameLen);
    body.resize(static_cast<std::size_t>(kFixedSize) + nameLen);
    if (carries_route_port(cmdId)) append_field(body, routePort);
    return {body.data(), body.size()};
}

int CompRegisterPackage::deserialization(Message const& m) {
    const int length = signed_length(m);
    if (length == 0) return 0;
    read_field(m, 0, type);
    if (length == 1) return 0;
    read_field(m, 1, cmdId);
    if (length < 4) return 0;
    read_field(m, 3, errId);
    if (length < 8) return 0;
    read_field(m, 7, nameLen);
    if (length <= 9) return 0;
    read_field(m, 9, drvParam0);
    if (length < 14) return 0;
    read_field(m, 13, drvParam1);
    // Kept: a body that ends here leaves the name that stood before, also when it declares none.
    if (length < 18) return 0;

    const int nameEnd = kFixedSize + nameLen;
    if (nameEnd > length) return 0;  // declares more than was sent
    name.assign(reinterpret_cast<char const*>(m.data) + kFixedSize, nameLen);
    // Kept: any byte behind the name begins a port, also for a command that carries none.
    if (length > nameEnd) read_field(m, static_cast<uint64_t>(nameEnd), routePort);
    return 0;
}
