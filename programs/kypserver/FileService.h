// The port on which files are taken, when that is switched on.
//
// A disk can keep its writers waiting, so packets only pass the workers: they wait in a queue for
// the one thread that writes all files. Each answer is sent from there, in the order of the packets
// of a connection.
//
// Owns:     the spool, its thread, and the packets that wait: at most kMaxWaitingOfOne for each
//           connection and kMaxWaiting in all. What comes beyond is refused.
// Threads:  open() and stop() on the main thread, serve() on any worker, end() on a connection's
//           loop thread. The lock spans the queueing of an answer, so that a connection cannot end
//           meanwhile; it is outside the locks of CConnections and of the library.
// Lifetime: outlives the workers. stop() comes before the event loops go.
#ifndef KYP_PROGRAMS_KYPSERVER_FILESERVICE_H
#define KYP_PROGRAMS_KYPSERVER_FILESERVICE_H

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kypserver/FileReceiver.h"
#include "kypserver/Options.h"
#include "kypserver/Service.h"
#include "kypserver/Spool.h"

namespace kypserver {

class CConnections;

class CFileService : public IService {
public:
    static constexpr unsigned int kMaxWaitingOfOne = 8;
    static constexpr size_t kMaxWaiting = 1024;

    CFileService(FileOptions const& options, CConnections const& connections);

    // stop().
    ~CFileService() override;
    CFileService(CFileService const&) = delete;
    CFileService& operator=(CFileService const&) = delete;

    // Takes the spool and starts the thread, if files are to be taken. Returns an empty text, or
    // what is in the way and what to do about it.
    std::string open();

    // Ends the thread behind the packet that it is at, and gives up what is half received.
    void stop();

    // What to say of it when the server is ready; empty when no files are taken.
    std::string describe() const;

    unsigned short port() const override;
    bool in_order() const override;

    // Command 9 at 4098/1 with a packet of a file: the answer tells in its payload what became of
    // it. Without payload: 0x1009 command, 0x1002 group, 0x1003 offset, 0x100d a longer packet than
    // there is, 0x100b a datagram, 0x2008 too much waits. Commands that await no answer get none.
    void serve(Request const& request) override;

    // Forgets `conn`, which is closing, with all that it has sent.
    void end(IConnection* conn);

private:
    // A connection that has sent something.
    struct Sender {
        CFileReceiver::Link link;
        unsigned int waiting;  // packets of it
    };
    struct Packet {
        CFileReceiver::Link link;
        std::string peer;
        Request request;  // without data
        std::string data;
    };

    int enqueue(Request const& request);
    void run();
    bool wait(CFileReceiver& receiver, std::unique_lock<std::mutex>& lock);
    void take_next(CFileReceiver& receiver, std::unique_lock<std::mutex>& lock);

    FileOptions const m_options;
    CConnections const& m_connections;
    CSpool m_spool;
    std::mutex m_mutex;  // guards the rest but m_thread
    std::condition_variable m_changed;
    bool m_bStop;
    CFileReceiver::Link m_nextLink;
    std::map<IConnection*, Sender> m_senders;
    std::deque<Packet> m_waiting;
    std::vector<CFileReceiver::Link> m_ended;
    std::thread m_thread;
};

}  // namespace kypserver

#endif
