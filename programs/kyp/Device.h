// A connection to the target and the exchanges on it.
//
// Owns:     the library's connection.
// Threads:  any, several at once. The observer is called on the receive thread, or on the one that
//           opens.
// Lifetime: from open() to the end of the process; close_all() ends the links. The library's own
// end
//           of a connection takes up to half a second, which nobody wants to wait for behind a
//           command.
#ifndef KYP_PROGRAMS_KYP_DEVICE_H
#define KYP_PROGRAMS_KYP_DEVICE_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "kyp/Target.h"
#include "kyp/Values.h"
#include "kypcomm/KypWire.h"

class CTcpclient;

namespace kyptool {

struct Request {
    uint16_t port = 0;
    uint16_t cmd = KYP_CMD_READ_WRITE;
    uint32_t indexGroup = 0;
    uint32_t indexOffset = 0;
    std::string_view data;  // valid during the exchange
};

struct Answer {
    bool wasSent = false;  // false: the link did not take the request
    int status = 0;        // 0, the peer's code, KYP_ERR_RECV_TIMEOUT, or why it was not sent
    std::string payload;
};

class CDevice {
public:
    // Called with each change of the link: a KypStatus as connection callbacks get it.
    using Observer = std::function<void(int event)>;
    enum WhenDown { FAIL_WHEN_DOWN, GO_ON_WHEN_DOWN };

    // Connects to `target` within `timeout`. A target that is not there throws Failure, or gives a
    // device whose connection goes on trying.
    static CDevice& open(Target const& target, Duration timeout, WhenDown whenDown = FAIL_WHEN_DOWN,
                         Observer observer = nullptr);

    // Ends every link. Nothing is asked of a device any more.
    static void close_all();

    CDevice(CDevice const&) = delete;
    CDevice& operator=(CDevice const&) = delete;

    // Sends a request and waits for its answer.
    Answer exchange(Request const& request, Duration timeout);

    // The same into a buffer; *size receives the payload's size, which may be more than `room`.
    // *wasSent as in Answer; the status is returned.
    int exchange(Request const& request, Duration timeout, char* buffer, uint32_t room,
                 uint32_t* size, bool* wasSent);

    // The same, and whatever is not a good answer throws Failure, which `what` names.
    std::string ask(Request const& request, Duration timeout, std::string const& what);

    // For the functions of the C interface.
    void* handle() const;

private:
    explicit CDevice(Observer observer);
    ~CDevice() = default;
    static void on_event(_KypDeviceId* id, void* self, int event);
    bool connect_device(Target const& target, Duration timeout);
    bool connect_local(Target const& target, Duration timeout);

    CTcpclient* m_conn;  // the library's
    Observer m_observer;
};

// "port 600 of 192.168.1.10": how messages name what was asked.
std::string port_of(uint16_t port, Target const& target);

}  // namespace kyptool

#endif
