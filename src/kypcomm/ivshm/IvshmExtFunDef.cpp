#include "kypcomm/ivshm/IvshmExtFunDef.h"

#include <dlfcn.h>

#include <memory>

#include "kypcomm/KypDLL.h"
#include "utils/Log.h"

namespace {

constexpr char const* kLibrary = "/usr/lib/libivshmAPI.so";

// The holder closes the library on its way out; this keeps it mapped for the functions' sake.
void keep_mapped(char const* path) {
    void* const handle = dlopen(path, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    if (handle != nullptr) dlclose(handle);
}

template <typename Function>
void find(KYP_DLL& library, char const* name, Function& function) {
    function = reinterpret_cast<Function>(library.symbol(name));
}

bool is_found(bool found, char const* name) {
    if (!found) KYP_LOG(LOG_LEVEL_ERROR, "Load %s fail", name);
    return found;
}

}  // namespace

ExtIvshmApiDef& ExtIvshmApiDef::GetInstance() {
    // Never destroyed: a receive thread may still be in here when the process ends.
    static auto* const s_instance = new ExtIvshmApiDef;
    return *s_instance;
}

ExtIvshmApiDef::ExtIvshmApiDef()
    : m_bLoaded(false),
      m_pfnInit(nullptr),
      m_pfnSend(nullptr),
      m_pfnRecv(nullptr),
      m_pfnUninit(nullptr) {}

ExtIvshmApiDef::~ExtIvshmApiDef() = default;

void* ExtIvshmApiDef::InitIvshmTopic(TOPIC topic, MODE mode) {
    if (!m_bLoaded.load(std::memory_order_acquire)) {
        std::call_once(m_once, [this] { (void)LoadIvshmSymbol(); });
    }
    if (!m_bLoaded.load(std::memory_order_acquire) || m_pfnInit == nullptr) return nullptr;

    KYP_LOG(LOG_LEVEL_DEBUG, "init mode:%d,topic:%d", mode, topic);
    return m_pfnInit(topic, mode);
}

bool ExtIvshmApiDef::Send(void* handle, unsigned long size, void* data, long timeoutMs) {
    return m_bLoaded.load(std::memory_order_acquire) && m_pfnSend(handle, size, data, timeoutMs);
}

bool ExtIvshmApiDef::Recv(void* handle, unsigned long* size, void* data, long timeoutMs) {
    return m_bLoaded.load(std::memory_order_acquire) && m_pfnRecv(handle, size, data, timeoutMs);
}

void ExtIvshmApiDef::UninitIvshmTopic(void* handle) {
    if (m_bLoaded.load(std::memory_order_acquire)) m_pfnUninit(handle);
}

int ExtIvshmApiDef::LoadIvshmSymbol() {
    if (m_bLoaded.load(std::memory_order_acquire)) return 0;

    auto const library = std::make_shared<KYP_DLL>();
    if (!library->open(kLibrary)) {
        KYP_LOG(LOG_LEVEL_ERROR, "Load %s Fail", kLibrary);
        return -1;
    }
    keep_mapped(kLibrary);
    KYP_LOG(LOG_LEVEL_DEBUG, "Load %s Success", kLibrary);

    find(*library, "libivshmapi_init", m_pfnInit);
    find(*library, "libivshmapi_send", m_pfnSend);
    find(*library, "libivshmapi_recv", m_pfnRecv);
    find(*library, "libivshmapi_uninit", m_pfnUninit);
    if (!is_found(m_pfnInit != nullptr, "libivshmapi_init") ||
        !is_found(m_pfnSend != nullptr, "libivshmapi_send") ||
        !is_found(m_pfnRecv != nullptr, "libivshmapi_recv") ||
        !is_found(m_pfnUninit != nullptr, "libivshmapi_uninit")) {
        return -1;
    }
    m_bLoaded.store(true, std::memory_order_release);
    KYP_LOG(LOG_LEVEL_DEBUG, "init ivshmapi.so success");
    return 0;
}
