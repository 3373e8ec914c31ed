#include "kypcomm/KypLibInit.h"

#include <sstream>

#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypDeviceIdGenerator.h"

template class utility::Singleton<CKypLibInit>;

namespace {

// Null when the singleton holds no object.
CKypDeviceIdGenerator* generator() {
    using Holder = utility::Singleton<CKypDeviceIdGenerator>;
    std::call_once(Holder::m_once, Holder::getInstance);
    return Holder::m_instance;
}

}  // namespace

CKypLibInit::CKypLibInit() {
    (void)InitKypClient();
}

CKypLibInit::~CKypLibInit() = default;

int CKypLibInit::InitKypClient() {
    CKypDeviceIdGenerator* const ids = generator();
    return ids != nullptr ? ids->LoadDeviceId() : -1;
}

_KypDeviceId CKypLibInit::GetKypDeviceId() {
    CKypDeviceIdGenerator* const ids = generator();
    return ids != nullptr ? ids->GetLocalDeviceId() : _KypDeviceId{};
}

std::string CKypLibInit::GetKypDeviceIdString() {
    std::ostringstream text;
    text << GetKypDeviceId();
    return text.str();
}
