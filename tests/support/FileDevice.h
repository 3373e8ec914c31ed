// A device on TCP 9999 that takes files as a test tells it to, in raw bytes.
//
// Owns:     its listener, its links and their threads; the destructor ends them.
// Threads:  the replies are asked for on one thread a link; everything else from any.
#ifndef KYP_TESTS_SUPPORT_FILEDEVICE_H
#define KYP_TESTS_SUPPORT_FILEDEVICE_H

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/FrameBytes.h"
#include "support/RawPeer.h"

// One packet of a file as it came, and the heads of its request.
struct FilePacket {
    FrameParts request;
    uint32_t indexGroup = 0;
    uint32_t indexOffset = 0;
    Bytes bytes;
};

class FileDevice {
public:
    static constexpr uint32_t kSession = 0x01020304;

    // What goes back: a frame, nothing, or the end of the link.
    struct Reply {
        Bytes frame;
        bool hangUp = false;
    };
    using Answer = std::function<Reply(FilePacket const& packet)>;

    // Listens from here on; by default takes everything.
    explicit FileDevice(Answer answer = takes_all);
    ~FileDevice();
    FileDevice(FileDevice const&) = delete;
    FileDevice& operator=(FileDevice const&) = delete;

    // The packets so far, in the order in which they came.
    std::vector<FilePacket> packets() const;
    size_t packet_count() const;

    // What stands behind the heads of all chunk packets.
    Bytes content() const;

    // Links accepted so far.
    int links() const;

    // A response to `packet` with a payload.
    static Reply reply(FilePacket const& packet, Bytes const& payload, uint32_t error = 0);

    // The usual answer: type, number, status.
    static Reply answer(FilePacket const& packet, uint8_t type, uint32_t number, uint32_t status);

    // Answers as a device does that has no objection.
    static Reply takes_all(FilePacket const& packet);

private:
    void accept();
    void serve(RawPeer& peer);

    Answer m_answer;
    RawListener m_listener = RawListener::tcp(9999);
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_accepted{0};
    mutable std::mutex m_mutex;  // guards m_packets
    std::vector<FilePacket> m_packets;
    std::list<RawPeer> m_peers;  // the acceptor's until that has ended
    std::vector<std::thread> m_links;
    std::thread m_acceptor;  // starts last: it uses all the others
};

#endif
