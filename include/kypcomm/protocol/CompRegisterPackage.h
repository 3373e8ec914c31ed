// The body of a registration request to the server and of its reply: 17 bytes, the name without
// terminator, and the route port for the commands that carry one. Host order, no gaps.
//
// Threads:  one at a time.
// Lifetime: a value; destroyed under its own type.
#ifndef KYP_KYPCOMM_PROTOCOL_COMPREGISTERPACKAGE_H
#define KYP_KYPCOMM_PROTOCOL_COMPREGISTERPACKAGE_H

#include <cstdint>
#include <string>

#include "kypcomm/protocol/IProtocol.h"
#include "utils/Export.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class KYP_API CompRegisterPackage : public IProtocol {
public:
    // For a reply that is to be read: all numbers 0, no name.
    CompRegisterPackage();

    // Throws std::logic_error for a null `name`.
    CompRegisterPackage(unsigned char type, unsigned short cmdId, unsigned int errId,
                        char const* name, unsigned int drvParam0, unsigned int drvParam1,
                        unsigned int routePort);
    ~CompRegisterPackage();

    // nameLen + 21 bytes for the commands 3, 4, 0x1003 and 0x1004, nameLen + 17 for all others.
    Message serialization() override;

    // Reads as far as `m` goes. A field that is cut by the end reads its missing bytes as zero; a
    // name that is declared longer than the body ends the reading. Returns 0.
    int deserialization(Message const& m) override;

    uint16_t nameLen;    // bytes of the name, without terminator
    uint32_t drvParam0;  // the first two words of the component's description;
    uint32_t drvParam1;  // their meaning is the server's
    uint32_t routePort;  // logical port to be served
    std::string name;    // name of the component
};

#pragma GCC diagnostic pop

#endif
