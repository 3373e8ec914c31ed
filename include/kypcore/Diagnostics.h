// A place for one pointer of diagnostic data. The library itself leaves it empty.
//
// Owns:     nothing.
// Threads:  one at a time.
// Lifetime: its holder's.
#ifndef KYP_KYPCORE_DIAGNOSTICS_H
#define KYP_KYPCORE_DIAGNOSTICS_H

#include "utils/Export.h"

class KYP_API CDiagnostics {
public:
    // All three leave the pointer null.
    CDiagnostics();
    ~CDiagnostics();
    void reset();

    void* m_pDiagnostics;
};

#endif
