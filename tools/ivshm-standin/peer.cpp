// Plays another virtual machine over the stand-in: its clients ask a port of the component that
// serves a group, and its answers are shown.
//   kyp_ivshm_peer [--group G] [--clients N] [--count C] PORT [TEXT]
// Ends with 0 when every client had its answers, 1 when one came with a status, 3 when none came.
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ivshmAPI.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/ivshm/ShmHeader.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kClientSide = 1;
constexpr long kTimeoutMs = 5000;
constexpr size_t kRoom = 8 << 20;

struct Options {
    int group = 0;
    uint32_t clients = 1;
    uint32_t count = 1;  // requests of each client
    uint16_t port = 0;
    std::string text;
};

// A request as it stands in shared memory, in front of its payload.
struct __attribute__((packed)) Request {
    ShmHeader shm;
    _KypHeader kyp;
    _AoEHeader aoe;
    AoERequestHeader address;
};

struct __attribute__((packed)) Answer {
    ShmHeader shm;
    _KypHeader kyp;
    _AoEHeader aoe;
};

[[noreturn]] void give_up(int code, char const* what) {
    fprintf(stderr, "kyp_ivshm_peer: %s\n", what);
    exit(code);
}

std::vector<char> request_of(Options const& options, uint32_t client, uint32_t invokeId) {
    auto const size = static_cast<uint32_t>(options.text.size());
    auto const frame = static_cast<uint32_t>(sizeof(Request) - sizeof(ShmHeader)) + size;
    Request const head{
        {kShmMagic, kShmType, 0, kShmVersion, 0, client, static_cast<uint32_t>(getpid()), frame},
        {0, kKypVersion, options.port, frame - static_cast<uint32_t>(sizeof(_KypHeader))},
        {0, __builtin_bswap32(invokeId), __builtin_bswap16(KYP_CMD_READ_WRITE), 0,
         KYP_STATE_REQUEST},
        {0, 0}};
    std::vector<char> message(sizeof head + size);
    memcpy(message.data(), &head, sizeof head);
    if (size != 0) memcpy(message.data() + sizeof head, options.text.data(), size);
    return message;
}

class Peer {
public:
    explicit Peer(Options const& options)
        : m_options(options),
          m_read(open_topic(2 * options.group)),
          m_write(open_topic(2 * options.group + 1)),
          m_buffer(kRoom) {}
    ~Peer() {
        libivshmapi_uninit(m_read);
        libivshmapi_uninit(m_write);
    }
    Peer(Peer const&) = delete;
    Peer& operator=(Peer const&) = delete;

    // One request of each client, and all their answers. Returns the highest status among them.
    uint32_t ask_once(bool show) {
        ++m_invokeId;
        for (uint32_t client = 1; client <= m_options.clients; ++client) {
            std::vector<char> message = request_of(m_options, client, m_invokeId);
            if (!libivshmapi_send(m_write, message.size(), message.data(), kTimeoutMs)) {
                give_up(3, "the topic stays full: nobody reads it");
            }
        }
        uint32_t worst = 0;
        for (uint32_t left = m_options.clients; left > 0;) {
            unsigned long size = m_buffer.size();
            if (!libivshmapi_recv(m_read, &size, m_buffer.data(), kTimeoutMs)) {
                give_up(3, "no answer");
            }
            // Somebody before us may have left without its answers.
            if (!is_answer(size)) continue;
            worst = std::max(worst, take_answer(size, show));
            --left;
        }
        return worst;
    }

private:
    static void* open_topic(int topic) {
        void* const handle = libivshmapi_init(topic, kClientSide);
        if (handle == nullptr) exit(3);
        return handle;
    }

    bool is_answer(unsigned long size) const {
        Answer head{};
        if (size < sizeof head) return false;
        memcpy(&head, m_buffer.data(), sizeof head);
        // Not by the process id: a server goes on naming the first process that had the client id.
        return head.aoe.invokeId == __builtin_bswap32(m_invokeId);
    }

    uint32_t take_answer(unsigned long size, bool show) const {
        Answer head{};
        memcpy(&head, m_buffer.data(), sizeof head);
        uint32_t const status = __builtin_bswap32(head.aoe.error);
        if (!show) return status;
        uint32_t const client = head.shm.clientId;
        if (status != 0) {
            printf("client %u: status 0x%x\n", client, status);
        } else {
            printf("client %u: %.*s\n", client, static_cast<int>(size - sizeof head),
                   m_buffer.data() + sizeof head);
        }
        return status;
    }

    Options const m_options;
    void* const m_read;
    void* const m_write;
    std::vector<char> m_buffer;
    uint32_t m_invokeId = static_cast<uint32_t>(getpid()) << 12;  // unlike our predecessors'
};

uint32_t number(char const* text, uint32_t lowest, uint32_t highest) {
    char* end = nullptr;
    unsigned long const value = strtoul(text, &end, 10);
    if (*end != '\0' || value < lowest || value > highest) {
        give_up(2, ("not between " + std::to_string(lowest) + " and " + std::to_string(highest) +
                    ": " + text)
                       .c_str());
    }
    return static_cast<uint32_t>(value);
}

Options read_options(int argc, char** argv) {
    option const known[] = {{"group", required_argument, nullptr, 'g'},
                            {"clients", required_argument, nullptr, 'n'},
                            {"count", required_argument, nullptr, 'c'},
                            {nullptr, 0, nullptr, 0}};
    Options options;
    for (int which; (which = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        if (which == 'g') {
            options.group = static_cast<int>(number(optarg, 0, kShmGroups - 1));
        } else if (which == 'n') {
            options.clients = number(optarg, 1, kShmClients);
        } else if (which == 'c') {
            options.count = number(optarg, 1, 100000000);
        } else {
            exit(2);
        }
    }
    if (optind >= argc) {
        give_up(2, "usage: kyp_ivshm_peer [--group G] [--clients N] [--count C] PORT [TEXT]");
    }
    options.port = static_cast<uint16_t>(number(argv[optind], 0, UINT16_MAX));
    if (optind + 1 < argc) options.text = argv[optind + 1];
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    Options const options = read_options(argc, argv);
    Peer peer(options);
    if (options.count == 1) return peer.ask_once(true) == 0 ? 0 : 1;

    uint32_t worst = 0;
    std::vector<double> times;
    times.reserve(options.count);
    for (uint32_t i = 0; i < options.count; ++i) {
        auto const begin = Clock::now();
        worst = std::max(worst, peer.ask_once(false));
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
        if (i > 0) continue;
        printf("the first answers are here\n");
        fflush(stdout);
    }
    std::sort(times.begin(), times.end());
    printf("%u clients, %u requests each, all answered; %.1f us for one of each (median)\n",
           options.clients, options.count, times[times.size() / 2]);
    return worst == 0 ? 0 : 1;
}
