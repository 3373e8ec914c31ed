// Takes standard output away from the process for its lifetime and reads it back as text.
//
// Threads:  the log lines of every thread are caught; the object itself belongs to one thread.
// Lifetime: one at a time. The destructor gives standard output back, and what was caught too when
//           the test has failed.
#ifndef KYP_TESTS_SUPPORT_LOGCAPTURE_H
#define KYP_TESTS_SUPPORT_LOGCAPTURE_H

#include <chrono>
#include <string>
#include <vector>

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    // All that was printed so far.
    std::string text();

    // Forgets what was printed so far.
    void clear();

    // Lines that carry `level` ("ERROR", "TRACE", ...) and end in exactly `message`.
    int count(std::string const& level, std::string const& message);

    // The same for any message that contains `part`, at any level.
    int count_containing(std::string const& part);

    // Waits until text() contains `part`; false when `deadline` has passed without it.
    bool wait_for(std::string const& part,
                  std::chrono::milliseconds deadline = std::chrono::seconds(10));

private:
    std::vector<std::string> lines();

    int m_saved;  // the real standard output
    int m_file;   // what stands in its place: an unnamed file
};

#endif
