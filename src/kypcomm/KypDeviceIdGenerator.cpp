#include "kypcomm/KypDeviceIdGenerator.h"

#include <strings.h>

#include <cstring>
#include <sstream>
#include <stdexcept>

#include "kypcomm/KypDeviceId.h"
#include "kypcomm/KypStatus.h"
#include "utils/Log.h"
#include "utils/xml/Document.h"
#include "utils/xml/Element.h"

template class utility::Singleton<CKypDeviceIdGenerator>;

namespace {

constexpr char const* kDeviceFile = "/opt/kyp/kypdevice.xml";
constexpr char const* kVirtualBridge = "virbr0";

bool is_virtual_bridge(std::string const& name) {
    return strncasecmp(name.c_str(), kVirtualBridge, strlen(kVirtualBridge)) == 0;
}

std::string text_of(const _KypDeviceId& id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

// What the file holds, as far as it could be read; without children when it could not.
libkyp::xml::Element read_device_file() {
    libkyp::xml::Document document;
    libkyp::xml::Element root;
    if (!document.load_file(kDeviceFile)) return root;
    try {
        (void)document.parse(root);
    } catch (std::logic_error const&) {
        // An unquoted attribute: what stands in front of it counts, like after any other fault.
    }
    return root;
}

}  // namespace

int KypGetLocalDeviceId(_KypDeviceId* out,
                        const std::unordered_map<std::string, _NetAdapterObj>& adapters) {
    if (out == nullptr) return KYP_ERR_DEVICE_ID;
    if (adapters.empty()) return KYP_ERR_NETADAPTER;

    for (const auto& [name, adapter] : adapters) {
        if (adapter.ipAddr.empty()) continue;
        if (adapters.size() >= 2 && is_virtual_bridge(name)) continue;
        int error = 0;
        *out = make_KypDeviceIdByHostIp(adapter.ipAddr.c_str(), &error);
        return KYP_OK;
    }
    return KYP_ERR_DEVICE_ID;
}

CKypDeviceIdGenerator::CKypDeviceIdGenerator() : m_loaded(false), m_deviceId{} {}

CKypDeviceIdGenerator::~CKypDeviceIdGenerator() = default;

int CKypDeviceIdGenerator::LoadLocalNetAdaptersInfo() {
    auto adapters = GetLocalNetAdaptersInfo();
    const int count = static_cast<int>(adapters.size());
    if (count == 0) return 0;

    std::lock_guard<std::mutex> lock(m_mutex);
    m_adapters.swap(adapters);
    return count;
}

std::unordered_map<std::string, _NetAdapterObj> CKypDeviceIdGenerator::GetAdapterList() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_adapters;
}

int CKypDeviceIdGenerator::LoadKypDeviceIdFromXml() {
    const libkyp::xml::Element root = read_device_file();
    libkyp::xml::Element device = root["deviceInfo"];
    if (device.name().empty()) return -1;

    const std::string text = device.attr("deviceId");
    int error = 0;
    const _KypDeviceId id = make_KypDeviceId(text.c_str(), &error);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // Kept: a malformed text makes the device all zero; its addresses are not consulted.
        m_deviceId = id;
        m_loaded.store(true, std::memory_order_relaxed);
    }
    KYP_LOG(LOG_LEVEL_DEBUG, "xml name:%s,deviceId:%s", device.name().c_str(), text.c_str());
    return 0;
}

int CKypDeviceIdGenerator::LoadKypDeviceIdFromNetAdapters() {
    if (LoadLocalNetAdaptersInfo() < 1) return -1;

    _KypDeviceId id = {};
    const int status = KypGetLocalDeviceId(&id, GetAdapterList());
    if (status == KYP_OK) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_deviceId = id;
        m_loaded.store(true, std::memory_order_relaxed);
    } else {
        KYP_LOG(LOG_LEVEL_ERROR, "Get KypDeviceId fail,error:%s", LibkypGetErrorString(status));
    }
    // Kept: -1 also when the id was found; m_loaded tells the difference.
    return -1;
}

int CKypDeviceIdGenerator::LoadDeviceId() {
    if (LoadKypDeviceIdFromXml() == -1) (void)LoadKypDeviceIdFromNetAdapters();
    return 0;
}

_KypDeviceId CKypDeviceIdGenerator::GetLocalDeviceId() {
    if (!m_loaded.load(std::memory_order_relaxed)) (void)LoadDeviceId();

    std::lock_guard<std::mutex> lock(m_mutex);
    return m_deviceId;
}

int CKypDeviceIdGenerator::SetLocalDeviceId(const _KypDeviceId& id) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        // Kept: m_loaded stays; who asks first afterwards reads the file back.
        m_deviceId = id;
    }
    return SaveKypDeviceIdToXml(id);
}

int CKypDeviceIdGenerator::SaveKypDeviceIdToXml(const _KypDeviceId& id) {
    const std::string text = text_of(id);
    libkyp::xml::Element device("deviceInfo");
    device.attr("deviceId", text);
    libkyp::xml::Element root("kyp");
    root.append(device);
    libkyp::xml::Document document;
    (void)document.save_file(kDeviceFile, root.toString());
    // Kept: callers are told of a success also when the file could not be written.
    KYP_LOG(LOG_LEVEL_DEBUG, "set deviceId:%s success", text.c_str());
    return 0;
}
