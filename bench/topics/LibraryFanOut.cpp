#include <deque>
#include <optional>

#include "common/KypServer.h"
#include "common/LibraryLink.h"
#include "libkyp/libkyp.h"
#include "topics/Deliveries.h"
#include "topics/FanOut.h"

namespace {

constexpr char const* kTopic = "bench/value";

class LibraryGroup : public Group {
public:
    LibraryGroup(Transport transport, Deliveries& deliveries)
        : m_publisher(create_handle(transport)) {
        for (std::size_t i = 0; i < deliveries.subscribers(); ++i) {
            Subscriber& own = m_subscribers.emplace_back(Subscriber{nullptr, i, deliveries});
            own.handle = create_handle(transport);
            if (libkyp_subscribe(own.handle, kTopic, arrived, &own) != 0) fail("libkyp_subscribe");
        }
    }

    ~LibraryGroup() override {
        for (Subscriber const& own : m_subscribers) libkyp_releaseInstance(own.handle);
        libkyp_releaseInstance(m_publisher);
    }

    void publish(std::vector<char> const& payload) override {
        if (libkyp_publish(m_publisher, 0, 0, kTopic, const_cast<char*>(payload.data()),
                           static_cast<unsigned int>(payload.size())) != 0) {
            fail("libkyp_publish");
        }
    }

private:
    struct Subscriber {
        void* handle;
        std::size_t number;
        Deliveries& deliveries;
    };

    static void arrived(unsigned int, unsigned int, char const*, char const* data, unsigned int,
                        void* subscriber) {
        auto const& own = *static_cast<Subscriber const*>(subscriber);
        own.deliveries.arrived(own.number, data);
    }

    void* m_publisher;
    std::deque<Subscriber> m_subscribers;  // stay where they are
};

class LibraryFanOut : public FanOut {
public:
    explicit LibraryFanOut(std::string program) : m_program(std::move(program)) {}

    char const* name() const override { return "libkyp"; }
    void start() override { m_server.emplace(m_program); }

    std::unique_ptr<Group> gather(Transport transport, Deliveries& deliveries) override {
        return std::make_unique<LibraryGroup>(transport, deliveries);
    }

private:
    std::string m_program;
    std::optional<KypServer> m_server;
};

}  // namespace

std::unique_ptr<FanOut> make_library(std::string const& serverProgram) {
    return std::make_unique<LibraryFanOut>(serverProgram);
}
