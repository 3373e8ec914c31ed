#include "kyp/Device.h"

#include <sys/socket.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "kyp/Failure.h"
#include "kypclient/KypCreateFactory.h"
#include "kypclient/KypPeerConn.h"
#include "kypclient/KypTcpclient.h"
#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/Socket.h"
#include "libkyp/libkyp.h"

namespace kyptool {

namespace {

constexpr int kLockTries = 20;
constexpr auto kLockPause = std::chrono::milliseconds(5);
constexpr uint32_t kRequestHeads =
    sizeof(_KypHeader) + sizeof(_AoEHeader) + sizeof(AoERequestHeader);

// All that were opened. Never destroyed, as they are not: a command may be left behind in its
// thread when the process ends.
struct Opened {
    std::mutex mutex;                // guards the others
    std::vector<CDevice*> devices;   // all of them, for good
    std::vector<CTcpclient*> links;  // those that close_all() has to end
};

Opened& opened() {
    static auto* const all = new Opened;
    return *all;
}

void enter_link(CTcpclient* link) {
    std::lock_guard<std::mutex> lock(opened().mutex);
    opened().links.push_back(link);
}

// Has the receive thread find the link at its end, which ends it sooner than its next look around.
// False when a sender has been on the link for all this time.
bool shut(CTcpclient& link) {
    // Nobody closes the descriptor under this lock.
    std::unique_lock<std::mutex> lock(link.m_sendMutex, std::try_to_lock);
    for (int i = 0; i < kLockTries && !lock.owns_lock(); ++i) {
        std::this_thread::sleep_for(kLockPause);
        (void)lock.try_lock();
    }
    if (!lock.owns_lock()) return false;
    ::shutdown(link.m_socket->m_fd, SHUT_RDWR);
    return true;
}

// A link that is down has nothing to end, and its thread may be at a new attempt for a while.
void close_link(CTcpclient& link) {
    link.set_reconnect_event(0, false);
    if (!link.isconnected() || !shut(link)) return;
    (void)link.stop();
    link.disconnect();
}

// A request as the library's blocking way takes it. The block of the frame is deleted by hand.
class LibraryRequest {
public:
    LibraryRequest(Request const& request, Duration timeout)
        : m_request{true,
                    Frame(static_cast<uint32_t>(request.data.size()) + kRequestHeads, nullptr),
                    {},
                    request.port,
                    request.cmd,
                    0,
                    nullptr,
                    nullptr,
                    0,
                    deadline_in(timeout)} {
        if (!request.data.empty()) {
            m_request.frame.prepend(request.data.data(),
                                    static_cast<uint32_t>(request.data.size()));
        }
        AoERequestHeader const address{utils_htonl(request.indexGroup),
                                       utils_htonl(request.indexOffset)};
        m_request.frame.prepend(&address, sizeof address);
    }
    ~LibraryRequest() { delete[] m_request.frame.rawData(); }
    LibraryRequest(LibraryRequest const&) = delete;
    LibraryRequest& operator=(LibraryRequest const&) = delete;

    KypRequest* get(char* buffer, uint32_t room, uint32_t* size) {
        m_request.buffer = buffer;
        m_request.capacity = room;
        m_request.recvLen = size;
        return &m_request;
    }

private:
    static int64_t deadline_in(Duration timeout) {
        auto const end = std::chrono::steady_clock::now().time_since_epoch() + timeout;
        return std::chrono::duration_cast<std::chrono::nanoseconds>(end).count();
    }

