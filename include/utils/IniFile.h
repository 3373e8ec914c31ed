// A sectioned text file, read into memory and asked for values with defaults. It is never written.
//
//     [section]
//     key = value
//
// Names are compared by bytes. A section that occurs twice is one; of a key given twice the later
// value stays. Keys that are empty or begin with '#' or ';' are dropped, and so is every other line
// without a '='. There are no comments behind a value.
//
// Owns:     its sections.
// Threads:  none while it loads; then any number may ask.
// Lifetime: any.
#ifndef KYP_UTILS_INIFILE_H
#define KYP_UTILS_INIFILE_H

#include <map>
#include <string>
#include <vector>

#include "utils/Export.h"

namespace utility {

class KYP_API IniFile {
public:
    // Reads nothing yet.
    IniFile(std::string const& fileName);
    ~IniFile();
    IniFile(IniFile const&) = delete;
    IniFile& operator=(IniFile const&) = delete;

    // Adds the file's content to what is already there. False when the file cannot be opened. A key
    // in front of the first section belongs nowhere: it is logged and left out.
    bool Load();

    // The value as it was stored; `defaultValue` when section or key is missing.
    std::string GetString(std::string const& section, std::string const& key,
                          std::string const& defaultValue);

    // The number at the value's start; what follows it is ignored. A value without one gives 0, not
    // the default, and one out of range the nearest limit.
    short GetInt16(std::string const& section, std::string const& key, short defaultValue);
    unsigned short GetUInt16(std::string const& section, std::string const& key,
                             unsigned short defaultValue);
    int GetInt32(std::string const& section, std::string const& key, int defaultValue);
    unsigned int GetUInt32(std::string const& section, std::string const& key,
                           unsigned int defaultValue);

    // True for "true", in any case, and "1". Every other value is false, whatever the default.
    bool GetBool(std::string const& section, std::string const& key, bool defaultValue);

    // As the whole numbers; the default comes back rounded to six significant digits.
    float GetFloat(std::string const& section, std::string const& key, float defaultValue);

    // The pieces between commas, blanks and tabs, any number of which separate as one. A value that
    // begins with one has an empty first piece.
    std::vector<std::string> GetStringList(std::string const& section, std::string const& key);

    // `text` without the white space at one end or both.
    std::string trimLeft(std::string const& text);
    std::string trimRight(std::string const& text);
    std::string trim(std::string const& text);

    // Whether `line` begins a section, whose name is then in `name`. On false `name` says nothing.
    bool isSection(std::string line, std::string& name);

    std::string fileName;
    std::map<std::string, std::map<std::string, std::string>*>
        sections;  // the inner maps are owned
};

}  // namespace utility

#endif
