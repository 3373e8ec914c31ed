// Helpers around the process, the clock, hashes and dumps. No state but a name kept by
// GetProcessName; every operation from any thread.
#ifndef KYP_UTILS_COMM_H
#define KYP_UTILS_COMM_H

#include <string>

#include "utils/Export.h"

class KYP_API CComm {
public:
    CComm();
    ~CComm();

    // Sleeps `ms` milliseconds, signals or not; returns at once for less than 1.
    static void Sleep(int ms);

    // Local time as "2025-10-31 09:08:07.006". The time of every log line.
    static std::string GetCurrentTimeMs();

    static int GetProcessId();

    // Path of the running program; empty when it cannot be read or has 1024 bytes or more.
    static std::string GetProcessPath();

    // Last piece of that path, found once and kept. Static, never null, not to be written to.
    static char* GetProcessName();

    // Directory of this library, without a '/' at its end. On failure empty, with the reason
    // logged.
    static std::string GetCurrentDllPath();

    // Appends `path` to PATH, behind a semicolon. Returns putenv()'s result. Not while another
    // thread reads the environment.
    static int AddEvnPath(std::string path);

    // MD5 as 32 lower-case hex characters. A negative length counts as 0.
    static std::string GetMd5(unsigned char* data, int length);
    static std::string GetMd5(std::string data);

    // The same of a file's content, which is read whole; empty when the file cannot be opened or
    // read.
    static std::string GetFileMd5(char const* path);

    // When the library was built: "2025-10-31 09:08:07".
    static std::string GetCompileTime();

    // Each byte as "0x5a", one blank between two. A number gives its bytes in memory order.
    static std::string HexDumpBuf(char const* data, int length);
    static std::string HexDumpBuf(float value);
    static std::string HexDumpBuf(short value);

    // The bits from high to low in two groups of four, a blank behind each: "0101 0011 ".
    static std::string BitDumpBuf(char value);
};

// The date on which the library was built, month 1 to 12. All three are written.
KYP_API void GetCompileDate(unsigned int* year, unsigned char* month, unsigned char* day);

// A random number from 0 to 0x7fffffff, from a generator that is seeded anew by each call. Throws
// what std::random_device throws.
KYP_API unsigned int utils_generateSSRC();

#endif
