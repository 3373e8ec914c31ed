// What a peer sends that has lost its mind, row by row. None of it may be noticed by anybody else.
#ifndef KYP_TESTS_SUPPORT_BADFRAMES_H
#define KYP_TESTS_SUPPORT_BADFRAMES_H

#include <vector>

#include "support/FrameBytes.h"

struct BadFrame {
    char const* what;
    Bytes data;
};

std::vector<BadFrame> bad_frames();

#endif
