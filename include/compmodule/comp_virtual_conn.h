// One client of a component, as its routes see it. The server leads all clients over the one
// channel of the component and names each by a small number; an answer carries that number back.
//
// Owns:     nothing; the channel is the component's.
// Threads:  send_message() and the readers of the fields from any thread. Open(), Close() and
//           setVirtualConnInfo() on the component's receive thread alone.
// Lifetime: a slot of its component's table, which serves one client after the other and is never
//           freed by itself: a request's `conn` can be followed as long as the component lives.
#ifndef KYP_COMPMODULE_COMP_VIRTUAL_CONN_H
#define KYP_COMPMODULE_COMP_VIRTUAL_CONN_H

#include <atomic>
#include <cstdint>

#include "kypcomm/KypWire.h"
#include "kypcore/IConnection.h"
#include "utils/Export.h"

class CNetChannel;

class KYP_API VirtualConn : public IConnection {
public:
    // Free, with client 0 and no channel.
    VirtualConn();
    VirtualConn(int fd, CNetChannel* netChannel);
    ~VirtualConn() override;
    VirtualConn(VirtualConn const&) = delete;
    VirtualConn& operator=(VirtualConn const&) = delete;

    // Does nothing and returns 0: there is no road for ready-made bytes.
    int send_message(char const* data, int size) override;

    // Sends an answer: `length` bytes of `data` behind `aoe`, as given (network order), to the
    // client that this slot holds now. Waits up to `timeout` milliseconds for room on the channel;
    // answers of several threads go out one behind the other, each in one piece. Returns `length`;
    // or -1 with tlsErrno at
    //     0x1011  the channel did not take it: the link is gone, or the time was up
    //     5       the channel's code was 9 or 32, as for a closed descriptor or no channel
    //     0x100d  the frame would pass 2 GiB
    //     0x1015  `length` is below zero, or `data` is missing
    // A client takes no more than 0x5fffff - 13 bytes and ends its own link for more.
    int send_message(_AoEHeader const& aoe, unsigned short port, char const* data, int length,
                     int timeout) override;

    // Does nothing and returns 0, for the same reason. `buf` stays the caller's.
    int send_message(pbuf* buf, _AoEHeader const& aoe) override;

    // The client's number at the server.
    int get_fd() override;

    // Says whom the slot serves from now on and over which channel.
    void setVirtualConnInfo(int fd, CNetChannel* netChannel);

    // Takes the slot `index` of the table into use.
    void Open(short index);

    // Frees the slot. The client's number stays, and answers still go out under it. Returns -1.
    int Close();

    bool IsOpen();

    // Written by the receive thread and read by the threads that answer; relaxed: a late answer
    // goes to whomever the slot serves by then.
    std::atomic<short> connIndex;       // place in the table, -1 while free
    std::atomic<int> clientFd;          // the client's number
    std::atomic<uint32_t> generation;   // counts every Open and every Close
    std::atomic<uint32_t> reserved;     // 0
    std::atomic<CNetChannel*> channel;  // not owned
};

#endif
