#include "utils/MD5.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kBlockSize = 64;
constexpr size_t kLengthOffset = 56;  // the bit count ends the last block

// Rotations of the four rounds, four steps each.
constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// The whole part of 2^32 * |sin(i + 1)|.
constexpr uint32_t kSines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

uint32_t rotate_left(uint32_t value, int count) {
    return (value << count) | (value >> (32 - count));
}

uint32_t load_le32(unsigned char const* bytes) {
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

void store_le(unsigned char* bytes, uint64_t value, int count) {
    for (int i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}

// The round's mix of b, c and d, and which word of the block the step takes.
uint32_t mix(int step, uint32_t b, uint32_t c, uint32_t d, int* word) {
    switch (step / 16) {
        case 0:
            *word = step;
            return (b & c) | (~b & d);
        case 1:
            *word = (5 * step + 1) % 16;
            return (b & d) | (c & ~d);
        case 2:
            *word = (3 * step + 5) % 16;
            return b ^ c ^ d;
        default:
            *word = (7 * step) % 16;
            return c ^ (b | ~d);
    }
}

// -1 for what is no digit.
int hex_digit(char character) {
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    return -1;
}

}  // namespace

static_assert(sizeof(MD5) == 16, "the digest is the object");

MD5::MD5() : m_digest{} {}

MD5::MD5(unsigned long* digest) {
    memcpy(m_digest, digest, sizeof m_digest);
}

MD5::MD5(char const* hex) : m_digest{} {
    if (hex == nullptr) return;

    size_t const length = strnlen(hex, 2 * sizeof m_digest);
    for (size_t i = 0; 2 * i < length; ++i) {
        char pair[3] = {};
        memcpy(pair, hex + 2 * i, std::min<size_t>(2, length - 2 * i));
        m_digest[i] = static_cast<unsigned char>(_httoi(pair));
    }
}

void MD5::GenerateMD5(unsigned char* data, int length) {
    md5_context context;
    md5_starts(&context);
    md5_update(&context, data, length < 0 ? 0 : static_cast<size_t>(length));
    md5_finish(&context, m_digest);
}

std::string MD5::ToString() {
    constexpr char kDigits[] = "0123456789abcdef";

    std::string text;
    text.reserve(2 * sizeof m_digest);
    for (unsigned char const byte : m_digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xf];
    }
    return text;
}

MD5 MD5::operator+(MD5 other) {
    MD5 sum;
    for (size_t i = 0; i < sizeof m_digest; ++i) sum.m_digest[i] = m_digest[i] ^ other.m_digest[i];
    return sum;
}

bool MD5::operator==(MD5 other) {
    return memcmp(m_digest, other.m_digest, sizeof m_digest) == 0;
}

void MD5::md5_starts(md5_context* context) {
    context->bits = 0;
    context->state[0] = 0x67452301;
    context->state[1] = 0xefcdab89;
    context->state[2] = 0x98badcfe;
    context->state[3] = 0x10325476;
    memset(context->buffer, 0, sizeof context->buffer);
}

void MD5::md5_update(md5_context* context, unsigned char* data, size_t length) {
    if (length == 0) return;

    size_t const filled = (context->bits / 8) % kBlockSize;
    context->bits += static_cast<uint64_t>(length) * 8;

    size_t taken = 0;
    if (filled > 0) {
        taken = std::min(length, kBlockSize - filled);
        memcpy(context->buffer + filled, data, taken);
        if (filled + taken < kBlockSize) return;
        md5_process(context, context->buffer);
    }
    for (; length - taken >= kBlockSize; taken += kBlockSize) md5_process(context, data + taken);
    memcpy(context->buffer, data + taken, length - taken);
}

void MD5::md5_finish(md5_context* context, unsigned char digest[16]) {
    unsigned char count[8];
    store_le(count, context->bits, 8);

    unsigned char padding[kBlockSize] = {0x80};
    size_t const filled = (context->bits / 8) % kBlockSize;
    size_t const room = filled < kLengthOffset ? kLengthOffset : kLengthOffset + kBlockSize;
    md5_update(context, padding, room - filled);
    md5_update(context, count, sizeof count);

    for (size_t i = 0; i < 4; ++i) store_le(digest + 4 * i, context->state[i], 4);
}

void MD5::md5_process(md5_context* context, unsigned char const* block) {
    uint32_t words[16];
    for (size_t i = 0; i < 16; ++i) words[i] = load_le32(block + 4 * i);

    uint32_t a = context->state[0];
    uint32_t b = context->state[1];
    uint32_t c = context->state[2];
    uint32_t d = context->state[3];
    for (int step = 0; step < 64; ++step) {
        int word = 0;
        uint32_t const sum = a + mix(step, b, c, d, &word) + kSines[step] + words[word];
        a = d;
        d = c;
        c = b;
        b += rotate_left(sum, kShifts[step / 16][step % 4]);
    }
    context->state[0] += a;
    context->state[1] += b;
    context->state[2] += c;
    context->state[3] += d;
}

int _httoi(char const* text) {
    // Kept: "FF" and "0xff" give 0: digits are lower-case and the prefix is upper-case.
    if (text[0] == '0' && text[1] == 'X') text += 2;

    unsigned int value = 0;
    for (int digit; (digit = hex_digit(*text)) >= 0; ++text) {
        value = value * 16 + static_cast<unsigned int>(digit);
    }
    return static_cast<int>(value);
}
