// What stands at /usr/lib/libivshmAPI.so, for a test in the sandbox. Nothing does until one of
// these is called.
#ifndef KYP_TESTS_SUPPORT_IVSHMLIBRARY_H
#define KYP_TESTS_SUPPORT_IVSHMLIBRARY_H

#include <string>

// Puts `file` there, for this process and those that it starts from now on.
void offer_ivshm_library(std::string const& file);

// Takes it away. A library that a process has loaded stays loaded.
void withdraw_ivshm_library();

#endif
