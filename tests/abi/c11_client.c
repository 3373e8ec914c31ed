/*
 * A client and component in plain C11 on the public headers alone: every record has its size, every
 * entry links and answers. Prints nothing unless something is wrong.
 */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "libkyp/libkyp.h"
#include "libkyp/libkypCmp.h"

static int g_failures = 0;

#define CHECK(condition)                                                    \
    do {                                                                    \
        if (!(condition)) {                                                 \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition); \
            ++g_failures;                                                   \
        }                                                                   \
    } while (0)

static_assert(sizeof(_KypDeviceId) == 6, "six raw bytes");
static_assert(sizeof(_KypDeviceAddr) == 8, "an id and a port");
static_assert(offsetof(_KypDeviceAddr, port) == 6, "without a gap");
static_assert(sizeof(KypTcpConnInfo) == 22, "byte-packed");
static_assert(offsetof(KypTcpConnInfo, event) == 6, "without a gap");
static_assert(offsetof(KypTcpConnInfo, ctx) == 14, "without a gap");
static_assert(sizeof(KypDomainConnInfo) == 16, "two pointers");
static_assert(sizeof(KypIvshmConnInfo) == 24, "natural layout");
static_assert(offsetof(KypIvshmConnInfo, event) == 8, "natural layout");
static_assert(sizeof(_KypDevice) == 544, "ten texts");
static_assert(offsetof(_KypDevice, hostName) == 480, "without a gap");

static_assert(sizeof(tagCmpDrvInfo) == 40, "two words and a name");
static_assert(offsetof(tagCmpDrvInfo, name) == 8, "without a gap");
static_assert(sizeof(CmpConnConfig) == 36, "byte-packed");
static_assert(offsetof(CmpConnConfig, owner) == 4, "without a gap");
static_assert(offsetof(CmpConnConfig, onConnect) == 12, "without a gap");
static_assert(offsetof(CmpConnConfig, onDisconnect) == 20, "without a gap");
static_assert(offsetof(CmpConnConfig, userData) == 28, "without a gap");
static_assert(sizeof(_msg_request) == 27, "byte-packed");
static_assert(offsetof(_msg_request, invokeId) == 3, "without a gap");
static_assert(offsetof(_msg_request, conn) == 19, "without a gap");

static void on_event(_KypDeviceId* deviceId, void* ctx, int event) {
    (void)deviceId;
    (void)event;
    ++*(int*)ctx;
}

static void on_route(unsigned short port, char const* data, unsigned int len, void* ctx) {
    (void)port, (void)data, (void)len, (void)ctx;
}

static void on_topic(unsigned int indexGroup, unsigned int indexOffset, char const* topic,
                     char const* data, unsigned int len, void* ctx) {
    (void)indexGroup, (void)indexOffset, (void)topic, (void)data, (void)len, (void)ctx;
}

static void on_device(_KypDevice device, void* ctx) {
    (void)device;
    ++*(int*)ctx;
}

static void check_start_and_status(void) {
    int major = -1;
    int minor = -1;
    int patch = -1;
    CHECK(libkyp_init() == 0);
    CHECK(libkyp_version(&major, &minor, &patch) == 0);
    CHECK(major == 0 && minor == 3 && patch == 1);
    CHECK(libkyp_get_errno() == KYP_OK);
    CHECK(strcmp(libkyp_strerror(KYP_ERR_HANDLE), "invaild handler") == 0);
}

static void check_identity(void) {
    _KypDeviceId id;
    _KypDeviceAddr address;
    CHECK(libkyp_makeKypDeviceId("127.0.0.1.2.3", &id) == 0);
    CHECK(id.bytes[0] == 127 && id.bytes[5] == 3);
    CHECK(libkyp_makeKypDeviceAddr("127.0.0.1.2.3", 600, &address) == 0);
    CHECK(address.port == 600);
    CHECK(libkyp_getLocalKypDeviceId(&id) == 0);
    CHECK(libkyp_getRemoteKypDeviceId("127.0.0.1", 1, NULL) == KYP_ERR_INPUT_PARAM);
    CHECK(libkyp_setRemoteKypDeviceId("127.0.0.1", NULL, 1) == KYP_ERR_INPUT_PARAM);
}

/* Nobody listens: the handles are good all the same. */
static void check_connections(void) {
    _KypDeviceId id = {{127, 0, 0, 1, 1, 1}};
    int events = 0;
    KypTcpConnInfo info = {{{127, 0, 0, 1, 1, 1}}, on_event, &events};
    void* conn = libkyp_createInstanceEx(&id, KYP_CONN_TCP, 100, on_event, &events);
    CHECK(conn != NULL);
    CHECK(events >= 2);
    CHECK(libkyp_releaseInstance(conn) == KYP_ERR_HANDLE);

    conn = libkyp_createInstanceV2(KYP_CONN_TCP, &info, (int)sizeof info, 100);
    CHECK(conn != NULL);
    CHECK(libkyp_loop_stop(conn) == 0);
    CHECK(libkyp_reconnect_delay_set(conn, 60) == 0);
    CHECK(libkyp_loop_start(conn) == 0);
    CHECK(libkyp_destory() == 0);
    CHECK(libkyp_reconnect(conn, 50) == 0);
    CHECK(libkyp_get_errno() == KYP_ERR_HANDLE);
}