    KypRequest m_request;
};

// The library takes a server's path for a format.
std::string as_format(std::string const& path) {
    std::string format;
    for (char const c : path) {
        format += c;
        if (c == '%') format += c;
    }
    return format;
}

// Room for the longest answer. Its pages are touched as they are needed.
char* answer_room() {
    thread_local std::unique_ptr<char[]> const room(new char[kMaxMsgLen]);
    return room.get();
}

}  // namespace

CDevice::CDevice(Observer observer) : m_conn(nullptr), m_observer(std::move(observer)) {}

CDevice& CDevice::open(Target const& target, Duration timeout, WhenDown whenDown,
                       Observer observer) {
    auto* const device = new CDevice(std::move(observer));
    {
        std::lock_guard<std::mutex> lock(opened().mutex);
        opened().devices.push_back(device);
    }
    bool const connected = target.isLocal ? device->connect_local(target, timeout)
                                          : device->connect_device(target, timeout);
    if (connected || (whenDown == GO_ON_WHEN_DOWN && device->m_conn != nullptr)) return *device;
    if (target.isLocal) {
        throw unreachable("no server at " + printable(target.path), KYP_ERR_SERVER_NOT_RUNNING);
    }
    throw unreachable(place_of(target) + " cannot be reached", KYP_ERR_CONNECT_TIMEOUT);
}

void CDevice::close_all() {
    std::lock_guard<std::mutex> lock(opened().mutex);
    for (CTcpclient* link : opened().links) close_link(*link);
    opened().links.clear();
}

bool CDevice::connect_device(Target const& target, Duration timeout) {
    utility::instance<CRouterTable>().AddDeviceId2RouterTable(target.id, target.host);
    _KypDeviceId id = target.id;
    void* const made =
        libkyp_createInstanceEx(&id, KYP_CONN_TCP, milliseconds_of(timeout), on_event, this);
    m_conn = static_cast<CTcpclient*>(static_cast<IKypPeerConnection*>(made));
    enter_link(m_conn);
    return m_conn->isconnected();
}

// The C interface knows the usual path alone, and its wait has no end while a server does not
// accept. So the connection is made here, on a thread that may be left behind.
bool CDevice::connect_local(Target const& target, Duration timeout) {
    auto* const conn = new CTcpclient({}, "hostname=" + as_format(target.path), true);
    conn->register_connevent(on_event, this);
    auto attempt = std::make_shared<std::promise<void>>();
    std::future<void> ended = attempt->get_future();
    std::thread([conn, attempt, timeout] {
        (void)conn->connect(milliseconds_of(timeout));
        attempt->set_value();
    }).detach();
    if (ended.wait_for(timeout) != std::future_status::ready) return false;

    (void)conn->start();
    utility::instance<CPeerConnMgr>().AddPeerConnection(conn);
    m_conn = conn;
    enter_link(m_conn);
    return m_conn->isconnected();
}

Answer CDevice::exchange(Request const& request, Duration timeout) {
    Answer answer;
    uint32_t size = 0;
    answer.status = exchange(request, timeout, answer_room(), kMaxMsgLen, &size, &answer.wasSent);
    answer.payload.assign(answer_room(), size);
    return answer;
}

int CDevice::exchange(Request const& request, Duration timeout, char* buffer, uint32_t room,
                      uint32_t* size, bool* wasSent) {
    LibraryRequest library(request, timeout);
    tlsErrno = KYP_OK;
    *size = 0;
    int const status = m_conn->AddKypRequest(library.get(buffer, room, size));
    *wasSent = status != -1;
    if (*wasSent) return status;
    // A link that took a part in time and no more leaves no reason.
    return tlsErrno != KYP_OK ? tlsErrno : int{KYP_ERR_SEND_TIMEOUT};
}

std::string CDevice::ask(Request const& request, Duration timeout, std::string const& what) {
    Answer answer = exchange(request, timeout);
    if (!answer.wasSent) throw unreachable(what, answer.status);
    if (answer.status != KYP_OK) throw no_answer_or_refused(what, answer.status);
    return std::move(answer.payload);
}

void* CDevice::handle() const {
    return static_cast<IKypPeerConnection*>(m_conn);
}

void CDevice::on_event(_KypDeviceId*, void* self, int event) {
    auto* const device = static_cast<CDevice*>(self);
    if (device->m_observer) device->m_observer(event);
}

std::string port_of(uint16_t port, Target const& target) {
    return "port " + std::to_string(port) + " of " + printable(target.text);
}

}  // namespace kyptool
