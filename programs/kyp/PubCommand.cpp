#include "kyp/PubCommand.h"

#include <CLI/CLI.hpp>

#include "kyp/Device.h"
#include "kyp/Failure.h"
#include "kyp/Options.h"
#include "libkyp/libkyp.h"

namespace kyptool {

namespace {

// What the library allows for heads and body beside topic and data.
constexpr size_t kAllowance = 77;

// Nothing answers a publication. A request behind it on the same connection does: who has read that
// has read the publication too. Whether the port is served does not matter.
void wait_until_read(CDevice& device, Settings const& settings) {
    Request request;
    request.port = kPortEcho;
    Answer const answer = device.exchange(request, settings.timeout);
    std::string const what =
        printable(settings.target.text) + " does not say whether it has read the message";
    if (!answer.wasSent || answer.status == KYP_ERR_RECV_TIMEOUT) {
        throw unreachable(what, answer.status);
    }
}

}  // namespace

CLI::App* CPubCommand::enter(CLI::App& app, Settings&) {
    CLI::App* const sub = app.add_subcommand("pub", "publish a message on a topic");
    sub->add_option("TOPIC", m_topic, "the topic")->type_name("")->required();
    m_data.enter(*sub);
    add_address_words(*sub, m_indexGroup, m_indexOffset);
    return sub;
}

void CPubCommand::check(Settings const&) {
    if (m_topic.empty()) throw CLI::ValidationError("TOPIC", "a topic has a name");
    m_data.check();
}

int CPubCommand::run(Settings const& settings, CScreen& screen) {
    size_t const heads = kAllowance + m_topic.size();
    std::string const data = m_data.load(heads < kMaxMsgLen ? kMaxMsgLen - heads : 0);
    CDevice& device = CDevice::open(settings.target, settings.timeout);
    int const status = libkyp_publish(device.handle(), m_indexGroup, m_indexOffset, m_topic.c_str(),
                                      data.data(), static_cast<unsigned int>(data.size()));
    if (status != KYP_OK) throw unreachable("the message cannot be sent", status);
    wait_until_read(device, settings);

    if (settings.json) {
        screen.print_json(
            {{"target", settings.target.text}, {"topic", m_topic}, {"sent", data.size()}});
    } else {
        screen.note("published " + std::to_string(data.size()) + " bytes on " + printable(m_topic) +
                    "\n");
    }
    return EXIT_FINE;
}

}  // namespace kyptool
