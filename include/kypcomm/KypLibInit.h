// The client side's hold on the local device id: its construction determines the id.
//
// Owns:     nothing.
// Threads:  any.
// Lifetime: singleton, to the end of the process.
#ifndef KYP_KYPCOMM_KYPLIBINIT_H
#define KYP_KYPCOMM_KYPLIBINIT_H

#include <string>

#include "kypcomm/KypTypes.h"
#include "utils/Export.h"
#include "utils/Singleton.h"

class KYP_API CKypLibInit {
public:
    // Calls InitKypClient().
    CKypLibInit();
    ~CKypLibInit();

    // Determines the local device id. Returns 0, or -1 when there is no generator.
    int InitKypClient();

    // The local device id, all zero when there is none.
    _KypDeviceId GetKypDeviceId();

    // Its text: "192.168.1.10.1.1".
    std::string GetKypDeviceIdString();
};

extern template class KYP_API utility::Singleton<CKypLibInit>;

#endif
