// Port 101: tells the id of this device, and takes a new one where that is allowed.
//
// Threads: serve() on any worker; one new id is stored at a time.
#ifndef KYP_PROGRAMS_KYPSERVER_IDENTITYSERVICE_H
#define KYP_PROGRAMS_KYPSERVER_IDENTITYSERVICE_H

#include <mutex>

#include "kypcomm/KypTypes.h"
#include "kypserver/Service.h"

namespace kypserver {

class CIdentityService : public IService {
public:
    explicit CIdentityService(bool allowSetId);

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
    unsigned int store(_KypDeviceId const& id);

    bool const m_allowSetId;
    std::mutex m_storeMutex;  // held while a new id is written
};

}  // namespace kypserver

#endif
