// Start-up of the component side, once in a process, and the settings of each component.
//
// Owns:     the configuration, as the file had it when it was loaded.
// Threads:  any. A second starter waits until the first is through.
// Lifetime: a singleton. It starts once: behind the last UnInitialize() a further Initialize() only
//           counts.
#ifndef KYP_COMPMODULE_COMP_INIT_SYS_H
#define KYP_COMPMODULE_COMP_INIT_SYS_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "compmodule/CmpSysParamConf.h"
#include "kypcomm/KypMsgRequest.h"
#include "utils/Export.h"
#include "utils/IniFile.h"
#include "utils/Singleton.h"

namespace libkyp {
namespace compmodule {

class KYP_API CCmpSysInit {
public:
    CCmpSysInit();
    ~CCmpSysInit();

    // Counts a user. The first call of the process fills the packet pool, makes the run-time
    // directories, loads "/opt/kyp/libkyp.ini" and has port 100 echo. Returns 0.
    int Initialize();

    // Takes a user away. The last one stops the event loops and the workers, started or not, for
    // good. Returns 0.
    int UnInitialize();

    // Starts three event loops with `priority` and four workers, once in a process. Components do
    // without them; a program that serves sockets as well calls this itself. Returns 0.
    int InitEventLoop(unsigned int priority);

    // Fills `conf` for the component named in its `cmpName`:
    //
    //     [NAME]              default
    //     loglevel            debug    trace, debug, info, warn, error, critical or notice
    //     ivshm_enable        false
    //     ivshm_group         -1
    //     sched_priority      0
    //     [ivshm]
    //     groupN_maxsize      5248000  for N = ivshm_group, and only while ivshm_enable is true;
    //                                  otherwise ivshm_maxsize stays as it was
    //
    // Returns 0; or -1, with `conf` untouched, when it is null or no file was asked for yet.
    int GetCmpConfigParam(_CmpSysParamConf* conf);

    // The steps of Initialize() and InitEventLoop(). Each returns 0; a failure inside shows in the
    // log or, for a directory, when the server's socket cannot be reached.
    int InitMemPool();
    int InitDomainDir();
    int InitRouter();
    int InitThreadPool();
    int InitSockEvtLoop(unsigned int priority);

    // Reads the configuration file anew. Returns 0; or -1, with an empty configuration, when it
    // cannot be read. Not while another thread asks for settings.
    int LoadConfigfile();

    std::once_flag initOnce;
    std::once_flag eventLoopOnce;
    std::atomic<uint32_t> refCount;             // Initialize() less UnInitialize()
    std::shared_ptr<utility::IniFile> iniFile;  // null until LoadConfigfile()
};

// The route of port 100: answers a request with its own data, command, invoke id and error.
KYP_API void EchoMsgRouterCallBack(unsigned short port, char const* data, unsigned int size,
                                   _msg_request request, void* ctx);

}  // namespace compmodule
}  // namespace libkyp

extern template class KYP_API utility::Singleton<libkyp::compmodule::CCmpSysInit>;

#endif
