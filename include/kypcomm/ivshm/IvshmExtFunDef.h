// The binding to /usr/lib/libivshmAPI.so, the shared memory between virtual machines. That library
// moves whole messages through numbered topics, each one direction of a queue, and knows nothing of
// their content.
//
// Owns:     nothing that it gives back: once loaded, the library stays mapped to the end of the
//           process, so that the four functions stay callable.
// Threads:  any. The load happens once. Send() and Recv() run at the same time on different
//           handles; who sends on one handle from several threads lets them take turns.
// Lifetime: one per process, made by the first GetInstance() and never destroyed.
#ifndef KYP_KYPCOMM_IVSHM_IVSHMEXTFUNDEF_H
#define KYP_KYPCOMM_IVSHM_IVSHMEXTFUNDEF_H

#include <atomic>
#include <mutex>
#include <string>

#include "utils/Export.h"

// The number of a topic: group i has 2i towards the clients and 2i+1 towards the server.
using TOPIC = int;

// The side that opens a topic, passed on to the library as it is.
using MODE = int;
constexpr MODE kIvshmServer = 0;
constexpr MODE kIvshmClient = 1;

class KYP_API ExtIvshmApiDef {
public:
    static ExtIvshmApiDef& GetInstance();

    ExtIvshmApiDef();
    ~ExtIvshmApiDef();
    ExtIvshmApiDef(ExtIvshmApiDef const&) = delete;
    ExtIvshmApiDef& operator=(ExtIvshmApiDef const&) = delete;

    // Opens `topic` for this side, loading the library before the first; a load that failed is not
    // tried again. The library's handle, or null. The caller closes it by UninitIvshmTopic().
    void* InitIvshmTopic(TOPIC topic, MODE mode);

    // Sends one message, waiting up to `timeoutMs` for room. `data` is copied. False when the time
    // was up and when there is no library.
    bool Send(void* handle, unsigned long size, void* data, long timeoutMs);

    // Takes one message, waiting up to `timeoutMs`. `*size` is the room at `data` on entry and the
    // message's length on success. False when nothing came and when there is no library.
    bool Recv(void* handle, unsigned long* size, void* data, long timeoutMs);

    // Closes a handle.
    void UninitIvshmTopic(void* handle);

    // Loads the library and finds its four functions. 0, also when that was done before, or -1 with
    // the reason logged. Not by several threads at once: InitIvshmTopic() sees to that.
    int LoadIvshmSymbol();

    std::atomic<bool> m_bLoaded;  // all four functions were found
    std::once_flag m_once;        // guards the one load
    std::string m_strPath;        // empty
    // Set by the load, before m_bLoaded; null as long as the function was not found.
    void* (*m_pfnInit)(TOPIC, MODE);
    bool (*m_pfnSend)(void* handle, unsigned long size, void* data, long timeoutMs);
    bool (*m_pfnRecv)(void* handle, unsigned long* size, void* data, long timeoutMs);
    void (*m_pfnUninit)(void* handle);
};

#endif
