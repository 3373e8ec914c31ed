#include "compmodule/comp_module_mgr.h"

#include "compmodule/comp_module.h"

template class utility::Singleton<libkyp::compmodule::CompModuleMgr>;

namespace libkyp {
namespace compmodule {

namespace {

// Kept: stopping a component that was started never comes back, with the manager locked.
void end(CompModule* module) {
    (void)module->stop();
    delete module;
}

}  // namespace

CompModuleMgr::CompModuleMgr() = default;

CompModuleMgr::~CompModuleMgr() {
    ClearCmpServer();
}

void CompModuleMgr::AddCmpServer(CompModule* module) {
    if (module == nullptr) return;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_modules.insert(module);
}

CompModule* CompModuleMgr::GetCmpServerFromHandler(void* handle) {
    auto* const module = static_cast<CompModule*>(handle);
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_modules.count(module) == 0 ? nullptr : module;
}

void CompModuleMgr::DelCmpServer(CompModule* module) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto const entry = m_modules.find(module);
    if (entry == m_modules.end()) return;
    end(module);
    m_modules.erase(entry);
}

void CompModuleMgr::ClearCmpServer() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (CompModule* const module : m_modules) end(module);
    m_modules.clear();
}

}  // namespace compmodule
}  // namespace libkyp
