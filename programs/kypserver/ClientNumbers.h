// The numbers by which components know clients: 1 to 65535, given out in turn, so that a number
// comes back as late as can be.
//
// A number whose client has gone rests while a component may still answer one of that client's
// requests: the answer would reach the next client of that number. A component that never answers
// must not use up the numbers, so when none is free the one that has rested longest is taken, if
// that is longer than anybody waits for an answer.
//
// Threads:  no lock: its owner has one.
#ifndef KYP_PROGRAMS_KYPSERVER_CLIENTNUMBERS_H
#define KYP_PROGRAMS_KYPSERVER_CLIENTNUMBERS_H

#include <cstdint>
#include <ctime>
#include <vector>

class CSocketConnection;

namespace kypserver {

class CClientNumbers {
public:
    static constexpr time_t kLongestRest = 600;  // seconds

    CClientNumbers();

    // The next number that is free, from now on `client`'s; 0 when there is none. `now` is in
    // seconds of a clock that only goes forward. With true, *wasResting says that somebody may
    // still remember the number.
    uint16_t take(CSocketConnection* client, time_t now, bool* wasResting);

    // Null for a number that nobody has.
    CSocketConnection* owner(uint16_t number) const;

    // The client of `number` has gone, and answers to it may still come until release().
    void rest(uint16_t number, time_t now);

    // Nobody will use `number` any more.
    void release(uint16_t number);

private:
    struct Number {
        CSocketConnection* owner = nullptr;
        bool isResting = false;
        time_t since = 0;  // of its rest
    };

    std::vector<Number> m_numbers;  // by number; entry 0 is never used
    uint16_t m_last;                // the one given out last
};

}  // namespace kypserver

#endif
