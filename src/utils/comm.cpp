#include "utils/comm.h"

#include <dlfcn.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <list>
#include <mutex>
#include <random>
#include <sstream>
#include <vector>

#include "utils/CStringHelper.h"
#include "utils/Log.h"
#include "utils/MD5.h"

namespace {

constexpr size_t kMaxLink = 1024;

std::string last_piece(std::string const& path) {
    std::vector<std::string> const pieces = CStringHelper::StriSplit(path, "/");
    return pieces.empty() ? std::string() : pieces.back();
}

// The program's name in a buffer of its own, since callers are given a plain pointer.
struct ProcessName {
    ProcessName() {
        snprintf(text, sizeof text, "%s", last_piece(CComm::GetProcessPath()).c_str());
    }

    char text[kMaxLink];
};

// putenv() keeps the very block that it is given, so none is ever freed.
char* keep_for_environment(std::string const& entry) {
    static std::mutex s_mutex;
    static auto* const s_entries = new std::list<std::string>();

    std::lock_guard<std::mutex> lock(s_mutex);
    s_entries->push_back(entry);
    return s_entries->back().data();
}

}  // namespace

CComm::CComm() = default;
CComm::~CComm() = default;

void CComm::Sleep(int ms) {
    if (ms < 1) return;

    timespec rest = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

std::string CComm::GetCurrentTimeMs() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    localtime_r(&now.tv_sec, &local);

    char text[96];
    int const length =
        snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", local.tm_year + 1900,
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                 static_cast<int>(now.tv_usec / 1000));
    return std::string(text, static_cast<size_t>(length));
}

int CComm::GetProcessId() {
    return getpid();
}

std::string CComm::GetProcessPath() {
    char target[kMaxLink];
    ssize_t const length = readlink("/proc/self/exe", target, sizeof target);
    // A full buffer may hold a path that was cut.
    if (length < 0 || length >= static_cast<ssize_t>(sizeof target)) return std::string();
    return std::string(target, static_cast<size_t>(length));
}

char* CComm::GetProcessName() {
    static ProcessName s_name;
    return s_name.text;
}

std::string CComm::GetCurrentDllPath() {
    Dl_info info = {};
    void* const here = reinterpret_cast<void*>(&CComm::GetCurrentDllPath);
    if (dladdr(here, &info) == 0 || info.dli_fname == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "dladdr fail");
        return std::string();
    }
    std::string const path = info.dli_fname;
    return path.substr(0, path.rfind('/'));  // no '/' gives npos, and so the whole path
}

int CComm::AddEvnPath(std::string path) {
    char const* const old = getenv("PATH");
    // Kept: the separator is a semicolon, so the old value's last entry and `path` read as one.
    std::string const entry = std::string("PATH=") + (old == nullptr ? "" : old) + ";" + path;
    return putenv(keep_for_environment(entry));
}

std::string CComm::GetMd5(unsigned char* data, int length) {
    MD5 md5;
    md5.GenerateMD5(data, length);
    return md5.ToString();
}

std::string CComm::GetMd5(std::string data) {
    // More than a length in an int can tell goes in through the pieces of the hash itself.
    MD5::md5_context context;
    MD5 md5;
    md5.md5_starts(&context);
    md5.md5_update(&context, reinterpret_cast<unsigned char*>(&data[0]), data.size());
    md5.md5_finish(&context, md5.m_digest);
    return md5.ToString();
}

std::string CComm::GetFileMd5(char const* path) {
    if (path == nullptr) return std::string();
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::string();

    std::ostringstream content;
    if (file.peek() != std::ifstream::traits_type::eof()) content << file.rdbuf();
    if (file.bad() || content.fail()) return std::string();
    return GetMd5(content.str());
}

std::string CComm::GetCompileTime() {
    unsigned int year = 0;
    unsigned char month = 0;
    unsigned char day = 0;
    GetCompileDate(&year, &month, &day);

    char text[64];
    snprintf(text, sizeof text, "%04d-%02d-%02d %s", static_cast<int>(year), month, day, __TIME__);
    return text;
}

std::string CComm::HexDumpBuf(char const* data, int length) {
    constexpr char kDigits[] = "0123456789abcdef";

    std::string dump;
    for (int i = 0; i < length; ++i) {
        auto const byte = static_cast<unsigned char>(data[i]);
        if (i > 0) dump += ' ';
        dump += "0x";
        dump += kDigits[byte >> 4];
        dump += kDigits[byte & 0xf];
    }
    return dump;
}

std::string CComm::HexDumpBuf(float value) {
    char bytes[sizeof value];
    memcpy(bytes, &value, sizeof value);
    return HexDumpBuf(bytes, sizeof bytes);
}

std::string CComm::HexDumpBuf(short value) {
    char bytes[sizeof value];
    memcpy(bytes, &value, sizeof value);
    return HexDumpBuf(bytes, sizeof bytes);
}

std::string CComm::BitDumpBuf(char value) {
    std::string dump;
    for (int bit = 7; bit >= 0; --bit) {
        dump += ((static_cast<unsigned char>(value) >> bit) & 1) != 0 ? '1' : '0';
        if (bit % 4 == 0) dump += ' ';
    }
    return dump;
}

void GetCompileDate(unsigned int* year, unsigned char* month, unsigned char* day) {
    constexpr char const* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    constexpr char kDate[] = __DATE__;  // "Oct 31 2025", a day below 10 behind a second blank

    for (unsigned char i = 0; i < 12; ++i) {
        if (strncmp(kDate, kMonths[i], 3) == 0) *month = static_cast<unsigned char>(i + 1);
    }
    *day = static_cast<unsigned char>(strtoul(kDate + 4, nullptr, 10));
    *year = static_cast<unsigned int>(strtoul(kDate + 7, nullptr, 10));
}

unsigned int utils_generateSSRC() {
    std::random_device device("default");
    std::mt19937 generator(device());
    std::uniform_int_distribution<unsigned int> distribution;
    return distribution(generator) & 0x7fffffffu;
}
