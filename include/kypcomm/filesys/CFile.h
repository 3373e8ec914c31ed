// One C stream over a file that is read or written in blocks, with its size and its end.
//
// Owns:     its stream, closed by CloseFile, by the destructor, and by the end of a read.
// Threads:  one at a time; statuses go to the calling thread's tlsErrno.
// Lifetime: any. May be opened again, which closes what was open.
#ifndef KYP_KYPCOMM_FILESYS_CFILE_H
#define KYP_KYPCOMM_FILESYS_CFILE_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "utils/Export.h"

class KYP_API CFile {
public:
    // Copies `path` and opens nothing. Of a path of more than 255 bytes the first 255 are kept,
    // with tlsErrno at KYP_ERR_INPUT_PARAM; null stands for an empty one.
    CFile(const char* path);
    ~CFile();
    CFile(CFile const&) = delete;
    CFile& operator=(CFile const&) = delete;

    // True once the file was opened, also after it was closed.
    bool IsOpen();

    // True once a read gave less than was asked for, be it at the end of the file or by a fault.
    bool IsEof();

    // Opens the file for reading. Returns 0, or KYP_ERR_OPEN_FILE.
    int OpenFile();

    // Makes the file, or empties the one that is there, for writing. Returns 0, or
    // KYP_ERR_CREATE_FILE.
    int CreateNewFile();

    // Returns 0, also when nothing was open or the last bytes could not be written.
    int CloseFile();

    // What stands behind the last "/" of the path.
    std::string GetFileName();

    // The path.
    std::string GetFileFullPath();

    // Reads up to `size` bytes to `buf`. Returns the count; less than `size` ends the file and
    // closes it. 0 also on a failure, with tlsErrno at KYP_ERR_FILE_HANDLE when nothing is open,
    // KYP_ERR_INPUT_PARAM for a negative `size` or a null `buf`, KYP_ERR_READ_FILE otherwise.
    int ReadFileToBuffer(char* buf, int size);

    // Writes `size` bytes. Returns the count; less than `size` closes the file, with tlsErrno at
    // KYP_ERR_WRITE_FILE. 0 with the statuses of ReadFileToBuffer for no file or bad arguments.
    int WriteBufferToFile(const char* buf, int size);

    // The size that OpenFile found; 0 before. Only its low 32 bits.
    uint32_t GetFileSizeByte();

    bool m_isOpen;           // set by a successful open, cleared by one that failed
    bool m_isEof;            // the last read ended the file; never cleared
    FILE* m_stream;          // null when closed
    uint32_t m_fileSize;     // bytes, set by OpenFile
    std::string m_fileName;  // the name without directories, once asked for
    char m_fullPath[256];    // the path, zero to its end
};

#endif
