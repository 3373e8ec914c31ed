#include "kyp/IdCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>

#include "kyp/Device.h"
#include "kyp/Failure.h"
#include "libkyp/libkyp.h"

namespace kyptool {

namespace {

// A device has its identity service on UDP; the server of this machine is asked over its socket.
void must_succeed(std::string const& what, int status) {
    if (status == KYP_OK) return;
    if (status == KYP_ERR_SEND) throw unreachable(what, status);
    throw no_answer_or_refused(what, status);
}

Request identity_request(uint16_t cmd, uint32_t indexGroup, uint32_t indexOffset) {
    Request request;
    request.port = kPortDeviceId;
    request.cmd = cmd;
    request.indexGroup = indexGroup;
    request.indexOffset = indexOffset;
    return request;
}

}  // namespace

CLI::App* CIdCommand::enter(CLI::App& app, Settings& settings) {
    CLI::App* const sub = app.add_subcommand("id", "ask a device for its id, or give it a new one");
    add_target_word(*sub, settings);
    sub->add_option("--set", m_newText,
                    "the id to give it, six numbers with dots; the device has to allow it")
        ->type_name("ID");
    return sub;
}

void CIdCommand::check(Settings const&) {
    if (!m_newText) return;
    m_new = parse_device_id(*m_newText);
    if (!m_new || is_zero(*m_new)) {
        throw CLI::ValidationError(
            "--set", "'" + printable(*m_newText) + "' is no device id such as 192.168.1.10.1.1");
    }
}

int CIdCommand::run(Settings const& settings, CScreen& screen) {
    if (m_new) assign_id(settings, *m_new);
    std::string const id = id_text(m_new ? *m_new : read_id(settings));
    if (settings.json) {
        screen.print_json(
            {{"target", settings.target.text}, {"id", id}, {"assigned", m_new.has_value()}});
    } else if (m_new) {
        screen.note(printable(settings.target.text) + " is " + id + " now\n");
    } else {
        screen.print(id + "\n");
    }
    return EXIT_FINE;
}

_KypDeviceId CIdCommand::read_id(Settings const& settings) const {
    Target const& target = settings.target;
    _KypDeviceId id{};
    if (target.isLocal) {
        Request const request =
            identity_request(KYP_CMD_READ_DEVICE_ID, kReadIdGroup, kReadIdOffset);
        std::string const payload =
            CDevice::open(target, settings.timeout)
                .ask(request, settings.timeout, "the id of " + printable(target.text));
        memcpy(&id, payload.data(), std::min(payload.size(), sizeof id));
    } else {
        must_succeed("the id of " + place_of(target),
                     libkyp_getRemoteKypDeviceId(target.host.c_str(),
                                                 milliseconds_of(settings.timeout), &id));
    }
    return id;
}

void CIdCommand::assign_id(Settings const& settings, _KypDeviceId const& id) const {
    Target const& target = settings.target;
    std::string const what = "a new id for " + place_of(target);
    if (!target.isLocal) {
        must_succeed(what, libkyp_setRemoteKypDeviceId(target.host.c_str(), id_text(id).c_str(),
                                                       milliseconds_of(settings.timeout)));
        return;
    }
    Request request = identity_request(KYP_CMD_SET_DEVICE_ID, kSetIdGroup, kSetIdOffset);
    request.data = {reinterpret_cast<char const*>(id.bytes), sizeof id.bytes};
    CDevice::open(target, settings.timeout).ask(request, settings.timeout, what);
}

}  // namespace kyptool
