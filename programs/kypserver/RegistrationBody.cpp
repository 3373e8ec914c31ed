#include "kypserver/RegistrationBody.h"

#include <algorithm>
#include <cstring>

#include "kypcomm/KypStatus.h"

namespace kypserver {

namespace {

constexpr size_t kLongestName = 255;  // more is nobody's name, and every report would carry it

// Takes fields off the front of a body.
class Reader {
public:
    Reader(char const* data, size_t size) : m_data(data), m_rest(size), m_isShort(false) {}

    template <typename T>
    void take(T& field) {
        if (!has(sizeof field)) return;
        memcpy(&field, m_data, sizeof field);
        skip(sizeof field);
    }

    void take(std::string_view& text, size_t size) {
        if (!has(size)) return;
        text = {m_data, size};
        skip(size);
    }

    unsigned int status() const {
        if (m_isShort) return KYP_ERR_PACKET_TOO_SHORT;
        return m_rest == 0 ? KYP_OK : KYP_ERR_PACKET_LENGTH;
    }

private:
    // Nothing is read behind the first field that is not there whole.
    bool has(size_t size) {
        m_isShort = m_isShort || m_rest < size;
        return !m_isShort;
    }

    void skip(size_t size) {
        m_data += size;
        m_rest -= size;
    }

    char const* m_data;
    size_t m_rest;
    bool m_isShort;
};

bool is_name_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

// 3 and 4 carry a port, as their replies do.
bool carries_port(uint16_t cmdId) {
    unsigned int const cmd = cmdId & ~static_cast<unsigned int>(kRegisterReply);
    return cmd == 3 || cmd == 4;
}

}  // namespace

unsigned int read_registration(char const* data, size_t size, RegistrationBody& body) {
    Reader reader(data, size);
    uint32_t errId = 0;
    uint16_t nameLen = 0;
    reader.take(body.type);
    reader.take(body.cmdId);
    reader.take(errId);
    reader.take(nameLen);
    reader.take(body.drvParam0);
    reader.take(body.drvParam1);
    reader.take(body.name, nameLen);
    if (carries_port(body.cmdId)) reader.take(body.routePort);
    return reader.status();
}

bool is_component_name(std::string_view name) {
    return !name.empty() && name.size() <= kLongestName &&
           std::all_of(name.begin(), name.end(), is_name_character);
}

}  // namespace kypserver
