#include "utils/IniFile.h"

#include <cctype>
#include <fstream>
#include <sstream>

#include "utils/CStringHelper.h"
#include "utils/Log.h"

namespace utility {

namespace {

using Keys = std::map<std::string, std::string>;

constexpr char kListSeparators[] = ", \t";

bool is_white_space(char character) {
    return isspace(static_cast<unsigned char>(character)) != 0;
}

// The stored value, or null when section or key is missing.
std::string const* find_value(IniFile const& file, std::string const& section,
                              std::string const& key) {
    auto const keys = file.sections.find(section);
    if (keys == file.sections.end() || keys->second == nullptr) return nullptr;
    auto const value = keys->second->find(key);
    return value == keys->second->end() ? nullptr : &value->second;
}

// Kept: a value that is no number gives 0, not the default.
template <typename Number>
Number to_number(std::string const& text) {
    Number number = 0;
    std::istringstream(text) >> number;
    return number;
}

template <typename Number>
Number get_number(IniFile const& file, std::string const& section, std::string const& key,
                  Number defaultValue) {
    std::string const* value = find_value(file, section, key);
    return value == nullptr ? defaultValue : to_number<Number>(*value);
}

bool equals_without_case(std::string const& text, std::string const& word) {
    return text.size() == word.size() && CStringHelper::StriCmp(text.c_str(), word.c_str()) == 0;
}

}  // namespace

IniFile::IniFile(std::string const& path) : fileName(path) {}

IniFile::~IniFile() {
    for (auto const& section : sections) delete section.second;
}

bool IniFile::Load() {
    std::ifstream file(fileName);
    if (!file.is_open()) return false;

    Keys* current = nullptr;
    std::string line;
    while (std::getline(file, line)) {
        std::string name;
        if (isSection(line, name)) {
            Keys*& keys = sections[name];
            if (keys == nullptr) keys = new Keys();
            current = keys;
            continue;
        }
        size_t const equals = line.find('=');
        if (equals == std::string::npos) continue;
        std::string const key = trim(line.substr(0, equals));
        if (key.empty() || key[0] == '#' || key[0] == ';') continue;
        if (current == nullptr) {
            KYP_LOG(LOG_LEVEL_WARNING, "ini file:%s,key:%s stands before the first section",
                    fileName.c_str(), key.c_str());
            continue;
        }
        // Kept: there is no comment behind a value; "1 # one" is the value.
        (*current)[key] = trim(line.substr(equals + 1));
    }
    return true;
}

std::string IniFile::GetString(std::string const& section, std::string const& key,
                               std::string const& defaultValue) {
    std::string const* value = find_value(*this, section, key);
    return value == nullptr ? defaultValue : *value;
}

short IniFile::GetInt16(std::string const& section, std::string const& key, short defaultValue) {
    return get_number(*this, section, key, defaultValue);
}

unsigned short IniFile::GetUInt16(std::string const& section, std::string const& key,
                                  unsigned short defaultValue) {
    return get_number(*this, section, key, defaultValue);
}

int IniFile::GetInt32(std::string const& section, std::string const& key, int defaultValue) {
    return get_number(*this, section, key, defaultValue);
}

unsigned int IniFile::GetUInt32(std::string const& section, std::string const& key,
                                unsigned int defaultValue) {
    return get_number(*this, section, key, defaultValue);
}

bool IniFile::GetBool(std::string const& section, std::string const& key, bool defaultValue) {
    std::string const* value = find_value(*this, section, key);
    if (value == nullptr) return defaultValue;
    // Kept: every other text is false, not the default: "yes" and "on" too.
    return equals_without_case(*value, "true") || *value == "1";
}

float IniFile::GetFloat(std::string const& section, std::string const& key, float defaultValue) {
    // Kept: the default goes through a text and loses what is behind its sixth digit.
    std::ostringstream defaultText;
    defaultText << static_cast<double>(defaultValue);
    return to_number<float>(GetString(section, key, defaultText.str()));
}

std::vector<std::string> IniFile::GetStringList(std::string const& section,
                                                std::string const& key) {
    std::vector<std::string> tokens;
    std::string const value = GetString(section, key, "");
    size_t start = value.empty() ? std::string::npos : 0;
    while (start != std::string::npos) {
        // Kept: a separator at the value's start gives an empty first token, one at its end none.
        size_t const end = value.find_first_of(kListSeparators, start);
        tokens.push_back(value.substr(start, end - start));
        start = value.find_first_not_of(kListSeparators, end);
    }
    return tokens;
}

std::string IniFile::trimLeft(std::string const& text) {
    size_t start = 0;
    while (start < text.size() && is_white_space(text[start])) ++start;
    return text.substr(start);
}

std::string IniFile::trimRight(std::string const& text) {
    size_t end = text.size();
    while (end > 0 && is_white_space(text[end - 1])) --end;
    return text.substr(0, end);
}

std::string IniFile::trim(std::string const& text) {
    return trimLeft(trimRight(text));
}

bool IniFile::isSection(std::string line, std::string& name) {
    std::string const trimmed = trim(line);
    if (trimmed.size() < 3 || trimmed.front() != '[' || trimmed.back() != ']') return false;
    name = trim(trimmed.substr(1, trimmed.size() - 2));
    return true;
}

}  // namespace utility
