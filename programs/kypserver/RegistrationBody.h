// The body of a request on port 102, read in place.
#ifndef KYP_PROGRAMS_KYPSERVER_REGISTRATIONBODY_H
#define KYP_PROGRAMS_KYPSERVER_REGISTRATIONBODY_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kypserver {

// What a component asks for.
constexpr uint16_t kRegisterComponent = 1;
constexpr uint16_t kRegisterPort = 3;
constexpr uint16_t kRegisterReply = 0x1000;  // set in the command of a reply

// `name` is a view into the body. What a body lacks is 0 or empty.
struct RegistrationBody {
    uint8_t type = 0;
    uint16_t cmdId = 0;
    uint32_t drvParam0 = 0;
    uint32_t drvParam1 = 0;
    uint32_t routePort = 0;
    std::string_view name;
};

// Reads `size` bytes at `data`. Returns 0 when they are exactly one body, 0x100c when they are
// fewer than they should be and 0x1004 when they are more, with `body` filled as far as they go.
// Never reads outside the bytes, whatever the length of the name says.
unsigned int read_registration(char const* data, size_t size, RegistrationBody& body);

// One or more letters, digits, '_' and '-', at most 255 of them.
bool is_component_name(std::string_view name);

}  // namespace kypserver

#endif
