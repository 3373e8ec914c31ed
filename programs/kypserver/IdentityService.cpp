#include "kypserver/IdentityService.h"

#include <chrono>
#include <cstring>

#include "kypcomm/KypDeviceIdGenerator.h"
#include "kypcomm/KypStatus.h"
#include "kypserver/Errands.h"
#include "kypserver/ServerLog.h"

namespace kypserver {

namespace {

bool same_id(_KypDeviceId const& a, _KypDeviceId const& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

CKypDeviceIdGenerator& generator() {
    return utility::instance<CKypDeviceIdGenerator>();
}

}  // namespace

CIdentityService::CIdentityService(bool allowSetId, CErrands& errands)
    : m_allowSetId(allowSetId), m_errands(errands), m_waiting(0) {}

unsigned short CIdentityService::port() const {
    return kPortDeviceId;
}

void CIdentityService::serve(Request const& request) {
    unsigned int const cmd = request.head.cmd;
    if (cmd == KYP_CMD_READ_DEVICE_ID) return tell(request);
    if (cmd == KYP_CMD_SET_DEVICE_ID) return assign(request);
    if (!is_one_way(cmd)) answer(request, KYP_ERR_COMMAND);
}

void CIdentityService::tell(Request const& request) {
    unsigned int const status = address_fault(request, kReadIdGroup, kReadIdOffset, 0);
    if (status != KYP_OK) return answer(request, status);

    _KypDeviceId const id = generator().GetLocalDeviceId();
    answer(request, KYP_OK, &id, sizeof id);
}

void CIdentityService::assign(Request const& request) {
    unsigned int status = address_fault(request, kSetIdGroup, kSetIdOffset, sizeof(_KypDeviceId));
    if (status == KYP_OK && !m_allowSetId) {
        report("a new device id is refused; --allow-set-id would take it");
        status = KYP_ERR_UNSUPPORTED_CALL;
    }
    if (status != KYP_OK) return answer(request, status);
    store_later(request);
}

// The disk may take its time, and the worker has other clients.
void CIdentityService::store_later(Request const& request) {
    if (m_waiting.fetch_add(1, std::memory_order_relaxed) >= kMostWaiting) {
        m_waiting.fetch_sub(1, std::memory_order_relaxed);
        report("a new device id is refused: as many as may wait to be written");
        return answer(request, KYP_ERR_WRITE_FILE);
    }
    _KypDeviceId id;
    memcpy(&id, request.data, sizeof id);
    m_errands.after(std::chrono::milliseconds(0), [this, request, id] {
        answer(request, store(id));
        m_waiting.fetch_sub(1, std::memory_order_relaxed);
    });
}

unsigned int CIdentityService::store(_KypDeviceId const& id) {
    if (same_id(id, _KypDeviceId{})) return KYP_ERR_DEVICE_ID;

    generator().SetLocalDeviceId(id);
    // Writing reports nothing, so what stands in the file is read back. An id that would be gone
    // after a restart is not taken.
    bool const inFile = generator().LoadKypDeviceIdFromXml() == 0;
    if (inFile && same_id(id, generator().GetLocalDeviceId())) return KYP_OK;

    generator().LoadDeviceId();  // back to the one that lasts

    report(
        "the new device id cannot be written to /opt/kyp/kypdevice.xml; make that directory "
        "writable for this user");
    return KYP_ERR_WRITE_FILE;
}

}  // namespace kypserver
