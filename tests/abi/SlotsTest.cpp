// The virtual operations of each class: how many there are and which stands in which slot, read
// from the tables of the built library. A program that derives from a class, or calls through one,
// was compiled against these numbers.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>

namespace {

constexpr char const* kPure = "__cxa_pure_virtual";

// The two destructor slots of an abstract class stay empty: it is never a whole object.
constexpr char const* kAbstract = nullptr;

struct ClassSlots {
    char const* vtable;
    std::vector<char const*> slots;
};

void PrintTo(ClassSlots const& row, std::ostream* out) {
    *out << row.vtable;
}

std::vector<ClassSlots> const kClasses = {
    {"_ZTV18IKypPeerConnection",
     {kAbstract, kAbstract, "_ZN18IKypPeerConnection5startEv", "_ZN18IKypPeerConnection4stopEv",
      "_ZN18IKypPeerConnection7connectEi", "_ZN18IKypPeerConnection9reconnectEi",
      "_ZN18IKypPeerConnection11isconnectedEv", "_ZN18IKypPeerConnection10disconnectEv", kPure,
      kPure, kPure, "_ZN18IKypPeerConnection19send_request_packetEt11_KypPayloadi"}},
    {"_ZTV10CTcpclient",
     {"_ZN10CTcpclientD1Ev", "_ZN10CTcpclientD0Ev", "_ZN10CTcpclient5startEv",
      "_ZN10CTcpclient4stopEv", "_ZN10CTcpclient7connectEi", "_ZN10CTcpclient9reconnectEi",
      "_ZN10CTcpclient11isconnectedEv", "_ZN10CTcpclient10disconnectEv",
      "_ZN10CTcpclient8raw_sendEPKcji", "_ZN10CTcpclient8raw_sendER5Framei",
      "_ZN10CTcpclient8raw_recvEPtPcii",
      "_ZN18IKypPeerConnection19send_request_packetEt11_KypPayloadi"}},
    {"_ZTV14CKypScanClient",
     {"_ZN14CKypScanClientD1Ev", "_ZN14CKypScanClientD0Ev", "_ZN14CKypScanClient3svcEv",
      "_ZN14CKypScanClient5startEv", "_ZN14CKypScanClient4stopEv"}},
    {"_ZTV12CIvshmClient",
     {"_ZN12CIvshmClientD1Ev", "_ZN12CIvshmClientD0Ev", "_ZN18IKypPeerConnection5startEv",
      "_ZN18IKypPeerConnection4stopEv", "_ZN12CIvshmClient7connectEi",
      "_ZN12CIvshmClient9reconnectEi", "_ZN12CIvshmClient11isconnectedEv",
      "_ZN12CIvshmClient10disconnectEv", "_ZN12CIvshmClient8raw_sendEPKcji",
      "_ZN12CIvshmClient8raw_sendER5Framei", "_ZN12CIvshmClient8raw_recvEPtPcii",
      "_ZN18IKypPeerConnection19send_request_packetEt11_KypPayloadi"}},
    {"_ZTV7bufpool", {kPure, "_ZN7bufpool7get_capEi"}},
    {"_ZTV14server_bufpool",
     {"_ZN14server_bufpool12init_bufpoolEv", "_ZN14server_bufpool7get_capEi"}},
    {"_ZTV14client_bufpool",
     {"_ZN14client_bufpool12init_bufpoolEv", "_ZN14client_bufpool7get_capEi"}},
    {"_ZTV6Socket",
     {kAbstract, kAbstract, kPure, kPure, "_ZN6Socket12setSocketoptEv",
      "_ZN6Socket16setConnectStatusEb", "_ZN6Socket11isConnectedEv", "_ZN6Socket5readnEPhm",
      "_ZN6Socket5readnEPhii", "_ZN6Socket4readER5Framei", "_ZN6Socket5writeERK5Framei",
      "_ZN6Socket5writeEPKcji"}},
    {"_ZTV9TcpSocket",
     {"_ZN9TcpSocketD1Ev", "_ZN9TcpSocketD0Ev", "_ZN9TcpSocket7ConnectEi",
      "_ZN9TcpSocket8ShutdownEv", "_ZN9TcpSocket12setSocketoptEv", "_ZN6Socket16setConnectStatusEb",
      "_ZN9TcpSocket11isConnectedEv", "_ZN6Socket5readnEPhm", "_ZN6Socket5readnEPhii",
      "_ZN6Socket4readER5Framei", "_ZN6Socket5writeERK5Framei", "_ZN6Socket5writeEPKcji"}},
    {"_ZTV15DomainTcpSocket",
     {"_ZN15DomainTcpSocketD1Ev", "_ZN15DomainTcpSocketD0Ev", "_ZN15DomainTcpSocket7ConnectEi",
      "_ZN15DomainTcpSocket8ShutdownEv", "_ZN15DomainTcpSocket12setSocketoptEv",
      "_ZN6Socket16setConnectStatusEb", "_ZN15DomainTcpSocket11isConnectedEv",
      "_ZN6Socket5readnEPhm", "_ZN6Socket5readnEPhii", "_ZN6Socket4readER5Framei",
      "_ZN6Socket5writeERK5Framei", "_ZN6Socket5writeEPKcji"}},
    {"_ZTV9UdpSocket",
     {"_ZN9UdpSocketD1Ev", "_ZN9UdpSocketD0Ev", "_ZN9UdpSocket7ConnectEi",
      "_ZN9UdpSocket8ShutdownEv", "_ZN6Socket12setSocketoptEv", "_ZN6Socket16setConnectStatusEb",
      "_ZN9UdpSocket11isConnectedEv", "_ZN6Socket5readnEPhm", "_ZN6Socket5readnEPhii",
      "_ZN6Socket4readER5Framei", "_ZN6Socket5writeERK5Framei", "_ZN6Socket5writeEPKcji",
      "_ZN9UdpSocket4readEPvji", "_ZN9UdpSocket5writeEPKvj", "_ZN9UdpSocket5writeERK5Frame"}},
    {"_ZTV9IProtocol",
     {kPure, kPure, "_ZN9IProtocol8getCmdIdEv", "_ZN9IProtocol7getTypeEv",
      "_ZN9IProtocol8getErrIdEv", "_ZN9IProtocol7setTypeEh", "_ZN9IProtocol8setCmdIdEt",
      "_ZN9IProtocol8setErrIdEj"}},
    {"_ZTV19CompRegisterPackage",
     {"_ZN19CompRegisterPackage13serializationEv",
      "_ZN19CompRegisterPackage15deserializationERK7Message", "_ZN9IProtocol8getCmdIdEv",
      "_ZN9IProtocol7getTypeEv", "_ZN9IProtocol8getErrIdEv", "_ZN9IProtocol7setTypeEh",
      "_ZN9IProtocol8setCmdIdEt", "_ZN9IProtocol8setErrIdEj"}},
    {"_ZTV13IObserverConn", {kAbstract, kAbstract, kPure}},
    {"_ZTV11IConnection", {kAbstract, kAbstract, kPure, kPure, kPure, kPure}},
    {"_ZTV17CSocketConnection",
     {"_ZN17CSocketConnectionD1Ev", "_ZN17CSocketConnectionD0Ev",
      "_ZN17CSocketConnection12send_messageEPKci",
      "_ZN17CSocketConnection12send_messageERK10_AoEHeadertPKcii",
      "_ZN17CSocketConnection12send_messageEP4pbufRK10_AoEHeader",
      "_ZN17CSocketConnection6get_fdEv", "_ZN17CSocketConnection12addSendQueueEP10CMsgHeader"}},
    {"_ZTV10ivshm_conn",
     {"_ZN10ivshm_connD1Ev", "_ZN10ivshm_connD0Ev", "_ZN10ivshm_conn12send_messageEPKci",
      "_ZN10ivshm_conn12send_messageERK10_AoEHeadertPKcii",
      "_ZN10ivshm_conn12send_messageEP4pbufRK10_AoEHeader", "_ZN10ivshm_conn6get_fdEv"}},
    {"_ZTV11VirtualConn",
     {"_ZN11VirtualConnD1Ev", "_ZN11VirtualConnD0Ev", "_ZN11VirtualConn12send_messageEPKci",
      "_ZN11VirtualConn12send_messageERK10_AoEHeadertPKcii",
      "_ZN11VirtualConn12send_messageEP4pbufRK10_AoEHeader", "_ZN11VirtualConn6get_fdEv"}},
    {"_ZTV13ISocketServer",
     {"_ZN13ISocketServerD1Ev", "_ZN13ISocketServerD0Ev",
      "_ZN13ISocketServer17sock_event_acceptEP17CSocketConnection",
      "_ZN13ISocketServer25sock_read_request_handlerEP17CSocketConnection",
      "_ZN13ISocketServer26sock_write_request_handlerEP17CSocketConnection",
      "_ZN13ISocketServer21sock_close_connectionEP17CSocketConnection",
      "_ZN13ISocketServer12set_sock_optEi", "_ZN13ISocketServer8sendprocEP17CSocketConnectionPhj"}},
    {"_ZTV9TcpServer",
     {"_ZN9TcpServerD1Ev", "_ZN9TcpServerD0Ev",
      "_ZN9TcpServer17sock_event_acceptEP17CSocketConnection",
      "_ZN13ISocketServer25sock_read_request_handlerEP17CSocketConnection",
      "_ZN13ISocketServer26sock_write_request_handlerEP17CSocketConnection",
      "_ZN13ISocketServer21sock_close_connectionEP17CSocketConnection",
      "_ZN9TcpServer12set_sock_optEi", "_ZN13ISocketServer8sendprocEP17CSocketConnectionPhj"}},
    {"_ZTV15TcpDomainserver",
     {"_ZN15TcpDomainserverD1Ev", "_ZN15TcpDomainserverD0Ev",
      "_ZN15TcpDomainserver17sock_event_acceptEP17CSocketConnection",
      "_ZN13ISocketServer25sock_read_request_handlerEP17CSocketConnection",
      "_ZN13ISocketServer26sock_write_request_handlerEP17CSocketConnection",
      "_ZN13ISocketServer21sock_close_connectionEP17CSocketConnection",
      "_ZN13ISocketServer12set_sock_optEi", "_ZN13ISocketServer8sendprocEP17CSocketConnectionPhj"}},
    {"_ZTV9UdpServer",
     {"_ZN9UdpServerD1Ev", "_ZN9UdpServerD0Ev",
      "_ZN13ISocketServer17sock_event_acceptEP17CSocketConnection",
      "_ZN9UdpServer25sock_read_request_handlerEP17CSocketConnection",
      "_ZN9UdpServer26sock_write_request_handlerEP17CSocketConnection",
      "_ZN13ISocketServer21sock_close_connectionEP17CSocketConnection",
      "_ZN13ISocketServer12set_sock_optEi", "_ZN9UdpServer8sendprocEP17CSocketConnectionPhj"}},
};

class SlotsTest : public ::testing::TestWithParam<ClassSlots> {
protected:
    SlotsTest() : m_library(dlopen("libkyp.so.0", RTLD_LAZY)) {}
    ~SlotsTest() override {
        if (m_library != nullptr) dlclose(m_library);
    }

