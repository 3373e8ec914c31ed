// An MD5 digest, and the hash that fills it.
//
// Threads:  none of its own; one owner at a time.
// Lifetime: a value; a context lives from md5_starts to md5_finish.
#ifndef KYP_UTILS_MD5_H
#define KYP_UTILS_MD5_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "utils/Export.h"

class KYP_API MD5 {
public:
    // A hash under way: md5_starts, any number of md5_update, md5_finish.
    struct md5_context {
        uint64_t bits;             // hashed so far
        uint32_t state[4];         // A, B, C, D
        unsigned char buffer[64];  // the block that is not full yet
    };

    // All zero.
    MD5();

    // Copies the 16 bytes behind `digest`.
    MD5(unsigned long* digest);

    // Reads 32 hex characters as ToString() writes them, each pair by _httoi(). An empty or null
    // text is all zero; what a shorter one lacks is zero.
    MD5(char const* hex);

    // Hashes `length` bytes into the digest. A negative length counts as 0.
    void GenerateMD5(unsigned char* data, int length);

    // 32 lower-case hex characters.
    std::string ToString();

    // The bitwise exclusive or of the two digests; a hash of nothing.
    MD5 operator+(MD5 other);

    // All 16 bytes are equal.
    bool operator==(MD5 other);

    void md5_starts(md5_context* context);
    void md5_update(md5_context* context, unsigned char* data, size_t length);
    void md5_finish(md5_context* context, unsigned char digest[16]);

    // Takes in one whole block of 64 bytes.
    void md5_process(md5_context* context, unsigned char const* block);

    unsigned char m_digest[16];
};

// The number that the hex digits at the start of `text` make, up to the first other character. Only
// 0 to 9 and a to f are digits; a prefix "0X" is skipped.
KYP_API int _httoi(char const* text);

#endif
