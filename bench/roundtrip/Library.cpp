#include <unistd.h>

#include <cstring>

#include "Contestant.h"
#include "Sockets.h"
#include "libkyp/libkyp.h"

namespace {

constexpr unsigned short kEcho = 100;
constexpr int kTimeoutMs = 5000;

class LibraryLink : public Link {
public:
    explicit LibraryLink(void* handle) : m_handle(handle) {}
    ~LibraryLink() override { libkyp_releaseInstance(m_handle); }

    void exchange(std::vector<char> const& payload) override {
        m_answer.resize(payload.size());
        auto const size = static_cast<unsigned int>(payload.size());
        unsigned short port = 0;
        if (libkyp_sync_send(m_handle, kEcho, 0, 0, const_cast<char*>(payload.data()), size,
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
    std::vector<char> m_answer;
};

class Library : public Contestant {
public:
    explicit Library(std::string program) : m_program(std::move(program)) {}

    ~Library() override {
        libkyp_destory();
        end(m_server);
    }

    char const* name() const override { return "libkyp"; }

    void start() override {
        m_server = spawn({m_program});
        libkyp_init();
        close(connect_plain(Transport::Tcp, {9999, ""}));
    }

    std::unique_ptr<Link> connect(Transport transport) override {
        _KypDeviceId id = {{127, 0, 0, 1, 1, 1}};
        void* const handle = libkyp_createInstance(&id, transport == Transport::Tcp ? 0 : 2);
        if (handle == nullptr) fail("libkyp_createInstance");
        return std::make_unique<LibraryLink>(handle);
    }

private:
    std::string m_program;
};

}  // namespace

std::unique_ptr<Contestant> make_library(std::string const& serverProgram) {
    return std::make_unique<Library>(serverProgram);
}
