#include "utils/CFileHelper.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

CFileHelper::CFileHelper() = default;
CFileHelper::~CFileHelper() = default;

bool CFileHelper::IsFileExist(char const* path) {
    return path != nullptr && access(path, F_OK) == 0;
}

bool CFileHelper::CreateGeneralFile(char const* path) {
    if (path == nullptr) return false;
    int const fd = open(path, O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0600);
    if (fd == -1) return false;
    close(fd);
    return true;
}

bool CFileHelper::CreateDir(char const* path) {
    return path != nullptr && mkdir(path, 0755) == 0;
}
