// Conversion between encodings. No state; any thread.
#ifndef KYP_UTILS_CCODINGCONV_H
#define KYP_UTILS_CCODINGCONV_H

#include <string>

#include "utils/Export.h"

class KYP_API CCodingConv {
public:
    CCodingConv();
    ~CCodingConv();

    // `length` bytes of ASCII as UTF-8. Empty, with the reason logged, when one of them is not
    // ASCII. `text` ends in a NUL, for the log's sake.
    static std::string AnsiToUtf8(char const* text, int length);
};

#endif
