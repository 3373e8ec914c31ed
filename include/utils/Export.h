/* Marks what the shared library shows. Everything else is hidden. Plain C and C++. */
#ifndef KYP_UTILS_EXPORT_H
#define KYP_UTILS_EXPORT_H

#define KYP_API __attribute__((visibility("default")))

#endif
