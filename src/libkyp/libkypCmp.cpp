#include "libkyp/libkypCmp.h"

#include <algorithm>
#include <climits>
#include <iterator>
#include <memory>

#include "compmodule/comp_init_sys.h"
#include "compmodule/comp_module.h"
#include "compmodule/comp_module_mgr.h"
#include "kypcomm/KypWire.h"
#include "kypcore/IConnection.h"
#include "utils/Log.h"
#include "utils/comm.h"

using libkyp::compmodule::CCmpSysInit;
using libkyp::compmodule::CompModule;
using libkyp::compmodule::CompModuleMgr;

namespace {

constexpr int kAnswerTimeoutMs = 1000;

CompModuleMgr& manager() {
    return utility::instance<CompModuleMgr>();
}

// Begins an entry with a handle: the component behind it, or null with the status set.
CompModule* find_component(void* handle) {
    tlsErrno = KYP_OK;
    CompModule* const module = manager().GetCmpServerFromHandler(handle);
    if (module == nullptr) tlsErrno = KYP_ERR_HANDLE;
    return module;
}

bool is_name_character(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9') || character == '_' || character == '-';
}

// A name that fills its field has no NUL and is none.
bool has_good_name(tagCmpDrvInfo const& info) {
    char const* const end = std::find(std::begin(info.name), std::end(info.name), '\0');
    return end != std::end(info.name) && end != std::begin(info.name) &&
           std::all_of(std::begin(info.name), end, is_name_character);
}

// 0, or why such an answer cannot be handed to its connection, which counts with a sign.
int fault_of(char const* data, unsigned int length, _msg_request const& request) {
    if (request.conn == nullptr || (data == nullptr && length > 0)) return KYP_ERR_INPUT_PARAM;
    return length > INT_MAX ? KYP_ERR_PACKET_TOO_LONG : KYP_OK;
}

void* refuse(int status, int* err) {
    tlsErrno = status;
    *err = status;
    return nullptr;
}

}  // namespace

int libkypcmp_init() {
    KYP_LOG(LOG_LEVEL_NOTICE, "libkypcomp Version %d.%d.%d", KYP_VERSION_MAJOR, KYP_VERSION_MINOR,
            KYP_VERSION_PATCH);
    KYP_LOG(LOG_LEVEL_NOTICE, "libkypcomp Compile Time:%s", CComm::GetCompileTime().c_str());
    tlsErrno = KYP_OK;
    // Kept: debug, whatever level the configuration names.
    SetLogLevel(LOG_LEVEL_DEBUG);
    (void)utility::instance<CCmpSysInit>().Initialize();
    return 0;
}

void* libkypcmp_register(tagCmpDrvInfo* info, KypCmpCallback callback, void* arg, int* err) {
    tlsErrno = KYP_OK;
    *err = KYP_OK;
    if (info == nullptr) {
        // Kept: the status of the thread stays 0 here; only `err` tells.
        *err = KYP_ERR_INPUT_PARAM;
        return nullptr;
    }
    if (!has_good_name(*info)) return refuse(KYP_ERR_COMPONENT_NAME, err);

    auto module = std::make_unique<CompModule>(info, callback, arg);
    *err = module->init_comp_module();
    if (*err == KYP_ERR_COMPONENT_NAME_TAKEN) return nullptr;

    // Kept: every other failure leaves a component that is not known to the server yet.
    (void)module->init_ivshm_channel();
    manager().AddCmpServer(module.get());
    return module.release();
}

CmpConnConfig* libkypcmp_getconfig(void* handle) {
    CompModule* const module = find_component(handle);
    return module == nullptr ? nullptr : module->getconfig();
}

int libkypcmp_addrouter(void* handle, unsigned int port, KypSvrRoute callback, void* user) {
    tlsErrno = KYP_OK;
    // Kept: all 32 bits are compared, and 16 of them used: 66136 is port 600.
    if (port <= kHighestReservedPort) {
        tlsErrno = KYP_ERR_PORT_RESERVED;
        return tlsErrno;
    }
    CompModule* const module = find_component(handle);
    if (module == nullptr) return KYP_ERR_HANDLE;
    return module->register_route_port(static_cast<unsigned short>(port), callback, user);
}

int libkypcmp_loop_start(void* handle) {
    CompModule* const module = find_component(handle);
    return module == nullptr ? KYP_ERR_HANDLE : module->start();
}

int libkypcmp_loop_stop(void* handle) {
    CompModule* const module = find_component(handle);
    return module == nullptr ? KYP_ERR_HANDLE : module->stop();
}

int libkypcmp_publish(void* handle, unsigned int indexGroup, unsigned int indexOffset,
                      char const* topic, char const* data, unsigned int length) {
    CompModule* const module = find_component(handle);
    if (module == nullptr) return KYP_ERR_HANDLE;
    if (data == nullptr && length > 0) {
        tlsErrno = KYP_ERR_INPUT_PARAM;
        return 0;
    }
    // Kept: a message that could not be sent shows in the thread's status only, and so it is with
    // the two calls below.
    (void)module->publish(topic, indexGroup, indexOffset, data, length);
    return 0;
}

int libkypcmp_subscribe(void* handle, char const* topic, KypTopicCallback callback, void* user) {
    CompModule* const module = find_component(handle);
    if (module == nullptr) return KYP_ERR_HANDLE;
    (void)module->subscribe(topic, callback, user);
    return 0;
}

int libkypcmp_unsubscribe(void* handle, char const* topic) {
    CompModule* const module = find_component(handle);
    if (module == nullptr) return KYP_ERR_HANDLE;
    (void)module->unsubscribe(topic);
    return 0;
}

int libkypcmp_send(unsigned short port, char const* data, unsigned int length, _msg_request request,
                   void* /*reserved*/, int* err) {
    tlsErrno = fault_of(data, length, request);
    if (tlsErrno != KYP_OK) {
        *err = tlsErrno;
        return -1;
    }
    _AoEHeader aoe = {};
    aoe.error = utils_htonl(request.error);
    aoe.invokeId = utils_htonl(request.invokeId);
    aoe.cmd = utils_htons(request.cmd);
    aoe.state = KYP_STATE_RESPONSE;
    int const result =
        request.conn->send_message(aoe, port, data, static_cast<int>(length), kAnswerTimeoutMs);
    *err = tlsErrno;
    return result;
}

int libkypcmp_destory(void* handle) {
    CompModule* const module = find_component(handle);
    if (module == nullptr) return KYP_ERR_HANDLE;
    manager().DelCmpServer(module);
    return tlsErrno;
}

int libkypcmp_get_errno() {
    return tlsErrno;
}

char const* libkypcmp_strerror(int code) {
    return LibkypGetErrorString(code);
}

int libkypcmp_finit() {
    manager().ClearCmpServer();
    (void)utility::instance<CCmpSysInit>().UnInitialize();
    return 0;
}
