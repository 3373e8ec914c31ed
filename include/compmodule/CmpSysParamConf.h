// One component's settings, as the configuration file or the defaults have them.
//
// Owns:     its text.
// Threads:  none; it belongs to its component.
// Lifetime: any.
#ifndef KYP_COMPMODULE_CMPSYSPARAMCONF_H
#define KYP_COMPMODULE_CMPSYSPARAMCONF_H

#include <cstdint>
#include <string>

// The sections and keys are told with CCmpSysInit::GetCmpConfigParam, which fills it.
struct _CmpSysParamConf {
    bool ivshm_enable = false;     // whether the component opens a shared-memory group
    int ivshm_maxsize = 0x500000;  // largest frame in bytes; only read while ivshm_enable is set
    int ivshm_group = 0;           // the group's number
    int loglevel = 1;              // a LOG_LEVEL_ number; stored and not applied
    uint32_t sched_priority = 0;   // stored and not applied
    std::string cmpName;           // the component's name, given and not read
};

#endif
