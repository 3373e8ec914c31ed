// Small helpers for texts. No state; any thread.
#ifndef KYP_UTILS_CSTRINGHELPER_H
#define KYP_UTILS_CSTRINGHELPER_H

#include <string>
#include <vector>

#include "utils/Export.h"

class KYP_API CStringHelper {
public:
    CStringHelper();
    ~CStringHelper();

    // `text` without the blanks, carriage returns, line feeds and tabs at both ends. Other white
    // space stays.
    static std::string Strtrim(std::string text);

    // Order of two texts without regard to case: below 0, 0 or above 0.
    static int StriCmp(char const* left, char const* right);

    // The pieces of `text` between occurrences of `separator`, empty ones too; no piece for an
    // empty text. With an empty separator the whole text is the one piece.
    static std::vector<std::string> StriSplit(std::string text, std::string separator);
};

#endif
