#include "kyp/RequestCommand.h"

#include <CLI/CLI.hpp>

#include "kyp/Device.h"
#include "kyp/Failure.h"
#include "kyp/Options.h"

namespace kyptool {

namespace {

struct Words {
    char const* name;
    char const* what;
    uint16_t cmd;
    bool hasData;
    bool hasAnswer;
};
constexpr Words kWords[] = {
    {"read", "send a read request to a logical port and show the answer", KYP_CMD_READ, false,
     true},
    {"write", "send a write request with data to a logical port", KYP_CMD_WRITE, true, false},
    {"call", "send a request with data to a logical port and show the answer", KYP_CMD_READ_WRITE,
     true, true},
};

}  // namespace

CRequestCommand::CRequestCommand(Kind kind) : m_kind(kind) {}

CLI::App* CRequestCommand::enter(CLI::App& app, Settings&) {
    Words const& words = kWords[m_kind];
    CLI::App* const sub = app.add_subcommand(words.name, words.what);
    add_port(*sub, "PORT", m_port, "the logical port, 1 to 4096")->type_name("")->required();
    if (words.hasData) m_data.enter(*sub);
    add_address_words(*sub, m_indexGroup, m_indexOffset);
    if (words.hasAnswer) add_view(*sub, m_view);
    return sub;
}

void CRequestCommand::check(Settings const&) {
    m_data.check();
}

int CRequestCommand::run(Settings const& settings, CScreen& screen) {
    Words const& words = kWords[m_kind];
    std::string const data = m_data.load(kLongestPayload);
    Request request;
    request.port = static_cast<uint16_t>(m_port);
    request.cmd = words.cmd;
    request.indexGroup = m_indexGroup;
    request.indexOffset = m_indexOffset;
    request.data = data;

    std::string const what = port_of(request.port, settings.target);
    std::string const answer =
        CDevice::open(settings.target, settings.timeout).ask(request, settings.timeout, what);
    if (settings.json) {
        Json object = {{"target", settings.target.text}, {"port", m_port}};
        if (words.hasData) object["sent"] = data.size();
        if (words.hasAnswer) add_data(object, answer);
        screen.print_json(object);
    } else if (words.hasAnswer) {
        screen.print(render(answer, m_view));
    } else {
        screen.note(what + " took " + std::to_string(data.size()) + " bytes\n");
    }
    return EXIT_FINE;
}

}  // namespace kyptool
