/*
 * The device records that both the C interface and the library's own classes speak of.
 * Plain C11 and C++17.
 */
#ifndef KYP_KYPCOMM_KYPTYPES_H
#define KYP_KYPCOMM_KYPTYPES_H

#include <stdint.h>

/* Six raw bytes that name a device. The first four double as an IPv4 address when no other route
 * to the device is known. Its text is six decimal numbers with dots: 192.168.1.10.1.1. */
typedef struct __attribute__((packed)) _KypDeviceId {
    uint8_t bytes[6];
} _KypDeviceId;

/* A device and a logical port on it. */
typedef struct __attribute__((packed)) _KypDeviceAddr {
    _KypDeviceId deviceId;
    uint16_t port; /* host order */
} _KypDeviceAddr;

#endif
