// The layout of every class and record that a program shares with the library: total sizes, and the
// place and size of each field. The numbers are counted from the field tables, not read off a
// compiler, so a field that moves, grows or changes places with another does not compile.
//
// They hold for x86-64 Linux with libstdc++, whose building blocks come first.
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "compmodule/CmpSysParamConf.h"
#include "compmodule/business_data_layer.h"
#include "compmodule/comp_init_sys.h"
#include "compmodule/comp_module.h"
#include "compmodule/comp_module_mgr.h"
#include "compmodule/comp_virtual_conn.h"
#include "compmodule/ivshm_svr_group.h"
#include "compmodule/net_channel.h"
#include "kypclient/CFileThread.h"
#include "kypclient/CFileTransfer.h"
#include "kypclient/IvshmGroup.h"
#include "kypclient/Ivshmclient.h"
#include "kypclient/KypCreateFactory.h"
#include "kypclient/KypPeerConn.h"
#include "kypclient/KypReqManager.h"
#include "kypclient/KypRequest.h"
#include "kypclient/KypScanClient.h"
#include "kypclient/KypTcpclient.h"
#include "kypclient/msgrouter/MsgRouter.h"
#include "kypclient/routetable/RouterTable.h"
#include "kypcomm/Adapter.h"
#include "kypcomm/CScanAdapter.h"
#include "kypcomm/DomainTcpSocket.h"
#include "kypcomm/Frame.h"
#include "kypcomm/KypCmpTypes.h"
#include "kypcomm/KypConnInfo.h"
#include "kypcomm/KypDLL.h"
#include "kypcomm/KypDeviceIdGenerator.h"
#include "kypcomm/KypLibInit.h"
#include "kypcomm/KypMsgRequest.h"
#include "kypcomm/KypScanInfo.h"
#include "kypcomm/KypTypes.h"
#include "kypcomm/KypWire.h"
#include "kypcomm/Socket.h"
#include "kypcomm/TcpSocket.h"
#include "kypcomm/UdpSocket.h"
#include "kypcomm/filesys/CFile.h"
#include "kypcomm/ivshm/IvshmExtFunDef.h"
#include "kypcomm/ivshm/ShmHeader.h"
#include "kypcomm/ivshm/VClient.h"
#include "kypcomm/pbuf/CMsgHeader.h"
#include "kypcomm/pbuf/PeerBuffer.h"
#include "kypcomm/pbuf/RecvBuf.h"
#include "kypcomm/pbuf/SendBuf.h"
#include "kypcomm/pbuf/pbuf.h"
#include "kypcomm/pbuf/pbufpool.h"
#include "kypcomm/protocol/CompRegisterPackage.h"
#include "kypcomm/protocol/FilePacket.h"
#include "kypcomm/protocol/IProtocol.h"
#include "kypcomm/protocol/Message.h"
#include "kypcomm/protocol/TopicProtocol.h"
#include "kypcore/Diagnostics.h"
#include "kypcore/EventLoop.h"
#include "kypcore/IConnection.h"
#include "kypcore/ISocketServer.h"
#include "kypcore/SockConnPool.h"
#include "kypcore/SocketConnection.h"
#include "kypcore/TcpDomainServer.h"
#include "kypcore/TcpServer.h"
#include "kypcore/ThreadPool.h"
#include "kypcore/UdpServer.h"
#include "kypcore/router/RouteManage.h"
#include "utils/CCodingConv.h"
#include "utils/CFileHelper.h"
#include "utils/CStringHelper.h"
#include "utils/CTimeValue.h"
#include "utils/CTimestamp.h"
#include "utils/IniFile.h"
#include "utils/MD5.h"
#include "utils/RingBuffer.h"
#include "utils/Singleton.h"
#include "utils/comm.h"
#include "utils/json/Json.h"
#include "utils/json/Parser.h"
#include "utils/xml/Document.h"
#include "utils/xml/Element.h"

#define KYP_SIZE(type, size) static_assert(sizeof(type) == (size), #type " has another size")

