// The pair of topics of one group, as one side sees it.
#ifndef KYP_KYPCOMM_IVSHM_IVSHMTOPICS_H
#define KYP_KYPCOMM_IVSHM_IVSHMTOPICS_H

#include <cstdint>

#include "kypcomm/ivshm/IvshmExtFunDef.h"

struct IvshmTopics {
    TOPIC read;
    TOPIC write;
};

// What a client writes is what the server reads.
inline IvshmTopics ivshm_topics(MODE mode, int group) {
    if (mode == kIvshmClient) return {2 * group, 2 * group + 1};
    return {2 * group + 1, 2 * group};
}

// A handle as log lines show it.
inline unsigned int ivshm_handle_number(void* handle) {
    return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(handle));
}

#endif
