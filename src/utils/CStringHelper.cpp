#include "utils/CStringHelper.h"

#include <strings.h>

CStringHelper::CStringHelper() = default;
CStringHelper::~CStringHelper() = default;

std::string CStringHelper::Strtrim(std::string text) {
    constexpr char kWhite[] = " \r\n\t";

    size_t const first = text.find_first_not_of(kWhite);
    if (first == std::string::npos) return std::string();
    size_t const last = text.find_last_not_of(kWhite);
    return text.substr(first, last - first + 1);
}

int CStringHelper::StriCmp(char const* left, char const* right) {
    return strcasecmp(left, right);
}

std::vector<std::string> CStringHelper::StriSplit(std::string text, std::string separator) {
    std::vector<std::string> pieces;
    if (text.empty()) return pieces;
    if (separator.empty()) {
        pieces.push_back(text);
        return pieces;
    }

    // The separator at the end closes the last piece like every other.
    text += separator;
    size_t start = 0;
    for (size_t cut; (cut = text.find(separator, start)) != std::string::npos;) {
        pieces.push_back(text.substr(start, cut - start));
        start = cut + separator.size();
    }
    return pieces;
}
