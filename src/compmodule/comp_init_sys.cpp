#include "compmodule/comp_init_sys.h"

#include <cstddef>
#include <cstdio>
#include <string>

#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcore/EventLoop.h"
#include "kypcore/IConnection.h"
#include "kypcore/ThreadPool.h"
#include "kypcore/router/RouteManage.h"
#include "utils/CFileHelper.h"
#include "utils/CStringHelper.h"
#include "utils/Log.h"

template class utility::Singleton<libkyp::compmodule::CCmpSysInit>;

namespace libkyp {
namespace compmodule {

namespace {

constexpr char const* kConfigPath = "/opt/kyp/libkyp.ini";
constexpr char const* kRuntimeDir = "/var/tmp/kyp/";
constexpr char const* kComponentDir = "/var/tmp/kyp/cmp/";
constexpr int kEventLoops = 3;
constexpr int kWorkers = 4;
constexpr int kAnswerTimeoutMs = 1000;
constexpr int kDefaultIvshmSize = 5248000;
constexpr size_t kIvshmKeySize = 32;

struct NamedLevel {
    char const* name;
    int level;
};

constexpr NamedLevel kLevels[] = {
    {"trace", LOG_LEVEL_TRACE},   {"debug", LOG_LEVEL_DEBUG}, {"info", LOG_LEVEL_INFO},
    {"warn", LOG_LEVEL_WARNING},  {"error", LOG_LEVEL_ERROR}, {"critical", LOG_LEVEL_CRITICAL},
    {"notice", LOG_LEVEL_NOTICE},
};

int level_of(std::string const& name) {
    for (NamedLevel const& known : kLevels) {
        if (CStringHelper::StriCmp(name.c_str(), known.name) == 0) return known.level;
    }
    return LOG_LEVEL_DEBUG;
}

int read_ivshm_size(utility::IniFile& file, int group) {
    char key[kIvshmKeySize];
    (void)snprintf(key, sizeof(key), "group%d_maxsize", group);
    return file.GetInt32("ivshm", key, kDefaultIvshmSize);
}

}  // namespace

CCmpSysInit::CCmpSysInit() : refCount(0) {}

CCmpSysInit::~CCmpSysInit() = default;

int CCmpSysInit::Initialize() {
    ++refCount;
    // Kept: done once in a process, also when its last user has left since.
    std::call_once(initOnce, [this] {
        (void)InitMemPool();
        (void)InitDomainDir();
        (void)LoadConfigfile();  // without a file the defaults apply
        (void)InitRouter();
    });
    return 0;
}

int CCmpSysInit::UnInitialize() {
    if (--refCount != 0) return 0;
    // Kept: stops loops and workers also when InitEventLoop never ran, those of the host program
    // among them.
    (void)utility::instance<CEventManage>().uninit_event_loop();
    (void)utility::instance<CThreadPool>().stop();
    return 0;
}

int CCmpSysInit::InitEventLoop(unsigned int priority) {
    std::call_once(eventLoopOnce, [this, priority] {
        (void)InitSockEvtLoop(priority);
        (void)InitThreadPool();
    });
    return 0;
}

int CCmpSysInit::GetCmpConfigParam(_CmpSysParamConf* conf) {
    if (conf == nullptr || iniFile == nullptr) return -1;

    utility::IniFile& file = *iniFile;
    std::string const& name = conf->cmpName;
    std::string const level = file.GetString(name, "loglevel", "debug");
    // Kept: level and priority are stored and shown, and nobody applies them.
    conf->loglevel = level_of(level);
    conf->ivshm_enable = file.GetBool(name, "ivshm_enable", false);
    conf->ivshm_group = file.GetInt32(name, "ivshm_group", -1);
    conf->sched_priority = file.GetUInt32(name, "sched_priority", 0);
    // Kept: without shared memory the size stays as it was; a group that is not named is -1 in the
    // key, too.
    if (conf->ivshm_enable) conf->ivshm_maxsize = read_ivshm_size(file, conf->ivshm_group);

    KYP_LOG(LOG_LEVEL_INFO,
            "cmp:%s,loglevel:%s,sched_priority:%d,<<ivshm_enable:%d,group:%d,maxsize:%d>>",
            name.c_str(), level.c_str(), static_cast<int>(conf->sched_priority),
            static_cast<int>(conf->ivshm_enable), conf->ivshm_group, conf->ivshm_maxsize);
    return 0;
}

int CCmpSysInit::InitMemPool() {
    (void)utility::instance<client_bufpool>().init_bufpool();
    return 0;
}

int CCmpSysInit::InitDomainDir() {
    (void)CFileHelper::CreateDir(kRuntimeDir);
    (void)CFileHelper::CreateDir(kComponentDir);
    return 0;
}

int CCmpSysInit::InitRouter() {
    (void)utility::instance<RouteManage>().addSvrPortRoute(kPortEcho, EchoMsgRouterCallBack,
                                                           nullptr);
    return 0;
}

int CCmpSysInit::InitThreadPool() {
    (void)utility::instance<CThreadPool>().start(kWorkers);
    return 0;
}

int CCmpSysInit::InitSockEvtLoop(unsigned int priority) {
    (void)utility::instance<CEventManage>().init_event_loop(kEventLoops,
                                                            static_cast<int>(priority));
    return 0;
}

int CCmpSysInit::LoadConfigfile() {
    KYP_LOG(LOG_LEVEL_INFO, "load config:%s", kConfigPath);
    iniFile = std::make_shared<utility::IniFile>(kConfigPath);
    if (iniFile->Load()) return 0;
    KYP_LOG(LOG_LEVEL_ERROR, "load config:%s fail", kConfigPath);
    return -1;
}

void EchoMsgRouterCallBack(unsigned short port, char const* data, unsigned int size,
                           _msg_request request, void* /*ctx*/) {
    if (request.conn == nullptr) return;  // came from nowhere: nobody waits

    _AoEHeader aoe = {};
    aoe.error = utils_htonl(request.error);
    aoe.invokeId = utils_htonl(request.invokeId);
    aoe.cmd = utils_htons(request.cmd);
    aoe.state = KYP_STATE_RESPONSE;
    (void)request.conn->send_message(aoe, port, data, static_cast<int>(size), kAnswerTimeoutMs);
}

}  // namespace compmodule
}  // namespace libkyp
