#include "kypcomm/KypStatus.h"

namespace {

struct StatusText {
    int code;
    char const* message;
};

// Ascending; the row of code -1 closes it.
constexpr StatusText kStatusTexts[] = {
    {KYP_OK, "No Error"},
    {KYP_CONNECT_SUCCESS, "connect Success"},
    {KYP_CONNECTION_PENDING, "connection pending"},
    {KYP_ERR_NO_CONNECTION, "no connection"},
    {KYP_ERR_CONNECT_REFUSED, "connect refuse"},
    {KYP_ERR_DISCONNECTED, "connection disconnect"},
    {KYP_ERR_CONNECT_TIMEOUT, "connect timeout"},
    {KYP_ERR_HOST_UNREACHABLE, "host unreachable"},
    {KYP_AUTH_CONTINUE, "auth continue"},
    {KYP_ERR_NO_CHANNEL, "No connection channel established"},
    {KYP_ERR_SEND_TIMEOUT, "send timeout"},
    {KYP_ERR_DEVICE_ID, "invaild Kyp Device Id"},
    {KYP_ERR_INDEX_GROUP, "invaild Id Group"},
    {KYP_ERR_INDEX_OFFSET, "invaild Id Offset"},
    {KYP_ERR_PACKET_LENGTH, "Invalid packet length"},
    {KYP_ERR_PORT, "invaild port,port is 1-65535"},
    {KYP_ERR_ROUTE_NOT_REGISTERED, "router port not register"},
    {KYP_ERR_ROUTE_REGISTERED, "router port alaready register"},
    {KYP_ERR_RECV_TIMEOUT, "recv message timeout"},
    {KYP_ERR_COMMAND, "unknown cmdId"},
    {KYP_ERR_TOPIC, "unknown topic"},
    {KYP_ERR_PROTOCOL, "no support protocol"},
    {KYP_ERR_PACKET_TOO_SHORT, "packet length too small"},
    {KYP_ERR_PACKET_TOO_LONG, "packet length too long"},
    {KYP_ERR_SERIALIZE, "serialized error"},
    {KYP_ERR_DESERIALIZE, "deserialized error"},
    {KYP_ERR_HEADER_LENGTH, "kyp header length not match from buff recv"},
    {KYP_ERR_SEND, "send message error"},
    {KYP_ERR_PORT_RESERVED, "port 1~500 system reserved"},
    {KYP_ERR_INVOKE_ID, "message invokeId not match"},
    {KYP_ERR_PORT_RANGE, "Invaild port,range 1~4096"},
    {KYP_ERR_PARAM, "input param illegal"},
    {KYP_ERR_CONN_TYPE, "unknown conntype"},
    {KYP_ERR_IVSHM_NOT_INIT, "ivshm shared memory not init"},
    {KYP_ERR_UNSUPPORTED_CALL, "unsupport function call"},
    {KYP_ERR_NO_REQUEST, "not exist vaild request"},
    {KYP_ERR_IVSHM_GROUP, "invaild ivshm group index"},
    {KYP_ERR_CLIENT_LIMIT, "client num exceeded"},
    {KYP_ERR_CLIENT_ID, "invaild client id"},
    {KYP_ERR_IVSHM_HANDLE, "invaild ivshm send handle"},
    {KYP_ERR_IVSHM_TIMEOUT, "ivshm send timeout"},
    {KYP_ERR_HANDLE, "invaild handler"},
    {KYP_ERR_NETADAPTER, "invaild netadapter"},
    {KYP_ERR_INIT_RESOURCE, "init resource fail"},
    {KYP_ERR_INPUT_PARAM, "invaild input param"},
    {KYP_ERR_SERVER_NOT_RUNNING, "kyp server not runing"},
    {KYP_ERR_REQUEST_COMMAND, "invaild request cmd"},
    {KYP_ERR_BUFFER_LENGTH, "invaild buff length"},
    {KYP_ERR_NO_MEMORY, "no memory"},
    {KYP_ERR_DISK_FULL, "disk is full"},
    {KYP_ERR_CREATE_FILE, "create file fail"},
    {KYP_ERR_OPEN_FILE, "open file fail"},
    {KYP_ERR_FILE_MISSING, "file not exist"},
    {KYP_ERR_READ_FILE, "read file buffer fail"},
    {KYP_ERR_WRITE_FILE, "write file buffer fail"},
    {KYP_ERR_FILE_HANDLE, "invaild file handler"},
    {KYP_ERR_TRANSFER, "transfer fault,network error"},
    {KYP_ERR_COMPONENT_NOT_REGISTERED, "component not register"},
    {KYP_ERR_SERVER_CONNECT_TIMEOUT, "connect kypserver timeout"},
    {KYP_ERR_COMPONENT_NAME_TAKEN,
     "same component name already register,kypserver refuse register"},
    {KYP_ERR_COMPONENT_OFFLINE, "component is offline"},
    {KYP_ERR_COMPONENT_NAME, "component name is illegal"},
    {KYP_ERR_COMPONENT_CHANNEL, "component not build connectchannel"},
    {KYP_ERR_SERVER_OFFLINE, "kyp server is offline"},
    {-1, "Unknown error code"},
};

// The codes that every exchange passes are answered without a search, which starts behind them.
constexpr int kSearchStart = 3;
static_assert(kStatusTexts[kSearchStart].code == KYP_ERR_NO_CONNECTION, "behind code 2");

}  // namespace

__thread int tlsErrno = 0;

char const* LibkypGetErrorString(int code) {
    if (code >= 0 && code < kSearchStart) return kStatusTexts[code].message;

    StatusText const* row = kStatusTexts + kSearchStart;
    while (row->code > 0 && row->code != code) ++row;
    // Either the row of `code` or the closing one, which speaks for all others.
    return row->message;
}
