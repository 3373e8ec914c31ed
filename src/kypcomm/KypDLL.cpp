#include "kypcomm/KypDLL.h"

#include <dlfcn.h>

#include "utils/Log.h"

KYP_DLL::KYP_DLL() : m_handle(nullptr) {}

KYP_DLL::~KYP_DLL() {
    close();
}

bool KYP_DLL::open(char const* path) {
    m_handle = dlopen(path, RTLD_LAZY);
    if (m_handle == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "Failed to load library:%s,error:%s", path, dlerror());
        return false;
    }
    return true;
}

bool KYP_DLL::isopen() {
    return m_handle != nullptr;
}

void* KYP_DLL::symbol(char const* name) {
    if (m_handle == nullptr) {
        KYP_LOG(LOG_LEVEL_ERROR, "Library NOT Load,handle is nullptr");
        return nullptr;
    }
    dlerror();
    void* const address = dlsym(m_handle, name);
    if (address != nullptr) return address;

    // A symbol may well stand at address null; then there is nothing to report.
    if (char const* const error = dlerror()) {
        KYP_LOG(LOG_LEVEL_ERROR, "Failed to find symbol:%s,error:%s", name, error);
    }
    return nullptr;
}

int KYP_DLL::close() {
    if (m_handle == nullptr) return 0;
    int const result = dlclose(m_handle);
    m_handle = nullptr;
    return result;
}
