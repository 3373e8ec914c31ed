#include "kyp/SendCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "kyp/Device.h"
#include "kyp/Failure.h"
#include "kyp/Options.h"
#include "kyp/Progress.h"
#include "kypclient/CFileTransfer.h"
#include "kypcomm/protocol/FilePacket.h"
#include "libkyp/libkyp.h"

namespace kyptool {

namespace {

constexpr size_t kLongestPath = 255;
constexpr uint64_t kLargestFile = UINT32_MAX;
constexpr Duration kEndTime = std::chrono::seconds(3);  // an exchange, and some to spare
constexpr double kMebibyte = 1024 * 1024;

std::string name_of(std::string const& path) {
    return path.substr(path.rfind('/') + 1);
}

Failure cannot_send(std::string const& path, std::string const& why) {
    return wrong_usage(printable(path) + " cannot be sent: " + why);
}

}  // namespace

CLI::App* CSendCommand::enter(CLI::App& app, Settings&) {
    CLI::App* const sub = app.add_subcommand("send", "send a file to a device");
    sub->add_option("FILE", m_file, "the file")->type_name("")->required();
    sub->add_option("-r,--remote-path", m_remotePath,
                    "where the device is to put it, in the words of the device")
        ->type_name("PATH");
    add_port(*sub, "-p,--port", m_port, "the port on which the device takes files (105)");
    return sub;
}

void CSendCommand::check(Settings const&) {
    if (m_remotePath.size() > kLongestPath) {
        throw CLI::ValidationError("--remote-path", "255 bytes at most");
    }
}

int CSendCommand::run(Settings const& settings, CScreen& screen) {
    uint64_t const size = check_file();
    auto const begin = std::chrono::steady_clock::now();
    transfer(settings, screen, size);
    Duration const took = std::chrono::steady_clock::now() - begin;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_hasEnded = true;
        m_ended.notify_all();
    }
    // The main thread has the last word then.
    if (m_cancel) return EXIT_FINE;
    screen.end_progress();
    judge(settings);
    tell(settings, screen, size, took);
    return EXIT_FINE;
}

int CSendCommand::interrupted(Settings const&, CScreen& screen, int sig) {
    m_cancel = true;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ended.wait_for(lock, kEndTime, [this] { return m_hasEnded; });
    screen.end_progress();
    screen.error("kyp: cancelled: what the device has is not the whole of " + printable(m_file) +
                 "\n");
    return 128 + sig;
}

uint64_t CSendCommand::check_file() const {
    if (m_file.size() > kLongestPath) throw cannot_send(m_file, "its path has more than 255 bytes");
    int const fd = open(m_file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == -1) throw cannot_send(m_file, strerror(errno));
    struct stat status {};
    int const result = fstat(fd, &status);
    close(fd);
    if (result != 0 || !S_ISREG(status.st_mode)) throw cannot_send(m_file, "it is no regular file");
    auto const size = static_cast<uint64_t>(status.st_size);
    if (size > kLargestFile) throw cannot_send(m_file, "it has 4 GiB or more");
    return size;
}

void CSendCommand::transfer(Settings const& settings, CScreen& screen, uint64_t size) {
    CDevice& device = CDevice::open(settings.target, settings.timeout);
    CProgress progress(screen, printable(name_of(m_file)), size);
    _KypDeviceAddr const address{settings.target.id, static_cast<uint16_t>(m_port)};
    CFileTransfer file(address, m_file.c_str(), m_remotePath.c_str(), 0, 0, 0);
    file.SetTransferHandler(device.handle());
    file.SetNotifyCallback(on_progress, this);
    while (!file.IsTransferEnd() && file.SendFile() == 0) {
        m_done = file.m_chunkNum == 0 ? 1 : m_done;
        progress.report(std::min(size, uint64_t{file.m_chunkSeq} * kFileChunkSize));
    }
}

// Behind every exchange, on the thread of run().
int CSendCommand::on_progress(_KypDeviceId, int, float progress, int error, int state, void* self) {
    auto* const command = static_cast<CSendCommand*>(self);
    command->m_cause = libkyp_get_errno();
    command->m_error = error;
    command->m_done = progress;
    if (state == KYP_FILE_FINISHED) command->m_isConfirmed = true;
    return error != KYP_OK || command->m_cancel ? -1 : 0;
}

void CSendCommand::judge(Settings const& settings) const {
    std::string const what = printable(name_of(m_file)) + " to " +
                             port_of(static_cast<uint16_t>(m_port), settings.target);
    if (m_error == KYP_ERR_OPEN_FILE) throw cannot_send(m_file, status_words(m_error));
    if (m_error == KYP_ERR_TRANSFER) {
        // The exchange itself: refused by the peer, not answered, or not sent.
        if (m_cause == KYP_OK) throw refused(what, m_error);
        if (m_cause >= KYP_ERR_DEVICE_ID) throw no_answer_or_refused(what, m_cause);
        throw unreachable(what, m_cause);
    }
    if (m_error != KYP_OK) throw refused(what, m_error);
    if (m_done < 1) throw cannot_send(m_file, "it could not be read to its end");
    if (!m_isConfirmed) {
        throw Failure(EXIT_REFUSED, what + ": the device does not say that it has the whole file");
    }
}

void CSendCommand::tell(Settings const& settings, CScreen& screen, uint64_t size,
                        Duration took) const {
    double const rate = static_cast<double>(size) / std::max(in_seconds(took), 1e-9);
    if (settings.json) {
        screen.print_json({{"target", settings.target.text},
                           {"file", m_file},
                           {"size", size},
                           {"seconds", std::round(in_seconds(took) * 1000) / 1000},
                           {"mebibytes_per_second", std::round(rate / kMebibyte * 1000) / 1000}});
        return;
    }
    char text[64];
    snprintf(text, sizeof text, "%s in %.2f s, %s/s", size_text(size).c_str(), in_seconds(took),
             size_text(static_cast<uint64_t>(rate)).c_str());
    screen.note("sent " + printable(name_of(m_file)) + " to " + printable(settings.target.text) +
                ": " + text + "\n");
}

}  // namespace kyptool
