#include "utils/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"

namespace {

constexpr char kTime[] = "####-##-## ##:##:##.###";  // a digit in the place of each '#'

// The text behind a time stamp at its start, "no time" when there is none.
std::string behind_time(std::string const& text) {
    size_t const length = sizeof kTime - 1;
    if (text.size() < length) return "no time";
    for (size_t i = 0; i < length; ++i) {
        bool const fits = kTime[i] == '#' ? isdigit(static_cast<unsigned char>(text[i])) != 0
                                          : text[i] == kTime[i];
        if (!fits) return "no time";
    }
    return text.substr(length);
}

class LogTest : public ::testing::Test {
protected:
    LogTest() { SetLogLevel(0); }
    ~LogTest() override { SetLogLevel(0); }

    static void log_at(int level) { utils_log_message(level, "/a/b.cpp", "f", 1, "line"); }
};

TEST_F(LogTest, ALineNamesItsPlaceAndThread) {
    LogCapture capture;

    utils_log_message(LOG_LEVEL_INFO, "/src/utils/Some.cpp", "work", 42, "%s is %d", "answer", 7);

    EXPECT_EQ(" \x1b[33m[libkyp,INFO,Some.cpp,work,42," + std::to_string(syscall(SYS_gettid)) +
                  "]\x1b[37m:answer is 7\n",
              behind_time(capture.text()));
}

TEST_F(LogTest, ALineWithoutAPlaceIsGreenAndNamesThePosixThread) {
    LogCapture capture;

    utils_log_message(LOG_LEVEL_ERROR, "%s is %d", "answer", 7);

    char thread[16];
    snprintf(thread, sizeof thread, "0x%x", static_cast<unsigned int>(pthread_self()));
    EXPECT_EQ(std::string(" \x1b[32m[libkyp,ERROR]\x1b[37m ,") + thread + ":answer is 7\n",
              behind_time(capture.text()));
}

TEST_F(LogTest, TheMacroPassesFileFunctionAndLine) {
    LogCapture capture;

    KYP_LOG(LOG_LEVEL_ERROR, "here");
    int const line = __LINE__ - 1;

    EXPECT_EQ(1, capture.count_containing("[libkyp,ERROR,LogTest.cpp,TestBody," +
                                          std::to_string(line) + ","));
}

TEST_F(LogTest, EveryLevelHasItsNameAndColour) {
    struct Row {
        int level;
        char const* name;
        int colour;
        char const* escape;
    };
    constexpr Row kRows[] = {
        {0, "TRACE", 1, "\x1b[33m"},     {1, "DEBUG", 1, "\x1b[33m"},
        {2, "INFO", 1, "\x1b[33m"},      {3, "UNKNOWN", 1, "\x1b[33m"},
        {4, "WARNING", 0, "\x1b[31m"},   {5, "UNKNOWN", 1, "\x1b[33m"},
        {8, "ERROR", 0, "\x1b[31m"},     {12, "UNKNOWN", 1, "\x1b[33m"},
        {16, "CRITICAL", 1, "\x1b[33m"}, {32, "NOTICE", 1, "\x1b[33m"},
        {64, "UNKNOWN", 1, "\x1b[33m"},  {256, "COMM", 1, "\x1b[33m"},
        {-1, "UNKNOWN", 1, "\x1b[33m"},
    };
    SetLogLevel(-1);

    for (Row const& row : kRows) {
        SCOPED_TRACE(row.level);
        int colour = -1;
        EXPECT_STREQ(row.name, GetLogLevelStr(row.level, &colour));
        EXPECT_EQ(row.colour, colour);

        LogCapture capture;
        log_at(row.level);
        EXPECT_EQ(0u, behind_time(capture.text())
                          .find(std::string(" ") + row.escape + "[libkyp," + row.name + ",b.cpp,"));
    }
}

TEST_F(LogTest, KeepsCriticalYellow) {
    int colour = -1;

    GetLogLevelStr(LOG_LEVEL_CRITICAL, &colour);

    EXPECT_EQ(1, colour);
}

TEST_F(LogTest, ThresholdNineDropsErrorsAndPassesCriticalAndNotice) {
    SetLogLevel(9);
    LogCapture capture;

    log_at(8);
    log_at(16);
    log_at(32);

    EXPECT_EQ(0, capture.count("ERROR", "line"));
    EXPECT_EQ(1, capture.count("CRITICAL", "line"));
    EXPECT_EQ(1, capture.count("NOTICE", "line"));
}

TEST_F(LogTest, ALevelEqualToTheThresholdPasses) {
    SetLogLevel(8);
    LogCapture capture;

    log_at(4);
    log_at(8);

    EXPECT_EQ(0, capture.count("WARNING", "line"));
    EXPECT_EQ(1, capture.count("ERROR", "line"));
}

TEST_F(LogTest, LevelsAreComparedWithTheirSign) {
    LogCapture capture;

    log_at(-1);
    EXPECT_EQ("", capture.text());

    SetLogLevel(INT_MIN);
    log_at(-1);
    EXPECT_EQ(1, capture.count("UNKNOWN", "line"));
}

TEST_F(LogTest, TheThresholdHoldsForLinesWithoutAPlace) {
    SetLogLevel(LOG_LEVEL_ERROR);
    LogCapture capture;

    utils_log_message(LOG_LEVEL_WARNING, "%s", "dropped");
    utils_log_message(LOG_LEVEL_ERROR, "%s", "printed");

    EXPECT_EQ(0, capture.count_containing("dropped"));
    EXPECT_EQ(1, capture.count_containing(":printed"));
}

TEST_F(LogTest, AMessageIsCutBehind8191Bytes) {
    LogCapture capture;

    for (size_t const length : {8190u, 8191u, 8192u, 20000u}) {
        SCOPED_TRACE(length);
        std::string const message(length, 'm');
        std::string const shown(std::min<size_t>(length, 8191), 'm');
        capture.clear();
        utils_log_message(LOG_LEVEL_INFO, "/a.cpp", "f", 1, "%s", message.c_str());
        EXPECT_EQ(1, capture.count("INFO", shown));
        capture.clear();
        utils_log_message(LOG_LEVEL_INFO, "%s", message.c_str());
        EXPECT_THAT(capture.text(), ::testing::EndsWith(":" + shown + "\n"));
    }
}

TEST_F(LogTest, APathWithoutASlashIsShownWhole) {
    LogCapture capture;

    utils_log_message(LOG_LEVEL_INFO, "plain.cpp", "f", 1, "line");

    EXPECT_EQ(1, capture.count_containing("[libkyp,INFO,plain.cpp,f,1,"));
}

TEST_F(LogTest, APathThatEndsInASlashShowsNoFileName) {
    LogCapture capture;

    utils_log_message(LOG_LEVEL_INFO, "/src/", "f", 1, "line");

    EXPECT_EQ(1, capture.count_containing("[libkyp,INFO,,f,1,"));
}

TEST_F(LogTest, ALineLeavesErrnoAlone) {
    LogCapture capture;
    errno = ENOTCONN;

    utils_log_message(LOG_LEVEL_INFO, "/a.cpp", "f", 1, "line");
    utils_log_message(LOG_LEVEL_INFO, "%s", "line");

    EXPECT_EQ(ENOTCONN, errno);
}

TEST_F(LogTest, LinesOfManyThreadsStayWhole) {
    constexpr int kThreads = 8;
    constexpr int kLines = 200;
    LogCapture capture;

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) {
                utils_log_message(LOG_LEVEL_INFO, "/a.cpp", "f", 1, "thread %d says %d", t, i);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    std::istringstream stream(capture.text());
    std::vector<int> next(kThreads, 0);  // what each thread says next
    int lines = 0;
    for (std::string line; std::getline(stream, line); ++lines) {
        std::string const rest = behind_time(line);
        int id = 0;
        int thread = 0;
        int said = 0;
        int end = 0;
        sscanf(rest.c_str(), " \x1b[33m[libkyp,INFO,a.cpp,f,1,%d]\x1b[37m:thread %d says %d%n", &id,
               &thread, &said, &end);
        ASSERT_EQ(rest.size(), static_cast<size_t>(end)) << line;
        ASSERT_EQ(next[static_cast<size_t>(thread)]++, said) << line;
    }
    EXPECT_EQ(kThreads * kLines, lines);
}

TEST_F(LogTest, TheThresholdMayChangeWhileOthersLog) {
    LogCapture capture;

    std::thread changer([] {
        for (int i = 0; i < 1000; ++i) SetLogLevel(i % 2 == 0 ? 9 : 0);
    });
    for (int i = 0; i < 100; ++i) log_at(LOG_LEVEL_CRITICAL);
    changer.join();

    EXPECT_EQ(100, capture.count("CRITICAL", "line"));
}

}  // namespace
