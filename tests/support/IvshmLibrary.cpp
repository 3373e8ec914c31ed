#include "support/IvshmLibrary.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/CoverFolder.h"

namespace {

constexpr char const* kFolder = "/usr/lib";
constexpr char const* kName = "libivshmAPI.so";
constexpr char const* kPlace = "/usr/lib/libivshmAPI.so";

// Once: the cover stays to the end of the sandbox, and the real folder is never written to.
bool is_covered() {
    static bool const s_covered = cover_folder(kFolder, "0755", kName);
    return s_covered;
}

}  // namespace

void offer_ivshm_library(std::string const& file) {
    ASSERT_TRUE(is_covered()) << "cover " << kFolder << ": " << strerror(errno);
    unlink(kPlace);
    ASSERT_EQ(0, access(file.c_str(), R_OK)) << file << ": " << strerror(errno);
    ASSERT_EQ(0, symlink(file.c_str(), kPlace)) << strerror(errno);
}

void withdraw_ivshm_library() {
    ASSERT_TRUE(is_covered()) << "cover " << kFolder << ": " << strerror(errno);
    unlink(kPlace);
}
