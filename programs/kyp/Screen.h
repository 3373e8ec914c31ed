// Where a command's words go: results to standard output, everything else to standard error.
//
// The library writes its log to standard output. So the first thing that happens is that standard
// output is moved aside for the results, and what the library finds in its place is standard error
// (--verbose) or nothing.
//
// Owns:     the stream of the results, for the rest of the process.
// Threads:  any; each call writes its text in one piece.
// Lifetime: one per process, until its end: a receive thread may still have something to say.
#ifndef KYP_PROGRAMS_KYP_SCREEN_H
#define KYP_PROGRAMS_KYP_SCREEN_H

#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kyptool {

using Json = nlohmann::ordered_json;

class CScreen {
public:
    // Takes standard output away from the library and starts the library.
    CScreen(bool quiet, int verbose);
    ~CScreen() = delete;
    CScreen(CScreen const&) = delete;
    CScreen& operator=(CScreen const&) = delete;

    // A result. A reader that has gone ends the process as it ends others, by SIGPIPE; a result
    // that cannot be written for another reason is reported, and exit_code() tells.
    void print(std::string_view text);
    void print_json(Json const& value);

    // What explains results and is left out with --quiet; to standard error.
    void note(std::string_view text);

    // To standard error in any case.
    void error(std::string_view text);

    // A text that stands in place of the one before it, on a terminal: for progress. The next call
    // of any other kind begins on a line of its own.
    void progress(std::string_view text);
    void end_progress();

    bool is_terminal() const;           // results go to one
    bool progress_is_terminal() const;  // progress does
    size_t width() const;               // of the terminal that progress goes to

    // `code`, or what stands for results that could not be written.
    int exit_code(int code);

    // Called before SIGPIPE ends the process.
    void on_broken_pipe(std::function<void()> cleanup);

private:
    void clear_progress_locked();
    void write_locked(std::string_view text);

    bool const m_quiet;
    int m_results;           // the process's standard output as it was
    std::mutex m_mutex;      // guards all below
    bool m_failed;           // a result could not be written
    size_t m_progressWidth;  // columns of the progress text that stands on the terminal
    std::function<void()> m_cleanup;
};

}  // namespace kyptool

#endif
