#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "support/Eventually.h"

LogCapture::LogCapture() {
    fflush(stdout);
    m_saved = dup(STDOUT_FILENO);
    m_file = memfd_create("log", 0);
    dup2(m_file, STDOUT_FILENO);
}

LogCapture::~LogCapture() {
    std::string const all = text();
    dup2(m_saved, STDOUT_FILENO);
    // What GoogleTest said of a failure was caught as well.
    if (testing::Test::HasFailure()) fputs(all.c_str(), stdout);
    close(m_saved);
    close(m_file);
}

std::string LogCapture::text() {
    fflush(stdout);
    std::string all;
    char piece[4096];
    ssize_t n;
    while ((n = pread(m_file, piece, sizeof piece, static_cast<off_t>(all.size()))) > 0) {
        all.append(piece, static_cast<size_t>(n));
    }
    return all;
}

void LogCapture::clear() {
    fflush(stdout);
    if (ftruncate(m_file, 0) == 0) lseek(m_file, 0, SEEK_SET);
}

std::vector<std::string> LogCapture::lines() {
    std::istringstream stream(text());
    std::vector<std::string> result;
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

int LogCapture::count(std::string const& level, std::string const& message) {
    // The colour that ends the bracket stands between it and the message.
    std::string const end = "\x1b[37m:" + message;
    std::string const mark = "[libkyp," + level;
    int found = 0;
    for (std::string const& line : lines()) {
        bool const ends = line.size() >= end.size() &&
                          line.compare(line.size() - end.size(), end.size(), end) == 0;
        if (ends && line.find(mark) != std::string::npos) ++found;
    }
    return found;
}

int LogCapture::count_containing(std::string const& part) {
    int found = 0;
    for (std::string const& line : lines()) {
        if (line.find(part) != std::string::npos) ++found;
    }
    return found;
}

bool LogCapture::wait_for(std::string const& part, std::chrono::milliseconds deadline) {
    return eventually([&] { return text().find(part) != std::string::npos; }, deadline);
}