#define KYP_FIELD(type, field, offset, size)                                          \
    static_assert(offsetof(type, field) == (offset), #type "::" #field " has moved"); \
    static_assert(sizeof(std::declval<type&>().field) == (size),                      \
                  #type "::" #field " has another size")

// ---- the building blocks
static_assert(sizeof(void*) == 8 && sizeof(long) == 8, "LP64");
KYP_SIZE(std::string, 32);
KYP_SIZE(std::vector<int>, 24);
KYP_SIZE(std::list<int>, 24);
KYP_SIZE(std::set<int>, 48);
using IntMap = std::map<int, int>;
KYP_SIZE(IntMap, 48);
using IntHashMap = std::unordered_map<int, int>;
KYP_SIZE(IntHashMap, 56);
KYP_SIZE(std::shared_ptr<int>, 16);
KYP_SIZE(std::thread, 8);
KYP_SIZE(std::condition_variable, 48);
KYP_SIZE(std::mutex, 40);
KYP_SIZE(std::atomic<bool>, 1);
KYP_SIZE(std::atomic<int>, 4);

// ---- utils
KYP_SIZE(CTimestamp, 8);
KYP_FIELD(CTimestamp, m_nanoseconds, 0, 8);

KYP_SIZE(CTimeValue, 8);
KYP_FIELD(CTimeValue, m_nanoseconds, 0, 8);

KYP_SIZE(MD5, 16);
KYP_FIELD(MD5, m_digest, 0, 16);

KYP_SIZE(MD5::md5_context, 88);
KYP_FIELD(MD5::md5_context, bits, 0, 8);
KYP_FIELD(MD5::md5_context, state, 8, 16);
KYP_FIELD(MD5::md5_context, buffer, 24, 64);

KYP_SIZE(ringbuffer_s, 24);
KYP_FIELD(ringbuffer_s, size, 0, 4);
KYP_FIELD(ringbuffer_s, tail, 4, 4);
KYP_FIELD(ringbuffer_s, head, 8, 4);
KYP_FIELD(ringbuffer_s, buffer, 16, 8);

KYP_SIZE(libkyp::xml::Element, 136);
KYP_FIELD(libkyp::xml::Element, m_name, 0, 32);
KYP_FIELD(libkyp::xml::Element, m_text, 32, 32);
KYP_FIELD(libkyp::xml::Element, m_children, 64, 24);
KYP_FIELD(libkyp::xml::Element, m_attrs, 88, 48);

KYP_SIZE(libkyp::xml::Document, 40);
KYP_FIELD(libkyp::xml::Document, m_text, 0, 32);
KYP_FIELD(libkyp::xml::Document, m_position, 32, 8);

KYP_SIZE(CComm, 1);
KYP_SIZE(CStringHelper, 1);
KYP_SIZE(CFileHelper, 1);
KYP_SIZE(CCodingConv, 1);

static_assert(sizeof(libkyp::json::Json::Type) == 4, "Type has 32 bits");
KYP_SIZE(libkyp::json::Json, 128);
KYP_FIELD(libkyp::json::Json, m_type, 0, 4);
KYP_FIELD(libkyp::json::Json, m_int, 4, 4);
KYP_FIELD(libkyp::json::Json, m_double, 8, 8);
KYP_FIELD(libkyp::json::Json, m_bool, 16, 1);
KYP_FIELD(libkyp::json::Json, m_string, 24, 32);
KYP_FIELD(libkyp::json::Json, m_array, 56, 24);
KYP_FIELD(libkyp::json::Json, m_object, 80, 48);

KYP_SIZE(libkyp::json::Parser, 40);
KYP_FIELD(libkyp::json::Parser, m_str, 0, 32);
KYP_FIELD(libkyp::json::Parser, m_idx, 32, 8);

KYP_SIZE(utility::IniFile, 80);
KYP_FIELD(utility::IniFile, fileName, 0, 32);
KYP_FIELD(utility::IniFile, sections, 32, 48);

// ---- kypcomm, records
KYP_SIZE(_KypHeader, 8);
KYP_FIELD(_KypHeader, reserved, 0, 1);
KYP_FIELD(_KypHeader, version, 1, 1);
KYP_FIELD(_KypHeader, port, 2, 2);
KYP_FIELD(_KypHeader, nMsgLen, 4, 4);

KYP_SIZE(_AoEHeader, 13);
KYP_FIELD(_AoEHeader, error, 0, 4);
KYP_FIELD(_AoEHeader, invokeId, 4, 4);
KYP_FIELD(_AoEHeader, cmd, 8, 2);
KYP_FIELD(_AoEHeader, reserved, 10, 2);
KYP_FIELD(_AoEHeader, state, 12, 1);

KYP_SIZE(AoERequestHeader, 8);
KYP_FIELD(AoERequestHeader, indexGroup, 0, 4);
KYP_FIELD(AoERequestHeader, indexOffset, 4, 4);

KYP_SIZE(_KypforwardHeader, 13);
KYP_FIELD(_KypforwardHeader, reserved, 0, 1);
KYP_FIELD(_KypforwardHeader, event, 1, 4);
KYP_FIELD(_KypforwardHeader, clientFd, 5, 2);
KYP_FIELD(_KypforwardHeader, replyFd, 7, 2);
KYP_FIELD(_KypforwardHeader, replyInvoke, 9, 4);

KYP_SIZE(_KypPayload, 22);
KYP_FIELD(_KypPayload, cmd, 0, 2);
KYP_FIELD(_KypPayload, indexGroup, 2, 4);
KYP_FIELD(_KypPayload, indexOffset, 6, 4);
KYP_FIELD(_KypPayload, length, 10, 4);
KYP_FIELD(_KypPayload, data, 14, 8);

KYP_SIZE(_KypScanCommand, 9);
KYP_FIELD(_KypScanCommand, command, 0, 1);
KYP_FIELD(_KypScanCommand, status, 1, 4);
KYP_FIELD(_KypScanCommand, time, 5, 4);

KYP_SIZE(_KypDevice, 544);
KYP_FIELD(_KypDevice, ipAddr, 0, 32);
KYP_FIELD(_KypDevice, macAddr, 32, 32);
KYP_FIELD(_KypDevice, serialNo, 64, 32);
KYP_FIELD(_KypDevice, sn, 96, 32);
KYP_FIELD(_KypDevice, kypDeviceId, 128, 32);
KYP_FIELD(_KypDevice, kypVersion, 160, 32);
KYP_FIELD(_KypDevice, rteVersion, 192, 32);
KYP_FIELD(_KypDevice, velaosVersion, 224, 256);
KYP_FIELD(_KypDevice, hostName, 480, 32);
KYP_FIELD(_KypDevice, reserved, 512, 32);

KYP_SIZE(_KypDeviceId, 6);
KYP_FIELD(_KypDeviceId, bytes, 0, 6);

KYP_SIZE(_KypDeviceAddr, 8);
KYP_FIELD(_KypDeviceAddr, deviceId, 0, 6);
KYP_FIELD(_KypDeviceAddr, port, 6, 2);

KYP_SIZE(KypTcpConnInfo, 22);
KYP_FIELD(KypTcpConnInfo, deviceId, 0, 6);
KYP_FIELD(KypTcpConnInfo, event, 6, 8);
KYP_FIELD(KypTcpConnInfo, ctx, 14, 8);

KYP_SIZE(KypDomainConnInfo, 16);
KYP_FIELD(KypDomainConnInfo, event, 0, 8);
KYP_FIELD(KypDomainConnInfo, ctx, 8, 8);

KYP_SIZE(KypIvshmConnInfo, 24);
KYP_FIELD(KypIvshmConnInfo, groupIndex, 0, 4);
KYP_FIELD(KypIvshmConnInfo, maxBytes, 4, 4);
KYP_FIELD(KypIvshmConnInfo, event, 8, 8);
KYP_FIELD(KypIvshmConnInfo, ctx, 16, 8);

KYP_SIZE(_msg_request, 27);
KYP_FIELD(_msg_request, version, 0, 1);
KYP_FIELD(_msg_request, cmd, 1, 2);
KYP_FIELD(_msg_request, invokeId, 3, 4);
KYP_FIELD(_msg_request, indexGroup, 7, 4);
KYP_FIELD(_msg_request, indexOffset, 11, 4);
KYP_FIELD(_msg_request, error, 15, 4);
KYP_FIELD(_msg_request, conn, 19, 8);

KYP_SIZE(tagCmpDrvInfo, 40);
KYP_FIELD(tagCmpDrvInfo, drvParam0, 0, 4);
KYP_FIELD(tagCmpDrvInfo, drvParam1, 4, 4);
KYP_FIELD(tagCmpDrvInfo, name, 8, 32);

KYP_SIZE(CmpConnConfig, 36);
KYP_FIELD(CmpConnConfig, mode, 0, 4);
KYP_FIELD(CmpConnConfig, owner, 4, 8);
KYP_FIELD(CmpConnConfig, onConnect, 12, 8);
KYP_FIELD(CmpConnConfig, onDisconnect, 20, 8);
KYP_FIELD(CmpConnConfig, userData, 28, 8);

// ---- kypcomm, buffers and bodies
KYP_SIZE(Frame, 32);
KYP_FIELD(Frame, m_raw, 0, 8);
KYP_FIELD(Frame, m_data, 8, 8);
KYP_FIELD(Frame, m_capacity, 16, 4);
KYP_FIELD(Frame, m_reserved, 20, 4);
KYP_FIELD(Frame, m_size, 24, 4);

KYP_SIZE(pbuf, 32);
KYP_FIELD(pbuf, m_pooled, 0, 1);
KYP_FIELD(pbuf, m_capacity, 4, 4);
KYP_FIELD(pbuf, m_raw, 8, 8);
KYP_FIELD(pbuf, m_data, 16, 8);
KYP_FIELD(pbuf, m_next, 24, 8);

KYP_SIZE(bufpool, 112);
KYP_FIELD(bufpool, m_memLimit, 8, 8);
KYP_FIELD(bufpool, m_totalSize, 16, 8);
KYP_FIELD(bufpool, m_freeLists, 24, 48);
KYP_FIELD(bufpool, m_mutex, 72, 40);

KYP_SIZE(server_bufpool, 112);

KYP_SIZE(client_bufpool, 112);

KYP_SIZE(SendBuf, 8);
KYP_FIELD(SendBuf, m_pbuf, 0, 8);

KYP_SIZE(RecvBuf, 32);
KYP_FIELD(RecvBuf, m_isServer, 0, 1);
KYP_FIELD(RecvBuf, m_begin, 8, 8);
KYP_FIELD(RecvBuf, m_end, 16, 8);
KYP_FIELD(RecvBuf, m_pbuf, 24, 8);

KYP_SIZE(PeerBuffer, 64);
KYP_FIELD(PeerBuffer, m_port, 0, 2);
KYP_FIELD(PeerBuffer, m_readPos, 4, 4);
KYP_FIELD(PeerBuffer, m_length, 8, 4);
KYP_FIELD(PeerBuffer, m_pbuf, 16, 8);
KYP_FIELD(PeerBuffer, m_mutex, 24, 40);

KYP_SIZE(CMsgHeader, 72);
KYP_FIELD(CMsgHeader, m_sendBuf, 0, 8);
KYP_FIELD(CMsgHeader, m_recvBuf, 8, 32);
KYP_FIELD(CMsgHeader, m_nInvokeId, 40, 4);
KYP_FIELD(CMsgHeader, m_enMode, 44, 4);
KYP_FIELD(CMsgHeader, m_enType, 48, 4);
KYP_FIELD(CMsgHeader, m_pConn, 56, 8);
KYP_FIELD(CMsgHeader, m_nSequence, 64, 8);

KYP_SIZE(Message, 16);
KYP_FIELD(Message, length, 0, 8);
KYP_FIELD(Message, data, 8, 8);

KYP_SIZE(IProtocol, 16);
KYP_FIELD(IProtocol, type, 8, 1);
KYP_FIELD(IProtocol, cmdId, 10, 2);
KYP_FIELD(IProtocol, errId, 12, 4);

KYP_SIZE(CompRegisterPackage, 64);
KYP_FIELD(CompRegisterPackage, nameLen, 16, 2);
KYP_FIELD(CompRegisterPackage, drvParam0, 20, 4);
KYP_FIELD(CompRegisterPackage, drvParam1, 24, 4);
KYP_FIELD(CompRegisterPackage, routePort, 28, 4);
KYP_FIELD(CompRegisterPackage, name, 32, 32);

KYP_SIZE(KypFileInfoHead, 15);
KYP_FIELD(KypFileInfoHead, type, 0, 1);
KYP_FIELD(KypFileInfoHead, nameLen, 1, 1);
KYP_FIELD(KypFileInfoHead, pathLen, 2, 1);
KYP_FIELD(KypFileInfoHead, fileSize, 3, 4);
KYP_FIELD(KypFileInfoHead, chunkSize, 7, 4);
KYP_FIELD(KypFileInfoHead, chunkNum, 11, 4);

KYP_SIZE(KypFileChunkHead, 9);
KYP_FIELD(KypFileChunkHead, type, 0, 1);
KYP_FIELD(KypFileChunkHead, seq, 1, 4);
KYP_FIELD(KypFileChunkHead, ssrc, 5, 4);

KYP_SIZE(KypFileAnswer, 9);
KYP_FIELD(KypFileAnswer, type, 0, 1);
KYP_FIELD(KypFileAnswer, number, 1, 4);
KYP_FIELD(KypFileAnswer, status, 5, 4);

KYP_SIZE(TopicProtocol, 128);
KYP_FIELD(TopicProtocol, typeLen, 0, 8);
KYP_FIELD(TopicProtocol, topicLen, 8, 8);
KYP_FIELD(TopicProtocol, dataLen, 16, 8);
KYP_FIELD(TopicProtocol, indexGroup, 24, 4);
KYP_FIELD(TopicProtocol, indexOffset, 28, 4);
KYP_FIELD(TopicProtocol, type, 32, 32);
KYP_FIELD(TopicProtocol, topic, 64, 32);
KYP_FIELD(TopicProtocol, data, 96, 32);

// ---- kypcomm, sockets and identity
KYP_SIZE(Socket, 56);
KYP_FIELD(Socket, m_isDomain, 8, 1);
KYP_FIELD(Socket, m_connected, 9, 1);
KYP_FIELD(Socket, m_port, 10, 2);
KYP_FIELD(Socket, m_type, 12, 4);
KYP_FIELD(Socket, m_fd, 16, 4);
KYP_FIELD(Socket, m_host, 24, 32);

KYP_SIZE(UdpSocket, 56);

KYP_SIZE(TcpSocket, 56);

KYP_SIZE(DomainTcpSocket, 64);
KYP_FIELD(DomainTcpSocket, m_socketName, 56, 8);

KYP_SIZE(Buffer, 1);

KYP_SIZE(KYP_DLL, 8);
KYP_FIELD(KYP_DLL, m_handle, 0, 8);

KYP_SIZE(_NetAdapterObj, 96);
KYP_FIELD(_NetAdapterObj, macAddr, 0, 32);
KYP_FIELD(_NetAdapterObj, adapterName, 32, 32);
KYP_FIELD(_NetAdapterObj, ipAddr, 64, 32);

KYP_SIZE(CScanAdapter, 112);
KYP_FIELD(CScanAdapter, m_useBroadcast, 0, 1);
KYP_FIELD(CScanAdapter, m_multiSocket, 4, 4);
KYP_FIELD(CScanAdapter, m_broadSocket, 8, 4);
KYP_FIELD(CScanAdapter, m_macAddr, 16, 32);
KYP_FIELD(CScanAdapter, m_ipAddr, 48, 32);
KYP_FIELD(CScanAdapter, m_adapterName, 80, 32);

KYP_SIZE(CKypDeviceIdGenerator, 112);
KYP_FIELD(CKypDeviceIdGenerator, m_loaded, 0, 1);
KYP_FIELD(CKypDeviceIdGenerator, m_mutex, 8, 40);
KYP_FIELD(CKypDeviceIdGenerator, m_deviceId, 48, 6);
KYP_FIELD(CKypDeviceIdGenerator, m_adapters, 56, 56);

KYP_SIZE(CKypLibInit, 1);

KYP_SIZE(CFile, 312);
KYP_FIELD(CFile, m_isOpen, 0, 1);
KYP_FIELD(CFile, m_isEof, 1, 1);
KYP_FIELD(CFile, m_stream, 8, 8);
KYP_FIELD(CFile, m_fileSize, 16, 4);
KYP_FIELD(CFile, m_fileName, 24, 32);
KYP_FIELD(CFile, m_fullPath, 56, 256);

// ---- kypcomm, shared memory
KYP_SIZE(ShmHeader, 20);
KYP_FIELD(ShmHeader, magic, 0, 4);
KYP_FIELD(ShmHeader, type, 4, 1);
KYP_FIELD(ShmHeader, reserved, 5, 1);
KYP_FIELD(ShmHeader, version, 6, 1);
KYP_FIELD(ShmHeader, reserved2, 7, 1);
KYP_FIELD(ShmHeader, clientId, 8, 4);
KYP_FIELD(ShmHeader, processId, 12, 4);
KYP_FIELD(ShmHeader, dataSize, 16, 4);

KYP_SIZE(VClient, 48);
KYP_FIELD(VClient, m_id, 0, 2);
KYP_FIELD(VClient, m_mutex, 8, 40);

KYP_SIZE(ExtIvshmApiDef, 72);
KYP_FIELD(ExtIvshmApiDef, m_bLoaded, 0, 1);
KYP_FIELD(ExtIvshmApiDef, m_once, 4, 4);
KYP_FIELD(ExtIvshmApiDef, m_strPath, 8, 32);
KYP_FIELD(ExtIvshmApiDef, m_pfnInit, 40, 8);
KYP_FIELD(ExtIvshmApiDef, m_pfnSend, 48, 8);
KYP_FIELD(ExtIvshmApiDef, m_pfnRecv, 56, 8);
KYP_FIELD(ExtIvshmApiDef, m_pfnUninit, 64, 8);

// ---- kypclient
KYP_SIZE(CMsgPort, 24);
KYP_FIELD(CMsgPort, m_flag, 0, 1);
KYP_FIELD(CMsgPort, m_port, 2, 2);
KYP_FIELD(CMsgPort, m_ctx, 8, 8);
KYP_FIELD(CMsgPort, m_callback, 16, 8);

KYP_SIZE(CMsgRouter, 88);
KYP_FIELD(CMsgRouter, m_mutex, 0, 40);
KYP_FIELD(CMsgRouter, m_ports, 40, 48);

KYP_SIZE(KypRequest, 88);
KYP_FIELD(KypRequest, copyToUser, 0, 1);
KYP_FIELD(KypRequest, frame, 8, 32);
KYP_FIELD(KypRequest, deviceId, 40, 6);
KYP_FIELD(KypRequest, port, 46, 2);
KYP_FIELD(KypRequest, cmd, 48, 2);
KYP_FIELD(KypRequest, capacity, 52, 4);
KYP_FIELD(KypRequest, buffer, 56, 8);
KYP_FIELD(KypRequest, recvLen, 64, 8);
KYP_FIELD(KypRequest, copied, 72, 4);
KYP_FIELD(KypRequest, deadline, 80, 8);

KYP_SIZE(KypResponse, 112);
KYP_FIELD(KypResponse, request, 0, 8);
KYP_FIELD(KypResponse, invokeId, 8, 4);
KYP_FIELD(KypResponse, mutex, 16, 40);
KYP_FIELD(KypResponse, cond, 56, 48);
KYP_FIELD(KypResponse, result, 104, 4);

KYP_SIZE(_libkypSubscribelCallBack, 16);
KYP_FIELD(_libkypSubscribelCallBack, callback, 0, 8);
KYP_FIELD(_libkypSubscribelCallBack, user, 8, 8);

KYP_SIZE(IKypPeerConnection, 56312);
KYP_FIELD(IKypPeerConnection, m_reconnectEnabled, 8, 1);
KYP_FIELD(IKypPeerConnection, m_connEventCtx, 16, 8);
KYP_FIELD(IKypPeerConnection, m_reconnectIntervalSec, 24, 4);
KYP_FIELD(IKypPeerConnection, m_invokeId, 28, 4);
KYP_FIELD(IKypPeerConnection, m_lastInvokeId, 32, 4);
KYP_FIELD(IKypPeerConnection, m_peerBuffer, 40, 64);
KYP_FIELD(IKypPeerConnection, m_param, 104, 32);
KYP_FIELD(IKypPeerConnection, m_router, 136, 88);
KYP_FIELD(IKypPeerConnection, m_pLatestRequest, 224, 8);
KYP_FIELD(IKypPeerConnection, m_pLatestResponse, 232, 8);
KYP_FIELD(IKypPeerConnection, m_connEvent, 240, 8);
KYP_FIELD(IKypPeerConnection, m_deviceId, 248, 6);
KYP_FIELD(IKypPeerConnection, m_reconnectTimer, 256, 8);
KYP_FIELD(IKypPeerConnection, m_topics, 264, 48);
KYP_FIELD(IKypPeerConnection, m_responses, 312, 56000);

KYP_SIZE(CTcpclient, 56416);
KYP_FIELD(CTcpclient, m_isDomain, 56312, 1);
KYP_FIELD(CTcpclient, m_stop, 56313, 1);
KYP_FIELD(CTcpclient, m_port, 56314, 2);
KYP_FIELD(CTcpclient, m_sendMutex, 56320, 40);
KYP_FIELD(CTcpclient, m_thread, 56360, 8);
KYP_FIELD(CTcpclient, m_hostname, 56368, 32);
KYP_FIELD(CTcpclient, m_socket, 56400, 16);

KYP_SIZE(CPeerConnMgr, 136);
KYP_FIELD(CPeerConnMgr, m_mutex, 0, 40);
KYP_FIELD(CPeerConnMgr, m_connections, 40, 48);
KYP_FIELD(CPeerConnMgr, m_byDeviceId, 88, 48);

KYP_SIZE(CKypReqManager, 88);
KYP_FIELD(CKypReqManager, m_mutex, 0, 40);
KYP_FIELD(CKypReqManager, m_connections, 40, 48);

KYP_SIZE(CFileTransfer, 328);
KYP_FIELD(CFileTransfer, m_sendInfo, 0, 1);
KYP_FIELD(CFileTransfer, m_abort, 1, 1);
KYP_FIELD(CFileTransfer, m_state, 2, 1);
KYP_FIELD(CFileTransfer, m_transferId, 4, 4);
KYP_FIELD(CFileTransfer, m_chunkSeq, 8, 4);
KYP_FIELD(CFileTransfer, m_chunkNum, 12, 4);
KYP_FIELD(CFileTransfer, m_ssrc, 16, 4);
KYP_FIELD(CFileTransfer, m_error, 20, 4);
KYP_FIELD(CFileTransfer, m_userData, 24, 8);
KYP_FIELD(CFileTransfer, m_deviceAddr, 32, 8);
KYP_FIELD(CFileTransfer, m_handler, 40, 8);
KYP_FIELD(CFileTransfer, m_callback, 48, 8);
KYP_FIELD(CFileTransfer, m_file, 56, 16);
KYP_FIELD(CFileTransfer, m_remotePath, 72, 256);

KYP_SIZE(CFileThread, 176);
KYP_FIELD(CFileThread, m_stop, 0, 1);
KYP_FIELD(CFileThread, m_mutex, 8, 40);
KYP_FIELD(CFileThread, m_thread, 48, 8);
KYP_FIELD(CFileThread, m_cond, 56, 48);
KYP_FIELD(CFileThread, m_transfers, 104, 24);
KYP_FIELD(CFileThread, m_handlers, 128, 48);

KYP_SIZE(CRouterTable, 88);
KYP_FIELD(CRouterTable, m_mutex, 0, 40);
KYP_FIELD(CRouterTable, m_table, 40, 48);

KYP_SIZE(CKypScanClient, 72);
KYP_FIELD(CKypScanClient, m_stop, 8, 1);
KYP_FIELD(CKypScanClient, m_scanning, 9, 1);
KYP_FIELD(CKypScanClient, m_thread, 16, 8);
KYP_FIELD(CKypScanClient, m_lastSend, 24, 8);
KYP_FIELD(CKypScanClient, m_userData, 32, 8);
KYP_FIELD(CKypScanClient, m_callback, 40, 8);
KYP_FIELD(CKypScanClient, m_adapters, 48, 24);

KYP_SIZE(IvshmGroup, 1888);
KYP_FIELD(IvshmGroup, m_bStop, 0, 1);
KYP_FIELD(IvshmGroup, m_thread, 8, 8);
KYP_FIELD(IvshmGroup, m_mutex, 16, 40);
KYP_FIELD(IvshmGroup, m_nRefCount, 56, 4);
KYP_FIELD(IvshmGroup, m_bInit, 60, 1);
KYP_FIELD(IvshmGroup, m_nIdx, 64, 4);
KYP_FIELD(IvshmGroup, m_nMaxSize, 68, 4);
KYP_FIELD(IvshmGroup, m_enMode, 72, 4);
KYP_FIELD(IvshmGroup, m_hRead, 80, 8);
KYP_FIELD(IvshmGroup, m_hWrite, 88, 8);
KYP_FIELD(IvshmGroup, m_arrVClient, 96, 1536);
KYP_FIELD(IvshmGroup, m_arrClient, 1632, 256);

KYP_SIZE(CIvshmClient, 56328);
KYP_FIELD(CIvshmClient, m_connected, 56312, 1);
KYP_FIELD(CIvshmClient, m_clientId, 56314, 2);
KYP_FIELD(CIvshmClient, m_pGroup, 56320, 8);

// ---- kypcore
KYP_SIZE(CEventLoop, 16);
KYP_FIELD(CEventLoop, m_bStop, 0, 1);
KYP_FIELD(CEventLoop, m_bRecycle, 1, 1);
KYP_FIELD(CEventLoop, m_epollFd, 4, 4);
KYP_FIELD(CEventLoop, m_thread, 8, 8);

KYP_SIZE(CEventManage, 32);
KYP_FIELD(CEventManage, m_nLoopCount, 0, 4);
KYP_FIELD(CEventManage, m_nNextLoop, 4, 4);
KYP_FIELD(CEventManage, m_vecLoops, 8, 24);

KYP_SIZE(CDiagnostics, 8);
KYP_FIELD(CDiagnostics, m_pDiagnostics, 0, 8);

KYP_SIZE(IObserverConn, 8);

KYP_SIZE(IConnection, 32);
KYP_FIELD(IConnection, m_vecObserver, 8, 24);

KYP_SIZE(CSocketConnection, 392);
KYP_FIELD(CSocketConnection, m_readHandler, 32, 16);
KYP_FIELD(CSocketConnection, m_writeHandler, 48, 16);
KYP_FIELD(CSocketConnection, m_bSending, 64, 1);
KYP_FIELD(CSocketConnection, m_nRecvState, 65, 1);
KYP_FIELD(CSocketConnection, m_tRecycle, 72, 8);
KYP_FIELD(CSocketConnection, m_events, 80, 4);
KYP_FIELD(CSocketConnection, m_fd, 84, 4);
KYP_FIELD(CSocketConnection, m_recvHeader, 88, 8);
KYP_FIELD(CSocketConnection, m_sendQueue, 96, 24);
KYP_FIELD(CSocketConnection, m_nRecvRest, 120, 4);
KYP_FIELD(CSocketConnection, m_pRecvPos, 128, 8);
KYP_FIELD(CSocketConnection, m_pRecvMsg, 136, 8);
KYP_FIELD(CSocketConnection, m_nSendRest, 144, 4);
KYP_FIELD(CSocketConnection, m_pSendPos, 152, 8);
KYP_FIELD(CSocketConnection, m_pSendMsg, 160, 8);
KYP_FIELD(CSocketConnection, iCurrsequence, 168, 8);
KYP_FIELD(CSocketConnection, m_peerAddr, 176, 128);
KYP_FIELD(CSocketConnection, m_pServer, 304, 8);
KYP_FIELD(CSocketConnection, m_pEventLoop, 312, 8);
KYP_FIELD(CSocketConnection, m_sendMutex, 320, 40);
KYP_FIELD(CSocketConnection, m_szPeerName, 360, 32);

KYP_SIZE(CSockConnPool, 176);
KYP_FIELD(CSockConnPool, m_nRecyDelay, 0, 8);
KYP_FIELD(CSockConnPool, m_listAll, 8, 24);
KYP_FIELD(CSockConnPool, m_listFree, 32, 24);
KYP_FIELD(CSockConnPool, m_listRecy, 56, 24);
KYP_FIELD(CSockConnPool, m_connMutex, 80, 40);
KYP_FIELD(CSockConnPool, m_recyMutex, 120, 40);
KYP_FIELD(CSockConnPool, m_nTotal, 160, 4);
KYP_FIELD(CSockConnPool, m_nFree, 164, 4);
KYP_FIELD(CSockConnPool, m_nRecy, 168, 4);

KYP_SIZE(ISocketServer, 16);
KYP_FIELD(ISocketServer, m_listenSock, 8, 4);

KYP_SIZE(TcpServer, 56);
KYP_FIELD(TcpServer, m_strIp, 16, 32);
KYP_FIELD(TcpServer, m_port, 48, 2);

KYP_SIZE(TcpDomainserver, 48);
KYP_FIELD(TcpDomainserver, m_strPath, 16, 32);

KYP_SIZE(UdpServer, 32);
KYP_FIELD(UdpServer, m_pRecvBuf, 16, 8);
KYP_FIELD(UdpServer, m_pSpareBuf, 24, 8);

KYP_SIZE(CThreadPool, 72);
KYP_FIELD(CThreadPool, m_nThreadCount, 0, 4);
KYP_FIELD(CThreadPool, m_nQueueCount, 4, 4);
KYP_FIELD(CThreadPool, m_tLastBusyLog, 8, 8);
KYP_FIELD(CThreadPool, m_nRunning, 16, 4);
KYP_FIELD(CThreadPool, m_msgRecvQueue, 24, 24);
KYP_FIELD(CThreadPool, m_vecThreads, 48, 24);

KYP_SIZE(CThreadPool::ThreadItem, 24);
KYP_FIELD(CThreadPool::ThreadItem, m_thread, 0, 8);
KYP_FIELD(CThreadPool::ThreadItem, m_pPool, 8, 8);
KYP_FIELD(CThreadPool::ThreadItem, m_bWaited, 16, 1);

KYP_SIZE(PortRegister, 24);
KYP_FIELD(PortRegister, m_type, 0, 1);
KYP_FIELD(PortRegister, m_bUsed, 1, 1);
KYP_FIELD(PortRegister, m_port, 2, 2);
KYP_FIELD(PortRegister, m_callback, 8, 8);
KYP_FIELD(PortRegister, m_ctx, 16, 8);

KYP_SIZE(RouteManage, 98368);
KYP_FIELD(RouteManage, m_mutex, 0, 40);
KYP_FIELD(RouteManage, m_ports, 40, 98328);

// ---- compmodule
KYP_SIZE(_CmpSysParamConf, 56);
KYP_FIELD(_CmpSysParamConf, ivshm_enable, 0, 1);
KYP_FIELD(_CmpSysParamConf, ivshm_maxsize, 4, 4);
KYP_FIELD(_CmpSysParamConf, ivshm_group, 8, 4);
KYP_FIELD(_CmpSysParamConf, loglevel, 12, 4);
KYP_FIELD(_CmpSysParamConf, sched_priority, 16, 4);
KYP_FIELD(_CmpSysParamConf, cmpName, 24, 32);

KYP_SIZE(CNetChannel, 104);
KYP_FIELD(CNetChannel, connected, 0, 1);
KYP_FIELD(CNetChannel, writeMutex, 8, 40);
KYP_FIELD(CNetChannel, thread, 48, 8);
KYP_FIELD(CNetChannel, name, 56, 32);
KYP_FIELD(CNetChannel, socket, 88, 16);

KYP_SIZE(BusinessDataLayer, 80);
KYP_FIELD(BusinessDataLayer, stopFlag, 0, 1);
KYP_FIELD(BusinessDataLayer, registered, 1, 1);
KYP_FIELD(BusinessDataLayer, lastInvokeId, 4, 4);
KYP_FIELD(BusinessDataLayer, invokeId, 8, 4);
KYP_FIELD(BusinessDataLayer, netThread, 16, 8);
KYP_FIELD(BusinessDataLayer, channel, 24, 8);
KYP_FIELD(BusinessDataLayer, drvInfo, 32, 8);
KYP_FIELD(BusinessDataLayer, connectArg, 40, 8);
KYP_FIELD(BusinessDataLayer, messageArg, 48, 8);
KYP_FIELD(BusinessDataLayer, connectCallback, 56, 8);
KYP_FIELD(BusinessDataLayer, messageCallback, 64, 8);
KYP_FIELD(BusinessDataLayer, reconnectTimer, 72, 8);

KYP_SIZE(libkyp::compmodule::CCmpSysInit, 32);
KYP_FIELD(libkyp::compmodule::CCmpSysInit, initOnce, 0, 4);
KYP_FIELD(libkyp::compmodule::CCmpSysInit, eventLoopOnce, 4, 4);
KYP_FIELD(libkyp::compmodule::CCmpSysInit, refCount, 8, 4);
KYP_FIELD(libkyp::compmodule::CCmpSysInit, iniFile, 16, 16);

KYP_SIZE(VirtualConn, 56);
KYP_FIELD(VirtualConn, connIndex, 32, 2);
KYP_FIELD(VirtualConn, clientFd, 36, 4);
KYP_FIELD(VirtualConn, generation, 40, 4);
KYP_FIELD(VirtualConn, reserved, 44, 4);
KYP_FIELD(VirtualConn, channel, 48, 8);

KYP_SIZE(libkyp::compmodule::CompModule, 28272);
KYP_FIELD(libkyp::compmodule::CompModule, state, 0, 4);
KYP_FIELD(libkyp::compmodule::CompModule, drvInfo, 4, 40);
KYP_FIELD(libkyp::compmodule::CompModule, connConfig, 48, 8);
KYP_FIELD(libkyp::compmodule::CompModule, conf, 56, 56);
KYP_FIELD(libkyp::compmodule::CompModule, netChannel, 112, 8);
KYP_FIELD(libkyp::compmodule::CompModule, ivshmGroup, 120, 8);
KYP_FIELD(libkyp::compmodule::CompModule, dataLayer, 128, 8);
KYP_FIELD(libkyp::compmodule::CompModule, registerArg, 136, 8);
KYP_FIELD(libkyp::compmodule::CompModule, registerCallback, 144, 8);
KYP_FIELD(libkyp::compmodule::CompModule, routePorts, 152, 24);
KYP_FIELD(libkyp::compmodule::CompModule, connMap, 176, 48);
KYP_FIELD(libkyp::compmodule::CompModule, connTable, 224, 28000);
KYP_FIELD(libkyp::compmodule::CompModule, subscribeMap, 28224, 48);

KYP_SIZE(libkyp::compmodule::CompModuleMgr, 88);
KYP_FIELD(libkyp::compmodule::CompModuleMgr, m_mutex, 0, 40);
KYP_FIELD(libkyp::compmodule::CompModuleMgr, m_modules, 40, 48);

// ---- compmodule, shared memory
KYP_SIZE(ivshm_conn, 48);
KYP_FIELD(ivshm_conn, m_clientId, 32, 2);
KYP_FIELD(ivshm_conn, m_processId, 36, 4);
KYP_FIELD(ivshm_conn, m_pGroup, 40, 8);

KYP_SIZE(IvshmSvrGroup, 352);
KYP_FIELD(IvshmSvrGroup, m_bStop, 0, 1);
KYP_FIELD(IvshmSvrGroup, m_mutex, 8, 40);
KYP_FIELD(IvshmSvrGroup, m_thread, 48, 8);
KYP_FIELD(IvshmSvrGroup, m_bInit, 56, 1);
KYP_FIELD(IvshmSvrGroup, m_nRefCount, 60, 4);
KYP_FIELD(IvshmSvrGroup, m_nIdx, 64, 4);
KYP_FIELD(IvshmSvrGroup, m_nMaxSize, 68, 4);
KYP_FIELD(IvshmSvrGroup, m_enMode, 72, 4);
KYP_FIELD(IvshmSvrGroup, m_hRead, 80, 8);
KYP_FIELD(IvshmSvrGroup, m_hWrite, 88, 8);
KYP_FIELD(IvshmSvrGroup, m_arrConn, 96, 256);

// ---- numbers that travel inside the records
static_assert(MSG_MODE_RECV == 0 && MSG_MODE_SEND == 1, "EnMsgMode");
static_assert(kIvshmServer == 0 && kIvshmClient == 1, "MODE");
static_assert(MSG_TYPE_STREAM == 0 && MSG_TYPE_DATAGRAM == 1, "EnMsgType");

// A singleton's pair of static members is shared with the program that uses it.
KYP_SIZE(utility::Singleton<CRouterTable>, 1);
KYP_SIZE(utility::Singleton<CKypScanClient>, 1);
KYP_SIZE(std::once_flag, 4);