static void check_messages(void) {
    void* conn = libkyp_createInstance(NULL, KYP_CONN_DOMAIN);
    unsigned short port = 0;
    char answer[8];
    CHECK(conn != NULL);
    CHECK(libkyp_sync_recv(conn, &port, answer, (int)sizeof answer, 1) == -1);
    CHECK(libkyp_get_errno() == KYP_ERR_NO_REQUEST);
    CHECK(libkyp_sync_send(conn, 600, 1, 2, NULL, 0, 1) == -1);
    CHECK(libkyp_get_errno() == KYP_ERR_DISCONNECTED);
    CHECK(libkyp__registerRouterEvent(conn, 600, on_route, NULL) == 0);
    CHECK(libkyp__unregisterRouterEvent(conn, 600) == 0);
    CHECK(libkyp_publish(conn, 1, 2, "topic", NULL, 0) == KYP_ERR_DISCONNECTED);
    CHECK(libkyp_subscribe(conn, "topic", on_topic, NULL) == KYP_ERR_DISCONNECTED);
    CHECK(libkyp_unsubscribe(conn, "topic") == KYP_ERR_DISCONNECTED);
    CHECK(libkyp_destory() == 0);
}

/* Nobody listens: requests are not sent, and say so. */
static void check_simple_requests(void) {
    _KypDeviceId id;
    char answer[8];
    unsigned int size = 99;
    CHECK(KypInit() == 0);
    CHECK(KypGetLocalDeviceId(&id) == 0);
    CHECK(KypGetRemoteDeviceId("127.0.0.1", NULL, 1) == KYP_ERR_INPUT_PARAM);
    CHECK(KypMakeDeviceId("127.0.0.1.1.1", &id) == 0);
    CHECK(KypSyncReadReq(id, 600, 1, 2, sizeof answer, answer, &size, 1) == -1);
    CHECK(libkyp_get_errno() == KYP_ERR_DISCONNECTED);
    CHECK(size == 0);
    CHECK(KypSyncWriteReq(id, 600, 1, 2, 2, (void*)"AB", 1) == -1);
    CHECK(KypSyncReadWriteReq(id, 600, 1, 2, sizeof answer, answer, 2, (void*)"AB", &size, 1) ==
          -1);
    CHECK(KypSyncReadDeviceInfo() == 0);
    CHECK(libkyp_destory() == 0);
}

static int on_progress(_KypDeviceId id, int transferId, float progress, int error, int state,
                       void* user) {
    (void)id, (void)transferId;
    CHECK(progress == 0 && error == KYP_ERR_OPEN_FILE && state == KYP_FILE_WAITING);
    ++*(int*)user;
    return -1;
}

/* A file that is not there: the first report ends the transfer. */
static void check_file_transfer(void) {
    _KypDeviceAddr address = {{{127, 0, 0, 1, 1, 1}}, 105};
    int reports = 0;
    CHECK(KypFileTransfer(address, 0, 0, "/none", "none", on_progress, &reports) == 0);
    CHECK(reports == 1);
}

/* Nobody answers here. */
static void check_scan(void) {
    static int devices = 0;
    CHECK(libkyp_registerKypScanEvent(on_device, &devices) == 0);
    CHECK(libkyp_startKypScan() == 0);
    CHECK(libkyp_stopKypScan() == 0);
    CHECK(libkyp_registerKypScanEvent(NULL, NULL) == 0);
    CHECK(libkyp_get_errno() == KYP_OK);
}

static void on_request(unsigned short port, char const* data, unsigned int size,
                       _msg_request request, void* ctx) {
    (void)port, (void)data, (void)size, (void)request, (void)ctx;
}

static void on_client(VirtualConn* conn, void* userData) {
    (void)conn, (void)userData;
}

/* Nobody listens: the component comes all the same and is not known to the server. */
static void check_component(void) {
    tagCmpDrvInfo info = {1, 2, "c11-client"};
    _msg_request const nowhere = {1, 9, 1, 0, 0, 0, NULL};
    int err = 0;
    CHECK(libkypcmp_init() == 0);
    CHECK(libkypcmp_register(NULL, NULL, NULL, &err) == NULL);
    CHECK(err == KYP_ERR_INPUT_PARAM);
    void* component = libkypcmp_register(&info, NULL, NULL, &err);
    CHECK(component != NULL);
    CHECK(err == KYP_ERR_SERVER_OFFLINE);
    CmpConnConfig* config = libkypcmp_getconfig(component);
    CHECK(config != NULL && config->mode == 1);
    config->onConnect = on_client;
    config->onDisconnect = on_client;
    CHECK(libkypcmp_addrouter(component, 500, on_request, NULL) == KYP_ERR_PORT_RESERVED);
    CHECK(libkypcmp_addrouter(component, 600, on_request, NULL) == KYP_ERR_DISCONNECTED);
    CHECK(libkypcmp_publish(component, 1, 2, "topic", "AB", 2) == 0);
    CHECK(libkypcmp_get_errno() == KYP_ERR_DISCONNECTED);
    CHECK(libkypcmp_subscribe(component, "topic", on_topic, NULL) == 0);
    CHECK(libkypcmp_unsubscribe(component, "topic") == 0);
    CHECK(libkypcmp_send(600, "AB", 2, nowhere, NULL, &err) == -1);
    CHECK(err == KYP_ERR_INPUT_PARAM);
    CHECK(libkypcmp_loop_stop(component) == 0);
    CHECK(libkypcmp_destory(component) == 0);
    CHECK(libkypcmp_loop_start(component) == KYP_ERR_HANDLE);
    CHECK(strcmp(libkypcmp_strerror(KYP_ERR_COMPONENT_NAME), "component name is illegal") == 0);
    CHECK(libkypcmp_finit() == 0);
}

int main(void) {
    check_start_and_status();
    check_identity();
    check_connections();
    check_messages();
    check_simple_requests();
    check_file_transfer();
    check_scan();
    check_component();
    return g_failures == 0 ? 0 : 1;
}
