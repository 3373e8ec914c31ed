#include <optional>

#include "common/KypServer.h"
#include "common/LibraryLink.h"
#include "roundtrip/Contestant.h"

namespace {

class Library : public Contestant {
public:
    explicit Library(std::string program) : m_program(std::move(program)) {}

    char const* name() const override { return "libkyp"; }

    void start() override {
        m_running.emplace(m_program);
        m_server = m_running->pid();
    }

    std::unique_ptr<Link> connect(Transport transport) override {
        return make_library_link(transport, kEchoPort);
    }

private:
    std::string m_program;
    std::optional<KypServer> m_running;
};

}  // namespace

std::unique_ptr<Contestant> make_library(std::string const& serverProgram) {
    return std::make_unique<Library>(serverProgram);
}
