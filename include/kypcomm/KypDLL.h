// A library loaded at run time.
//
// Owns:     the handle; the destructor closes the library, and what symbol() gave dies with it.
// Threads:  one at a time.
// Lifetime: any; closed, it can open a library again.
#ifndef KYP_KYPCOMM_KYPDLL_H
#define KYP_KYPCOMM_KYPDLL_H

#include "utils/Export.h"

class KYP_API KYP_DLL {
public:
    KYP_DLL();
    ~KYP_DLL();
    KYP_DLL(KYP_DLL const&) = delete;
    KYP_DLL& operator=(KYP_DLL const&) = delete;

    // Loads the library at `path`. On failure false, with the reason logged, and nothing is open. A
    // library opened before stays loaded and is closed no more.
    bool open(char const* path);

    bool isopen();

    // The address of `name`, or null with the reason logged.
    void* symbol(char const* name);

    // Returns dlclose()'s result, 0 when nothing is open. Nothing is open afterwards.
    int close();

    void* m_handle;  // null while closed
};

#endif
