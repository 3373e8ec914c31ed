// Device ids from text, as text, and in order.
//
// Owns:    nothing; ids are values.
// Threads: every function is re-entrant.
#ifndef KYP_KYPCOMM_KYPDEVICEID_H
#define KYP_KYPCOMM_KYPDEVICEID_H

#include <iosfwd>

#include "kypcomm/KypTypes.h"
#include "utils/Export.h"

// Reads six decimal numbers with dots; each keeps its low eight bits, and letters count as 0. More
// or fewer than six, or a null text, give the all-zero id. *err becomes 0 in every case, so that a
// zero id is the only sign of bad text; `err` may be null.
KYP_API _KypDeviceId make_KypDeviceId(const char* text, int* err);

// The same with the four numbers of an IPv4 text, followed by 1 and 1: 192.168.1.10.1.1. Bad text
// gives 0.0.0.0.1.1.
KYP_API _KypDeviceId make_KypDeviceIdByHostIp(const char* ip, int* err);

// Byte by byte, unsigned, the first byte first.
KYP_API bool operator<(const _KypDeviceId& left, const _KypDeviceId& right);

// By id, then by port.
KYP_API bool operator<(const _KypDeviceAddr& left, const _KypDeviceAddr& right);

// Six decimal numbers with dots. The stream stays switched to decimal.
KYP_API std::ostream& operator<<(std::ostream& stream, const _KypDeviceId& id);

#endif
