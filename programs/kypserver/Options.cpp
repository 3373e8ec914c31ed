#include "kypserver/Options.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>

namespace kypserver {

namespace {

constexpr size_t kLongestDomainPath = 107;

bool parse_port(std::string const& text, uint16_t& port) {
    if (text.empty() || text.size() > 5) return false;
    unsigned int value = 0;
    for (char const digit : text) {
        if (digit < '0' || digit > '9') return false;
        value = value * 10 + static_cast<unsigned int>(digit - '0');
    }
    if (value > 0xffff) return false;
    port = static_cast<uint16_t>(value);
    return true;
}

bool is_ipv4(std::string const& text) {
    in_addr parsed;
    return inet_pton(AF_INET, text.c_str(), &parsed) == 1;
}

void add_address(CLI::App& app, std::string const& name, Address& address,
                 std::string const& what) {
    app.add_option_function<std::string>(
           name,
           [&address, name](std::string const& text) {
               if (!parse_address(text, address)) {
                   throw CLI::ValidationError(name,
                                              "'" + text + "' is not an IPv4 address and port");
               }
           },
           what + " (" + address.host + ":" + std::to_string(address.port) + ")")
        ->type_name("ADDRESS[:PORT]")
        ->group("Endpoints");
}

void add_switch_off(CLI::App& app, std::string const& name, bool& value, std::string const& what) {
    app.add_flag_callback(
           name, [&value] { value = false; }, what)
        ->group("Endpoints");
}

void set_domain_path(Options& options, std::string const& path) {
    if (path.empty() || path.size() > kLongestDomainPath) {
        throw CLI::ValidationError("--domain-path", "a socket path has 1 to 107 characters");
    }
    options.domainPath = path;
}

void add_endpoints(CLI::App& app, Options& options) {
    add_address(app, "--tcp-address", options.tcpAddress, "where to listen for TCP clients");
    add_switch_off(app, "--no-tcp", options.tcp, "no TCP clients");
    add_address(app, "--udp-address", options.udpAddress, "where to answer single datagrams");
    add_switch_off(app, "--no-udp", options.udp, "no datagrams");
    app.add_option_function<std::string>(
           "--domain-path", [&options](std::string const& path) { set_domain_path(options, path); },
           "where local clients find the server (" + options.domainPath + ")")
        ->type_name("PATH")
        ->group("Endpoints");
    add_switch_off(app, "--no-domain", options.domain, "no local clients");
    add_switch_off(app, "--no-scan", options.scan, "not found by scans of the network");
}

// A negative number would become a very large one.
std::string no_minus(std::string const& text) {
    return text.find('-') == std::string::npos ? "" : "'" + text + "' is not a size";
}

void add_limits(CLI::App& app, Options& options) {
    app.add_option("--max-clients", options.maxClients, "open connections")
        ->check(CLI::Range(size_t{1}, size_t{1000000}).description(""))
        ->type_name("N")
        ->capture_default_str()
        ->group("Limits");
    app.add_option("--max-waiting-bytes", options.maxWaitingBytes,
                   "topic messages that may wait for one slow subscriber; more are dropped")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(no_minus)
        ->type_name("N[kb|mb]")
        ->capture_default_str()
        ->group("Limits");
    app.add_option("--max-component-bytes", options.maxComponentBytes,
                   "requests that may wait for one slow component; more are refused")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(no_minus)
        ->type_name("N[kb|mb]")
        ->capture_default_str()
        ->group("Limits");
    app.add_option("--max-held-bytes", options.maxHeldBytes,
                   "requests of one client that may be under way and answers that it may leave "
                   "unread; more ends its connection")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(no_minus)
        ->type_name("N[kb|mb]")
        ->capture_default_str()
        ->group("Limits");
    app.add_option("--max-topics", options.maxTopics, "subscriptions of one connection")
        ->check(CLI::Range(size_t{1}, size_t{1000000}).description(""))
        ->type_name("N")
        ->capture_default_str()
        ->group("Limits");
}

void add_threads(CLI::App& app, Options& options) {
    app.add_option("--loops", options.loops, "event loops, the first of which accepts")
        ->check(CLI::Range(2, 64).description(""))
        ->type_name("2..64")
        ->capture_default_str()
        ->group("Threads");
    app.add_option("--workers", options.workers, "threads that serve requests")
        ->check(CLI::Range(1, 256).description(""))
        ->type_name("1..256")
        ->capture_default_str()
        ->group("Threads");
    app.add_option("--priority", options.priority,
                   "realtime priority of the event loops, 0 for none")
        ->check(CLI::Range(0, 99).description(""))
        ->type_name("0..99")
        ->capture_default_str()
        ->group("Threads");
}

void add_files(CLI::App& app, FileOptions& files) {
    app.add_flag("--receive-files", files.receive, "take files from peers")->group("Files");
    app.add_option("--file-port", files.port, "logical port on which files are taken")
        ->check(CLI::Range(int{kLowestPort}, int{kHighestPort}).description(""))
        ->type_name("1..4096")
        ->capture_default_str()
        ->group("Files");
    app.add_option("--spool-dir", files.spoolDir, "where files go, under their own names")
        ->type_name("DIR")
        ->capture_default_str()
        ->group("Files");
    app.add_option("--max-file-size", files.maxFileSize,
                   "bytes of one file; larger ones are refused")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(no_minus)
        ->type_name("N[kb|mb|gb]")
        ->capture_default_str()
        ->group("Files");
    app.add_option("--max-transfers", files.maxTransfers, "files at a time; more are refused")
        ->check(CLI::Range(size_t{1}, size_t{10000}).description(""))
        ->type_name("N")
        ->capture_default_str()
        ->group("Files");
}

}  // namespace

bool parse_address(std::string const& text, Address& address) {
    size_t const colon = text.find(':');
    std::string const host = text.substr(0, colon);
    Address parsed = address;
    if (!host.empty()) {
        if (!is_ipv4(host)) return false;
        parsed.host = host;
    }
    if (colon != std::string::npos) {
        if (!parse_port(text.substr(colon + 1), parsed.port)) return false;
    } else if (host.empty()) {
        return false;
    }
    address = parsed;
    return true;
}

std::optional<int> parse_options(int argc, char const* const* argv, Options& options) {
    CLI::App app(
        "The kyp server: echo on port 100, device identity on 101, components on 102, topics on "
        "103.",
        "kypserver");
    app.set_version_flag("--version", "kypserver " KYP_VERSION);
    add_endpoints(app, options);
    add_threads(app, options);
    add_limits(app, options);
    add_files(app, options.files);
    app.add_option("--quiet-ms", options.quietMs,
                   "milliseconds without a registration before a component gets its first calls")
        ->check(CLI::Range(0, 60000).description(""))
        ->type_name("0..60000")
        ->capture_default_str();
    app.add_flag("--allow-set-id", options.allowSetId, "let a peer change the id of this device");
    app.add_flag("-v,--verbose", options.verbose, "show what the library logs; twice: all of it");
    app.footer(
        "The line \"kypserver ready: ...\" on standard output says that clients can come.\n"
        "SIGTERM and SIGINT end the server.");
    try {
        app.parse(argc, argv);
        if (!options.tcp && !options.domain && !options.udp) {
            throw CLI::ValidationError("kypserver", "no endpoint is left to serve");
        }
    } catch (CLI::ParseError const& error) {
        return app.exit(error);
    }
    return std::nullopt;
}

}  // namespace kypserver
