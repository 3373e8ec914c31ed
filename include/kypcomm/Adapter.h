// The machine's usable IPv4 network interfaces and the serial number made from the first of them.
//
// Owns:     nothing; records and lists are values.
// Threads:  any. The serial is determined once per process.
// Lifetime: the serial's is that of the process.
#ifndef KYP_KYPCOMM_ADAPTER_H
#define KYP_KYPCOMM_ADAPTER_H

#include <string>
#include <unordered_map>
#include <utility>

#include "utils/Export.h"

// One network interface.
struct KYP_API _NetAdapterObj {
    _NetAdapterObj();
    ~_NetAdapterObj();

    // Field by field, in their order.
    _NetAdapterObj(std::string mac, std::string name, std::string ip)
        : macAddr(std::move(mac)), adapterName(std::move(name)), ipAddr(std::move(ip)) {}

    _NetAdapterObj(_NetAdapterObj const&) = default;
    _NetAdapterObj(_NetAdapterObj&&) = default;
    _NetAdapterObj& operator=(_NetAdapterObj const&) = default;
    _NetAdapterObj& operator=(_NetAdapterObj&&) = default;

    std::string macAddr;      // "00:1a:2b:3c:4d:5e", lower case
    std::string adapterName;  // "eth0"
    std::string ipAddr;       // dotted text; empty when the interface is down or has no address
};

// The interfaces by name, without loopback, docker, tap and can0 (prefixes, in any case). Empty on
// a failure, which is logged. Determines the runtime serial on the way.
KYP_API std::unordered_map<std::string, _NetAdapterObj> GetLocalNetAdaptersInfo();

// The serial of this process: the first `mac` that anyone passed, in upper case and without its
// colons. `adapterName` is only logged.
KYP_API std::string GetRuntimeSerial(std::string mac, std::string adapterName);

// Upper-case hexadecimal with at least two digits: 10 gives "0A".
KYP_API std::string IntToHex(int value);

// What GetRuntimeSerial() answers; empty before its first call.
extern KYP_API std::string g_strCodesysSerailNo;

#endif
