// What the acts of the demonstration share: the screen, the programs that play along, and the
// questions that several acts ask.
//
// Threads: the story's thread, but for Mailbox::put(), which callbacks call.
#ifndef KYP_DEMO_STORY_H
#define KYP_DEMO_STORY_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

// Takes the screen for the story; the library's log keeps standard output, or goes nowhere. Returns
// false when there is no screen.
bool open_story(bool showLog);

// Writes to the screen.
void say(char const* fmt, ...) __attribute__((format(printf, 1, 2)));

// `text` with every line three columns further in.
std::string indented(std::string const& text);

// End the demonstration with what went wrong; the second adds this thread's status.
[[noreturn]] void fail(std::string const& what);
[[noreturn]] void fail_with_status(char const* what);

constexpr int kDemoTimeoutMs = 5000;

// A program in a process of its own. Its output is what it writes to standard output and to
// standard error.
class Program {
public:
    // Starts it; `prepare` runs in its process first.
    explicit Program(std::vector<std::string> command, std::function<void()> prepare = {});

    // stop().
    ~Program();
    Program(Program const&) = delete;
    Program& operator=(Program const&) = delete;

    void start();

    // Waits until its output has `text`.
    void wait_for(std::string const& text);

    void stop();   // with SIGTERM
    void crash();  // with SIGKILL

    // Waits for its end by itself; returns its exit code.
    int wait();

    // What it has written so far, as far as wait_for() and wait() have read it.
    std::string const& output() const;

private:
    [[noreturn]] void run(int const output[2]);
    bool read_on();
    void end(int signal);

    std::vector<std::string> const m_command;
    std::function<void()> const m_prepare;
    pid_t m_pid = 0;
    int m_output = -1;
    std::string m_read;
};

// What callbacks on a receive thread tell the story's thread.
class Mailbox {
public:
    void put(std::string message);

    // Waits for exactly `message`; those before it are dropped.
    void expect(std::string const& message);

    // The same with a bound of its own; false when it did not come.
    bool got(std::string const& message, std::chrono::milliseconds within);

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::vector<std::string> m_messages;  // guarded by m_mutex
};

// Gives this device an id, before a kypserver starts.
void name_this_device(char const* id);

// One request; returns the bytes of its answer in `answer`, which has `room`, or -1 with this
// thread's status.
int ask(void* handle, unsigned short port, void const* data, std::size_t size, void* answer,
        std::size_t room);

// Publishes `text`. A domain connection reports no events, so a lost link's return is found by
// trying.
void publish(void* handle, char const* topic, std::string const& text);

// Behind an answer, what was sent before it is in force at the server.
void wait_for_answer(void* handle);

#endif
