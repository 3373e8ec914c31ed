// The records at the head of every frame and the numbers that mean something on the wire.
//
// Byte order is not uniform: _KypHeader travels as the sender's processor holds it (little-endian
// on every platform served), _AoEHeader and AoERequestHeader travel in network order.
#ifndef KYP_KYPCOMM_KYPWIRE_H
#define KYP_KYPCOMM_KYPWIRE_H

#include <cstdint>

#include "kypcomm/KypTypes.h"
#include "utils/Export.h"

// First on every stream and in every datagram. Host order.
struct __attribute__((packed)) _KypHeader {
    uint8_t reserved;  // always 0
    uint8_t version;   // 1 in every frame built here; 0 is the older form
    uint16_t port;     // logical port, 1..4096: the routing key at the far end
    uint32_t nMsgLen;  // bytes that follow this header
};
static_assert(sizeof(_KypHeader) == 8, "the layout is the wire format");

// Second, in requests and responses. Network order.
struct __attribute__((packed)) _AoEHeader {
    uint32_t error;     // 0 in a request; the status of the answer in a response
    uint32_t invokeId;  // ties a response to its request
    uint16_t cmd;       // a KypCommand
    uint16_t reserved;  // always 0
    uint8_t state;      // 0 request, 1 response
};
static_assert(sizeof(_AoEHeader) == 13, "the layout is the wire format");

// Third, in requests only. Network order.
struct __attribute__((packed)) AoERequestHeader {
    uint32_t indexGroup;   // first address word of the operation
    uint32_t indexOffset;  // second address word
};
static_assert(sizeof(AoERequestHeader) == 8, "the layout is the wire format");

// Between server and component, in front of the payload. Host order. The two directions name the
// client at different places.
struct __attribute__((packed)) _KypforwardHeader {
    uint8_t reserved;      // 0
    uint32_t event;        // server to component
    uint16_t clientFd;     // server to component: the client's number
    uint16_t replyFd;      // component to server: the client's number
    uint32_t replyInvoke;  // component to server: the invoke id of the request
};
static_assert(sizeof(_KypforwardHeader) == 13, "the layout is the wire format");

// One request as the sender's code holds it; never on the wire. Host order, passed by value.
struct __attribute__((packed)) _KypPayload {
    uint16_t cmd;
    uint32_t indexGroup;
    uint32_t indexOffset;
    uint32_t length;  // bytes behind `data`
    void* data;       // not owned
};
static_assert(sizeof(_KypPayload) == 22, "the layout is the binary interface");

// At the head of every scan datagram; in a reply the JSON text follows it, without a NUL. Network
// order.
struct __attribute__((packed)) _KypScanCommand {
    uint8_t command;  // a KypScanCommandCode
    uint32_t status;  // 0 in a request; a reply with another value is ignored
    uint32_t time;    // seconds since the epoch; nobody looks at it in a reply
};
static_assert(sizeof(_KypScanCommand) == 9, "the layout is the wire format");

// _KypScanCommand.command.
enum KypScanCommandCode : uint8_t {
    KYP_SCAN_MULTICAST_REQUEST = 0,
    KYP_SCAN_MULTICAST_REPLY = 1,
    KYP_SCAN_BROADCAST_REQUEST = 2,
    KYP_SCAN_BROADCAST_REPLY = 3,
};

// _AoEHeader.cmd. No answer is awaited for 6, 7 and 8.
enum KypCommand : uint16_t {
    KYP_CMD_READ_DEVICE_ID = 1,
    KYP_CMD_READ = 2,
    KYP_CMD_WRITE = 4,
    KYP_CMD_SET_DEVICE_ID = 5,
    KYP_CMD_SUBSCRIBE = 6,
    KYP_CMD_UNSUBSCRIBE = 7,
    KYP_CMD_PUBLISH = 8,  // also: never matched to a waiting request
    KYP_CMD_READ_WRITE = 9,
};

// _AoEHeader.state.
enum KypState : uint8_t {
    KYP_STATE_REQUEST = 0,
    KYP_STATE_RESPONSE = 1,
};

constexpr uint8_t kKypVersion = 1;

// Logical ports with a fixed meaning.
constexpr uint16_t kPortEcho = 100;
constexpr uint16_t kPortDeviceId = 101;
constexpr uint16_t kPortRegister = 102;
constexpr uint16_t kPortPubSub = 103;

constexpr uint16_t kLowestPort = 1;
constexpr uint16_t kHighestPort = 4096;
constexpr uint16_t kHighestReservedPort = 500;

// What a client or component accepts as nMsgLen; one more closes the link.
constexpr uint32_t kMaxMsgLen = 0x5fffff;

// The device identity service on kPortDeviceId.
constexpr uint32_t kReadIdGroup = 0x1000;
constexpr uint32_t kReadIdOffset = 0x1001;
constexpr uint32_t kSetIdGroup = 0x1001;
constexpr uint32_t kSetIdOffset = 0x1002;

constexpr uint16_t kTcpPort = 9999;
constexpr uint16_t kUdpPort = 38898;
constexpr uint16_t kScanPort = 38897;           // of kScanGroup; requests are sent from it too
constexpr uint16_t kScanBroadcastPort = 38896;  // of 255.255.255.255
constexpr char const* kScanGroup = "239.255.0.3";
constexpr int kMaxScanDatagram = 2048;  // what a reply is read into, head included
constexpr char const* kDomainPath = "/var/tmp/kyp/kypserver";

// Swap bytes unconditionally: right on the little-endian hosts that the library serves.
KYP_API unsigned int utils_htonl(unsigned int value);
KYP_API unsigned int utils_ntohl(unsigned int value);
KYP_API unsigned short utils_htons(unsigned short value);
KYP_API unsigned short utils_ntohs(unsigned short value);

#endif
