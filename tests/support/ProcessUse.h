// What a process uses at this moment, as the kernel counts it.
#ifndef KYP_TESTS_SUPPORT_PROCESSUSE_H
#define KYP_TESTS_SUPPORT_PROCESSUSE_H

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

// 0 for a process that is not there.
inline size_t open_descriptors(pid_t pid) {
    std::error_code error;
    std::filesystem::directory_iterator const first("/proc/" + std::to_string(pid) + "/fd", error);
    return static_cast<size_t>(std::distance(first, std::filesystem::directory_iterator()));
}

// KiB in memory; 0 for a process that is not there.
inline size_t resident_kib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    size_t kib = 0;
    while (status >> word) {
        if (word == "VmRSS:" && status >> kib) return kib;
    }
    return 0;
}

#endif
