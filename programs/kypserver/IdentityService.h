// Port 101: tells the id of this device, and takes a new one where that is allowed.
//
// Threads:  serve() on any worker. A new id is written by an errand, one at a time.
// Lifetime: outlives the workers and the errands.
#ifndef KYP_PROGRAMS_KYPSERVER_IDENTITYSERVICE_H
#define KYP_PROGRAMS_KYPSERVER_IDENTITYSERVICE_H

#include <atomic>

#include "kypcomm/KypTypes.h"
#include "kypserver/Service.h"

namespace kypserver {

class CErrands;

class CIdentityService : public IService {
public:
    // At most so many new ids wait to be written; more are refused.
    static constexpr int kMostWaiting = 64;

    CIdentityService(bool allowSetId, CErrands& errands);

    unsigned short port() const override;

    // Command 1 at 0x1000/0x1001, without data: answers the 6 bytes of the id.
    // Command 5 at 0x1001/0x1002, with the 6 bytes of a new id: stores it, or refuses with 0x1018
    // where that is switched off, 0x1001 for the all-zero id, 0x3004 when it cannot be kept.
    // Anything else: 0x1009 command, 0x1002 group, 0x1003 offset, 0x1004 length. Commands that
    // await no answer get none.
    void serve(Request const& request) override;

private:
    void tell(Request const& request);
    void assign(Request const& request);
    void store_later(Request const& request);
    unsigned int store(_KypDeviceId const& id);

    bool const m_allowSetId;
    CErrands& m_errands;
    std::atomic<int> m_waiting;  // new ids that wait to be written
};

}  // namespace kypserver

#endif
