#include "kyp/Failure.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "kypcomm/KypStatus.h"

namespace {

using namespace kyptool;

TEST(FailureTest, TakesTheWordsOfTheTable) {
    EXPECT_EQ("router port not register (0x1006)", status_words(KYP_ERR_ROUTE_NOT_REGISTERED));
    EXPECT_EQ("connection disconnect (0x5)", status_words(KYP_ERR_DISCONNECTED));
    EXPECT_EQ("Unknown error code (0x7777)", status_words(0x7777));
}

TEST(FailureTest, TakesTheSystemsWordsForAFailedCall) {
    EXPECT_EQ("Broken pipe (0x20)", status_words(EPIPE));
}

TEST(FailureTest, AnAnswerThatDidNotComeIsNoRefusal) {
    EXPECT_EQ(EXIT_UNREACHABLE, no_answer_or_refused("x", KYP_ERR_RECV_TIMEOUT).exitCode);
    EXPECT_EQ(EXIT_REFUSED, no_answer_or_refused("x", KYP_ERR_COMMAND).exitCode);
    EXPECT_STREQ("x: unknown cmdId (0x1009)", no_answer_or_refused("x", KYP_ERR_COMMAND).what());
    EXPECT_EQ(KYP_ERR_COMMAND, no_answer_or_refused("x", KYP_ERR_COMMAND).status);
}

}  // namespace
