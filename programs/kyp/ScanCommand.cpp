#include "kyp/ScanCommand.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <vector>

#include "kyp/Failure.h"
#include "kyp/KnownDevices.h"
#include "kyp/Options.h"
#include "kyp/ScanWatch.h"
#include "kyp/Table.h"
#include "kypcomm/Adapter.h"
#include "libkyp/libkyp.h"

namespace kyptool {

namespace {

constexpr Duration kEndTime = std::chrono::seconds(2);  // from a signal to the end of run()

Json device_json(_KypDevice const& device) {
    return {{"id", device.kypDeviceId},
            {"address", device.ipAddr},
            {"mac", device.macAddr},
            {"host", device.hostName},
            {"kyp_version", device.kypVersion},
            {"rte_version", device.rteVersion},
            {"os_version", device.velaosVersion},
            {"serial", device.serialNo},
            {"sn", device.sn}};
}

Row device_row(_KypDevice const& device) {
    return {printable(device.kypDeviceId),   printable(device.ipAddr),
            printable(device.macAddr),       printable(device.hostName),
            printable(device.kypVersion),    printable(device.rteVersion),
            printable(device.velaosVersion), printable(device.serialNo)};
}

// Where the question went, for those who have got no answer.
std::string asked_interfaces() {
    std::string text;
    for (auto const& [name, info] : GetLocalNetAdaptersInfo()) {
        if (!info.ipAddr.empty()) text += (text.empty() ? "" : ", ") + name + " " + info.ipAddr;
    }
    return text;
}

}  // namespace

CLI::App* CScanCommand::enter(CLI::App& app, Settings&) {
    CLI::App* const sub =
        app.add_subcommand("scan", "find the devices of the local networks and list them");
    add_duration(*sub, "-d,--duration", m_duration, "how long to wait for replies (3s)");
    add_number(*sub, "-c,--count", m_count, "end as soon as so many devices have replied", 1);
    sub->add_flag("--explain", m_explain,
                  "tell for each interface what was sent, what came back, and what was dropped "
                  "and why");
    return sub;
}

int CScanCommand::run(Settings const& settings, CScreen& screen) {
    auto const end = Clock::now() + m_duration;
    int code = EXIT_FINE;
    if (m_explain) {
        CScanWatch watch([this](_KypDevice const& device) { add(device); });
        watch.scan(end, m_stop);
        code = finish(settings, screen);
        if (settings.json) {
            screen.print_json(watch.json());
        } else {
            screen.print("\n" + watch.text());
        }
    } else {
        scan(end);
        code = finish(settings, screen);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_exit = code;
    m_changed.notify_all();
    return code;
}

// What was found so far counts.
int CScanCommand::interrupted(Settings const&, CScreen&, int sig) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_stop = true;
    m_changed.notify_all();
    m_changed.wait_for(lock, kEndTime, [this] { return m_exit.has_value(); });
    return m_exit.value_or(128 + sig);
}

void CScanCommand::scan(Clock::time_point end) {
    libkyp_registerKypScanEvent(on_device, this);
    libkyp_startKypScan();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_until(lock, end, [this] { return m_stop.load(); });
    lock.unlock();
    libkyp_stopKypScan();
}

void CScanCommand::on_device(_KypDevice device, void* self) {
    static_cast<CScanCommand*>(self)->add(device);
}

void CScanCommand::add(_KypDevice const& device) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stop) return;
    m_devices[{device.ipAddr, device.kypDeviceId}] = device;
    if (m_count == 0 || m_devices.size() < m_count) return;
    m_stop = true;
    m_changed.notify_all();
}

int CScanCommand::finish(Settings const& settings, CScreen& screen) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
    show_devices(settings, screen);
    remember(screen);
    return m_devices.empty() ? EXIT_UNREACHABLE : EXIT_FINE;
}

void CScanCommand::show_devices(Settings const& settings, CScreen& screen) const {
    if (m_devices.empty()) {
        std::string const asked = asked_interfaces();
        screen.error(
            "kyp: no device has replied" +
            (asked.empty() ? std::string(": there is no interface to ask on") : " on " + asked) +
            (m_explain ? "\n" : "; --explain tells more\n"));
        return;
    }
    std::vector<Row> rows;
    for (auto const& [key, device] : m_devices) {
        if (settings.json) {
            screen.print_json(device_json(device));
        } else {
            rows.push_back(device_row(device));
        }
    }
    if (settings.json) return;
    screen.print(table_text(
        {"DEVICE ID", "ADDRESS", "HARDWARE ADDRESS", "HOST", "KYP", "RUNTIME", "SYSTEM", "SERIAL"},
        rows));
}

// An id that two devices claim is nobody's.
void CScanCommand::remember(CScreen& screen) const {
    std::map<std::string, std::string> addresses;
    std::map<std::string, bool> isClaimedTwice;
    for (auto const& [key, device] : m_devices) {
        auto const id = parse_device_id(device.kypDeviceId);
        if (!id || is_zero(*id)) continue;
        isClaimedTwice[id_text(*id)] = !addresses.emplace(id_text(*id), device.ipAddr).second;
    }
    for (auto const& [id, twice] : isClaimedTwice) {
        if (!twice) continue;
        addresses.erase(id);
        screen.note("kyp: two devices say that they are " + id +
                    "; name the one that you mean by its address\n");
    }
    remember_devices(addresses);
}

}  // namespace kyptool
