// The components of this process. An address counts as a handle only while it is in this set.
//
// Owns:     the components in the set.
// Threads:  any. One lock, held while a component is stopped and destroyed: for a started one that
//           is for ever, so whoever deletes it keeps everybody else waiting too. A callback of a
//           component does not call in here.
// Lifetime: a singleton, never destroyed.
#ifndef KYP_COMPMODULE_COMP_MODULE_MGR_H
#define KYP_COMPMODULE_COMP_MODULE_MGR_H

#include <mutex>
#include <set>

#include "utils/Export.h"
#include "utils/Singleton.h"

namespace libkyp {
namespace compmodule {

class CompModule;

class KYP_API CompModuleMgr {
public:
    CompModuleMgr();

    // ClearCmpServer().
    ~CompModuleMgr();
    CompModuleMgr(CompModuleMgr const&) = delete;
    CompModuleMgr& operator=(CompModuleMgr const&) = delete;

    // Takes `module` over; null is ignored.
    void AddCmpServer(CompModule* module);

    // The component whose address `handle` is, or null. An unknown address is not followed.
    CompModule* GetCmpServerFromHandler(void* handle);

    // Stops and destroys `module` if it is in the set; another one is left alone.
    void DelCmpServer(CompModule* module);

    // Stops and destroys them all.
    void ClearCmpServer();

    std::mutex m_mutex;               // taken by every operation, for all of it
    std::set<CompModule*> m_modules;  // owned; guarded by m_mutex
};

}  // namespace compmodule
}  // namespace libkyp

extern template class KYP_API utility::Singleton<libkyp::compmodule::CompModuleMgr>;

#endif
