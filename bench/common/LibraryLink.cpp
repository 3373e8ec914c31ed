#include "common/LibraryLink.h"

#include "libkyp/libkyp.h"

namespace {

constexpr int kTimeoutMs = 5000;

class LibraryLink : public Link {
public:
    LibraryLink(void* handle, unsigned short port) : m_handle(handle), m_port(port) {}
    ~LibraryLink() override { libkyp_releaseInstance(m_handle); }

    void exchange(std::vector<char> const& payload) override {
        m_answer.resize(payload.size());
        auto const size = static_cast<unsigned int>(payload.size());
        unsigned short port = 0;
        if (libkyp_sync_send(m_handle, m_port, 0, 0, const_cast<char*>(payload.data()), size,
                             kTimeoutMs) < 0) {
            fail("libkyp_sync_send");
        }
        int const n =
            libkyp_sync_recv(m_handle, &port, m_answer.data(), static_cast<int>(size), kTimeoutMs);
        if (n != static_cast<int>(size)) {
            fail(libkyp_strerror(libkyp_get_errno()));
        }
    }

private:
    void* m_handle;
    unsigned short m_port;
    std::vector<char> m_answer;
};

}  // namespace

void* create_handle(Transport transport) {
    _KypDeviceId id = {{127, 0, 0, 1, 1, 1}};
    void* const handle = libkyp_createInstance(&id, transport == Transport::Tcp ? 0 : 2);
    if (handle == nullptr) fail("libkyp_createInstance");
    return handle;
}

std::unique_ptr<Link> make_library_link(Transport transport, unsigned short port) {
    return std::make_unique<LibraryLink>(create_handle(transport), port);
}