    void* symbol(char const* name) { return dlsym(m_library, name); }

    void* operation(char const* name) {
        void* const address = symbol(name);
        EXPECT_NE(nullptr, address) << name << " is not exported";
        return address;
    }

    // Bytes of the table by the library's symbol table, 0 without such a symbol.
    static size_t size_of(void* table) {
        Dl_info info;
        ElfW(Sym)* entry = nullptr;
        int const found = dladdr1(table, &info, reinterpret_cast<void**>(&entry), RTLD_DL_SYMENT);
        return found == 0 || entry == nullptr ? 0 : entry->st_size;
    }

    void* m_library;
};

TEST_P(SlotsTest, OperationsStandInTheirSlots) {
    ASSERT_NE(nullptr, m_library) << dlerror();
    auto** const table = static_cast<void**>(symbol(GetParam().vtable));
    ASSERT_NE(nullptr, table) << dlerror();
    // The offset to the top and the type come first.
    EXPECT_EQ((GetParam().slots.size() + 2) * sizeof(void*), size_of(table));

    void** slot = table + 2;
    for (char const* name : GetParam().slots) {
        SCOPED_TRACE(::testing::Message() << "slot " << slot - table - 1);
        EXPECT_EQ(name == kAbstract ? nullptr : operation(name), *slot);
        ++slot;
    }
}

INSTANTIATE_TEST_SUITE_P(Library, SlotsTest, ::testing::ValuesIn(kClasses),
                         [](::testing::TestParamInfo<ClassSlots> const& row) {
                             return std::string(row.param.vtable).substr(4);
                         });

}  // namespace
