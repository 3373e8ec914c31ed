// What a body of the component channel can do: become bytes and be read from bytes.
//
// Threads:  one at a time.
// Lifetime: destroyed under its own type; the destructor takes no slot.
#ifndef KYP_KYPCOMM_PROTOCOL_IPROTOCOL_H
#define KYP_KYPCOMM_PROTOCOL_IPROTOCOL_H

#include <cstdint>

#include "kypcomm/protocol/Message.h"
#include "utils/Export.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

class KYP_API IProtocol {
public:
    // All fields 0.
    IProtocol();
    ~IProtocol();

    // The body as bytes.
    virtual Message serialization() = 0;

    // Fills the fields as far as `m` goes; the later ones stay as they are. Returns 0 always: a
    // short body is no error.
    virtual int deserialization(Message const& m) = 0;

    virtual unsigned short getCmdId();
    virtual unsigned char getType();
    virtual unsigned int getErrId();
    virtual void setType(unsigned char value);
    virtual void setCmdId(unsigned short value);
    virtual void setErrId(unsigned int value);

    uint8_t type;
    uint16_t cmdId;
    uint32_t errId;  // in a reply: 0, or the status code of the refusal
};

#pragma GCC diagnostic pop

#endif
