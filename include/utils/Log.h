// The logger: one line on standard output for each message that passes the threshold.
//
// Threads: any. Lines are whole: one process-wide mutex orders them, held around the one printf;
//          the message itself is formatted outside it. The threshold is read without a lock.
#ifndef KYP_UTILS_LOG_H
#define KYP_UTILS_LOG_H

#include "utils/Export.h"

// Levels are bit-like numbers, compared as an ordered integer.
enum : int {
    LOG_LEVEL_TRACE = 0,
    LOG_LEVEL_DEBUG = 1,
    LOG_LEVEL_INFO = 2,
    LOG_LEVEL_WARNING = 4,
    LOG_LEVEL_ERROR = 8,
    LOG_LEVEL_CRITICAL = 16,
    LOG_LEVEL_NOTICE = 32,
    LOG_LEVEL_COMM = 256,
};

// Messages below `level` are dropped from now on. The threshold starts at 0.
KYP_API void SetLogLevel(int level);

// The level's name, "UNKNOWN" for any other number. *colourIndex receives the line's place in the
// colour table: 0 red for WARNING and ERROR, 1 yellow for the rest.
KYP_API char const* GetLogLevelStr(int level, int* colourIndex);

// Prints "time [libkyp,level,file,func,line,thread]:message". `file` is a source path that holds a
// '/'; the part behind the last one is shown. Messages are cut at 8191 bytes.
KYP_API void utils_log_message(int level, char const* file, char const* func, int line,
                               char const* fmt, ...) __attribute__((format(printf, 5, 6)));

// The same without a place, in green: "time [libkyp,level] ,0xthread:message".
KYP_API void utils_log_message(int level, char const* fmt, ...)
    __attribute__((format(printf, 2, 3)));

#define KYP_LOG(level, ...) utils_log_message(level, __FILE__, __func__, __LINE__, __VA_ARGS__)

#endif
