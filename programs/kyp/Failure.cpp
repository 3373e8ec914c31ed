#include "kyp/Failure.h"

#include <cstdio>
#include <cstring>

#include "libkyp/libkyp.h"

namespace kyptool {

namespace {

// What lies between is errno of a failed call; a few of its numbers are status codes as well, and
// are taken for these.
constexpr int kLastSmallStatus = KYP_ERR_SEND_TIMEOUT;
constexpr int kFirstLargeStatus = KYP_ERR_DEVICE_ID;

char const* words_of(int code) {
    bool const isErrno = code > kLastSmallStatus && code < kFirstLargeStatus;
    return isErrno ? strerror(code) : libkyp_strerror(code);
}

}  // namespace

std::string status_words(int code) {
    char number[16];
    snprintf(number, sizeof number, " (0x%x)", static_cast<unsigned int>(code));
    return words_of(code) + std::string(number);
}

Failure refused(std::string const& what, int code) {
    return {EXIT_REFUSED, what + ": " + status_words(code), code};
}

Failure unreachable(std::string const& what, int code) {
    return {EXIT_UNREACHABLE, what + ": " + status_words(code), code};
}

Failure wrong_usage(std::string const& what) {
    return {EXIT_USAGE, what};
}

Failure no_answer_or_refused(std::string const& what, int code) {
    return code == KYP_ERR_RECV_TIMEOUT ? unreachable(what, code) : refused(what, code);
}

}  // namespace kyptool
