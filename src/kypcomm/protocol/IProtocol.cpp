#include "kypcomm/protocol/IProtocol.h"

IProtocol::IProtocol() : type(0), cmdId(0), errId(0) {}

IProtocol::~IProtocol() = default;

unsigned short IProtocol::getCmdId() {
    return cmdId;
}

unsigned char IProtocol::getType() {
    return type;
}

unsigned int IProtocol::getErrId() {
    return errId;
}

void IProtocol::setType(unsigned char value) {
    type = value;
}

void IProtocol::setCmdId(unsigned short value) {
    cmdId = value;
}

void IProtocol::setErrId(unsigned int value) {
    errId = value;
}
