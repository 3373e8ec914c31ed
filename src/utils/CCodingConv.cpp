#include "utils/CCodingConv.h"

#include <iconv.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "utils/Log.h"

namespace {

constexpr size_t kGrowth = 4;  // bytes of UTF-8 for one character, at most

struct CloseConversion {
    void operator()(void* descriptor) const { iconv_close(descriptor); }
};

struct FreeBlock {
    void operator()(char* block) const { free(block); }
};

// A negative size is more than there is.
char* allocate(int length) {
    if (length < 0) {
        errno = ENOMEM;
        return nullptr;
    }
    // One byte more, since an empty text needs a block too.
    return static_cast<char*>(malloc(kGrowth * static_cast<size_t>(length) + 1));
}

}  // namespace

CCodingConv::CCodingConv() = default;
CCodingConv::~CCodingConv() = default;

std::string CCodingConv::AnsiToUtf8(char const* text, int length) {
    KYP_LOG(LOG_LEVEL_DEBUG, "buf:%s,len:%d", text, length);

    iconv_t const descriptor = iconv_open("UTF-8", "ASCII");
    if (reinterpret_cast<intptr_t>(descriptor) == -1) {
        KYP_LOG(LOG_LEVEL_ERROR, "iconv_open fail,%s", strerror(errno));
        return std::string();
    }
    std::unique_ptr<void, CloseConversion> const closer(descriptor);

    std::unique_ptr<char, FreeBlock> const block(allocate(length));
    if (block == nullptr) {
        auto const size = static_cast<int>(kGrowth * static_cast<size_t>(length));
        KYP_LOG(LOG_LEVEL_ERROR, "malloc size:%d fail,%s", size, strerror(errno));
        return std::string();
    }

    char* in = const_cast<char*>(text);
    auto inLeft = static_cast<size_t>(length);
    char* out = block.get();
    size_t outLeft = kGrowth * inLeft;
    if (iconv(descriptor, &in, &inLeft, &out, &outLeft) == static_cast<size_t>(-1)) {
        KYP_LOG(LOG_LEVEL_ERROR, "iconv:%s", strerror(errno));
        return std::string();
    }
    return std::string(block.get(), out);
}
