// The server's own words for the people who run it: one line on standard error for each thing that
// they should know. What the library logs goes to standard output and is another matter.
//
// Threads: any.
#ifndef KYP_PROGRAMS_KYPSERVER_SERVERLOG_H
#define KYP_PROGRAMS_KYPSERVER_SERVERLOG_H

#include <ctime>
#include <mutex>

namespace kypserver {

// Lets a limited number of lines through in each second, so that a peer who provokes them does not
// fill the disk or hold up the workers.
class CLineLimit {
public:
    explicit CLineLimit(unsigned int perSecond);

    // May another line be written in the second `now`? With true, *leftOut is the number of lines
    // refused since the last one that was let through.
    bool admit(time_t now, unsigned int* leftOut);

private:
    unsigned int const m_perSecond;
    std::mutex m_mutex;  // guards the fields below
    time_t m_second;     // the one that m_inSecond counts
    unsigned int m_inSecond;
    unsigned int m_leftOut;
};

// Writes "time kypserver: message". Beyond 50 lines in a second the rest is left out and counted.
void report(char const* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kypserver

#endif
