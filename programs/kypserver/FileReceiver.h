// What happens to the packets of files: sessions, their checks and their answers.
//
// A link has one session at a time. An info packet opens it and gives up the one before, which the
// sender has left: a packet without any byte names no session. A session that has failed stays, so
// that the chunks that still come get the reason for their answer.
//
// Owns:     the sessions and their files.
// Threads:  one at a time.
// Lifetime: within that of the spool.
#ifndef KYP_PROGRAMS_KYPSERVER_FILERECEIVER_H
#define KYP_PROGRAMS_KYPSERVER_FILERECEIVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "kypcomm/protocol/FilePacket.h"
#include "kypserver/Spool.h"

namespace kypserver {

class CFileReceiver {
public:
    using Clock = std::chrono::steady_clock;
    using Link = uint64_t;  // a connection, by a number that is never used again

    struct Limits {
        uint64_t fileSize;           // bytes of one file
        size_t transfers;            // files at a time
        std::chrono::seconds pause;  // between two packets of a file
    };

    CFileReceiver(CSpool& spool, Limits const& limits);
    ~CFileReceiver();
    CFileReceiver(CFileReceiver const&) = delete;
    CFileReceiver& operator=(CFileReceiver const&) = delete;

    // Takes a packet that came on `link`, and gives the answer as it goes out. `peer` is what to
    // call the sender.
    KypFileAnswer take(Link link, std::string const& peer, std::string const& packet,
                       Clock::time_point now);

    // Forgets `link`, which has ended, and removes what it left half received.
    void end(Link link);

    // Gives up the files whose senders have paused too long.
    void give_up_stalled(Clock::time_point now);

    // When give_up_stalled() has something to do at the earliest; max() while no file is under way.
    Clock::time_point next_deadline() const;

    // Files under way.
    size_t transfers() const;

private:
    struct Session {
        uint32_t number = 0;
        int status = 0;                       // what it failed with
        std::unique_ptr<CIncomingFile> file;  // null when it has failed
        std::string name;                     // in the spool, or what was refused as one
        std::string peer;
        uint64_t size = 0;  // as announced
        uint64_t received = 0;
        uint32_t nextChunk = 1;
        Clock::time_point latest;  // packet
    };

    KypFileAnswer open(Link link, std::string const& peer, std::string const& packet,
                       Clock::time_point now);
    int begin(Session& session, std::string const& packet);
    KypFileAnswer add(Link link, std::string const& packet, Clock::time_point now);
    int append(Session& session, std::string const& packet);
    KypFileAnswer close(Link link);
    int finish(Session& session);
    int fail(Session& session, int status, char const* why);
    static void give_up(Session& session, char const* why);

    CSpool& m_spool;
    Limits const m_limits;
    std::map<Link, Session> m_sessions;
};

}  // namespace kypserver

#endif
