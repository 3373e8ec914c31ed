#include "kypcomm/KypWire.h"

unsigned int utils_htonl(unsigned int value) {
    return __builtin_bswap32(value);
}

unsigned int utils_ntohl(unsigned int value) {
    return __builtin_bswap32(value);
}

unsigned short utils_htons(unsigned short value) {
    return __builtin_bswap16(value);
}

unsigned short utils_ntohs(unsigned short value) {
    return __builtin_bswap16(value);
}
