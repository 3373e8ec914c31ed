#include "kypcomm/filesys/CFile.h"

#include <cerrno>
#include <cstring>

#include "kypcomm/KypStatus.h"
#include "utils/Log.h"

namespace {

bool is_block(char const* buf, int size) {
    return size == 0 || (size > 0 && buf != nullptr);
}

}  // namespace

CFile::CFile(const char* path)
    : m_isOpen(false), m_isEof(false), m_stream(nullptr), m_fileSize(0), m_fullPath{} {
    if (path == nullptr) return;
    size_t const room = sizeof(m_fullPath) - 1;
    size_t const length = std::strlen(path);
    std::memcpy(m_fullPath, path, length < room ? length : room);
    if (length <= room) return;

    KYP_LOG(LOG_LEVEL_ERROR, "file path length:%d too long,cut to:%s", static_cast<int>(length),
            m_fullPath);
    tlsErrno = KYP_ERR_INPUT_PARAM;
}

CFile::~CFile() {
    (void)CloseFile();
}

bool CFile::IsOpen() {
    return m_isOpen;
}

bool CFile::IsEof() {
    return m_isEof;
}

int CFile::OpenFile() {
    (void)CloseFile();
    FILE* const stream = fopen(m_fullPath, "r");
    if (stream == nullptr) {
        int const error = errno;
        m_isOpen = false;
        tlsErrno = KYP_ERR_OPEN_FILE;
        KYP_LOG(LOG_LEVEL_ERROR, "fopen file:%s fail,error:%s", m_fullPath, strerror(error));
        return tlsErrno;
    }
    (void)fseek(stream, 0, SEEK_END);
    // Kept: only 32 bits, so a file of 4 GiB or more shows a wrong size.
    m_fileSize = static_cast<uint32_t>(ftell(stream));
    (void)fseek(stream, 0, SEEK_SET);
    m_stream = stream;
    // Kept: m_isEof stays as an earlier reading left it, so a file is read once an object.
    m_isOpen = true;
    KYP_LOG(LOG_LEVEL_DEBUG, "open File:%s Success,file Size:%d", m_fullPath,
            static_cast<int>(m_fileSize));
    return 0;
}

int CFile::CreateNewFile() {
    (void)CloseFile();
    FILE* const stream = fopen(m_fullPath, "w");
    if (stream == nullptr) {
        int const error = errno;
        m_isOpen = false;
        tlsErrno = KYP_ERR_CREATE_FILE;
        KYP_LOG(LOG_LEVEL_ERROR, "fopen file fail,error:%s", strerror(error));
        return tlsErrno;
    }
    m_stream = stream;
    m_isOpen = true;
    return 0;
}

int CFile::CloseFile() {
    if (m_stream == nullptr) return 0;
    // Kept: reports 0 also when the last bytes could not be written.
    (void)fclose(m_stream);
    // Kept: m_isOpen stays, so IsOpen says true of a closed file.
    m_stream = nullptr;
    return 0;
}

std::string CFile::GetFileName() {
    if (!m_fileName.empty()) return m_fileName;
    std::string const path = m_fullPath;
    size_t const slash = path.rfind('/');
    m_fileName = slash == std::string::npos ? path : path.substr(slash + 1);
    KYP_LOG(LOG_LEVEL_DEBUG, "fileName:%s", m_fileName.c_str());
    return m_fileName;
}

std::string CFile::GetFileFullPath() {
    return m_fullPath;
}

int CFile::ReadFileToBuffer(char* buf, int size) {
    if (m_stream == nullptr) {
        tlsErrno = KYP_ERR_FILE_HANDLE;
        return 0;
    }
    if (!is_block(buf, size)) {
        tlsErrno = KYP_ERR_INPUT_PARAM;
        return 0;
    }
    if (size == 0) return 0;

    int count = static_cast<int>(fread(buf, 1, static_cast<size_t>(size), m_stream));
    if (count == size) return count;

    int const error = errno;
    if (feof(m_stream) != 0) {
        KYP_LOG(LOG_LEVEL_DEBUG, "file read EOF end,buff Size:%d,read Size:%d", size, count);
    } else {
        KYP_LOG(LOG_LEVEL_ERROR, "file read size:%d error:%s", count, strerror(error));
        tlsErrno = KYP_ERR_READ_FILE;
        count = 0;
    }
    // Kept: a failed read is the end of the file too.
    m_isEof = true;
    (void)CloseFile();
    return count;
}

int CFile::WriteBufferToFile(const char* buf, int size) {
    if (m_stream == nullptr) {
        tlsErrno = KYP_ERR_FILE_HANDLE;
        return 0;
    }
    if (!is_block(buf, size)) {
        tlsErrno = KYP_ERR_INPUT_PARAM;
        return 0;
    }
    if (size == 0) return 0;

    int const count = static_cast<int>(fwrite(buf, 1, static_cast<size_t>(size), m_stream));
    if (count == size) return count;

    // Kept: says "read" of a write.
    KYP_LOG(LOG_LEVEL_ERROR, "file read error:%s", strerror(errno));
    tlsErrno = KYP_ERR_WRITE_FILE;
    (void)CloseFile();
    return count;
}

uint32_t CFile::GetFileSizeByte() {
    return m_fileSize;
}
