// Small helpers for files and directories. No state; any thread. On false errno tells why, but for
// a null path, which is always false.
#ifndef KYP_UTILS_CFILEHELPER_H
#define KYP_UTILS_CFILEHELPER_H

#include "utils/Export.h"

class KYP_API CFileHelper {
public:
    CFileHelper();
    ~CFileHelper();

    // True for whatever stands at `path`, a directory too.
    static bool IsFileExist(char const* path);

    // Makes an empty file with mode 0600, or empties the one that is there.
    static bool CreateGeneralFile(char const* path);

    // Makes one directory with mode 0755. False when it exists already.
    static bool CreateDir(char const* path);
};

#endif
