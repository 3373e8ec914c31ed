// The simple requests: they name a device, need no handle and wait for their answer.
#include <chrono>

#include "kypclient/KypCreateFactory.h"
#include "kypclient/KypRequest.h"
#include "kypcomm/KypStatus.h"
#include "kypcomm/KypWire.h"
#include "libkyp/libkyp.h"

namespace {

constexpr unsigned int kRequestHeads =
    sizeof(_KypHeader) + sizeof(_AoEHeader) + sizeof(AoERequestHeader);

int64_t deadline_in(int timeoutMs) {
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch() +
                                      milliseconds(timeoutMs))
        .count();
}

// A request on the caller's stack. Its frame's block goes with it, also past an exception.
class StackRequest {
public:
    StackRequest(_KypDeviceId const& id, unsigned short port, uint16_t cmd, unsigned int writeLen)
        : m_request{
              true, Frame(writeLen + kRequestHeads, nullptr), id, port, cmd, 0, nullptr, nullptr, 0,
              0} {}
    ~StackRequest() { delete[] m_request.frame.rawData(); }
    StackRequest(StackRequest const&) = delete;
    StackRequest& operator=(StackRequest const&) = delete;

    void fill(unsigned int indexGroup, unsigned int indexOffset, void const* data,
              unsigned int len) {
        if (len > 0) m_request.frame.prepend(data, len);
        AoERequestHeader const address{utils_htonl(indexGroup), utils_htonl(indexOffset)};
        m_request.frame.prepend(&address, sizeof(address));
    }

    void answer_to(void* buf, unsigned int len, unsigned int* recvLen) {
        m_request.buffer = buf;
        m_request.capacity = len;
        m_request.recvLen = recvLen;
    }

    // Waits for the answer. Returns its status, or -1 when the request could not be sent.
    int ask(int timeoutMs) {
        m_request.deadline = deadline_in(timeoutMs);
        // Kept: a request whose slot is still in use gives -1 and leaves the status at 0.
        return utility::instance<CPeerConnMgr>().AddKypRequest(&m_request);
    }

private:
    KypRequest m_request;
};

int refuse_input(unsigned int* recvLen) {
    if (recvLen != nullptr) *recvLen = 0;
    tlsErrno = KYP_ERR_INPUT_PARAM;
    return tlsErrno;
}

}  // namespace

int KypInit() {
    return libkyp_init();
}

int KypGetLocalDeviceId(_KypDeviceId* out) {
    return libkyp_getLocalKypDeviceId(out);
}

int KypGetRemoteDeviceId(char const* host, _KypDeviceId* out, int timeoutMs) {
    return libkyp_getRemoteKypDeviceId(host, timeoutMs, out);
}

int KypMakeDeviceId(char const* text, _KypDeviceId* out) {
    return libkyp_makeKypDeviceId(text, out);
}

int KypSyncReadReq(_KypDeviceId id, unsigned short port, unsigned int indexGroup,
                   unsigned int indexOffset, unsigned int readLen, void* readBuf,
                   unsigned int* recvLen, int timeoutMs) {
    tlsErrno = KYP_OK;
    StackRequest request(id, port, KYP_CMD_READ, 0);
    request.fill(indexGroup, indexOffset, nullptr, 0);
    request.answer_to(readBuf, readLen, recvLen);
    return request.ask(timeoutMs);
}

int KypSyncWriteReq(_KypDeviceId id, unsigned short port, unsigned int indexGroup,
                    unsigned int indexOffset, unsigned int writeLen, void* writeBuf,
                    int timeoutMs) {
    tlsErrno = KYP_OK;
    if (writeBuf == nullptr && writeLen > 0) return refuse_input(nullptr);
    StackRequest request(id, port, KYP_CMD_WRITE, writeLen);
    request.fill(indexGroup, indexOffset, writeBuf, writeLen);
    return request.ask(timeoutMs);
}

int KypSyncReadWriteReq(_KypDeviceId id, unsigned short port, unsigned int indexGroup,
                        unsigned int indexOffset, unsigned int readLen, void* readBuf,
                        unsigned int writeLen, void* writeBuf, unsigned int* recvLen,
                        int timeoutMs) {
    tlsErrno = KYP_OK;
    if (writeBuf == nullptr && writeLen > 0) return refuse_input(recvLen);
    StackRequest request(id, port, KYP_CMD_READ_WRITE, writeLen);
    request.fill(indexGroup, indexOffset, writeBuf, writeLen);
    request.answer_to(readBuf, readLen, recvLen);
    return request.ask(timeoutMs);
}

int KypSyncReadDeviceInfo() {
    // Kept: does nothing, and leaves the thread's status alone too.
    return 0;
}
