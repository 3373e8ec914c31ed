#include "kypcomm/KypStatus.h"

#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <thread>

namespace {

struct Row {
    int code;
    char const* message;
};

constexpr Row kRows[] = {
    {0, "No Error"},
    {1, "connect Success"},
    {2, "connection pending"},
    {3, "no connection"},
    {4, "connect refuse"},
    {5, "connection disconnect"},
    {6, "connect timeout"},
    {7, "host unreachable"},
    {8, "auth continue"},
    {9, "No connection channel established"},
    {10, "send timeout"},
    {0x1001, "invaild Kyp Device Id"},
    {0x1002, "invaild Id Group"},
    {0x1003, "invaild Id Offset"},
    {0x1004, "Invalid packet length"},
    {0x1005, "invaild port,port is 1-65535"},
    {0x1006, "router port not register"},
    {0x1007, "router port alaready register"},
    {0x1008, "recv message timeout"},
    {0x1009, "unknown cmdId"},
    {0x100a, "unknown topic"},
    {0x100b, "no support protocol"},
    {0x100c, "packet length too small"},
    {0x100d, "packet length too long"},
    {0x100e, "serialized error"},
    {0x100f, "deserialized error"},
    {0x1010, "kyp header length not match from buff recv"},
    {0x1011, "send message error"},
    {0x1012, "port 1~500 system reserved"},
    {0x1013, "message invokeId not match"},
    {0x1014, "Invaild port,range 1~4096"},
    {0x1015, "input param illegal"},
    {0x1016, "unknown conntype"},
    {0x1017, "ivshm shared memory not init"},
    {0x1018, "unsupport function call"},
    {0x1019, "not exist vaild request"},
    {0x101a, "invaild ivshm group index"},
    {0x101b, "client num exceeded"},
    {0x101c, "invaild client id"},
    {0x101d, "invaild ivshm send handle"},
    {0x101e, "ivshm send timeout"},
    {0x2001, "invaild handler"},
    {0x2002, "invaild netadapter"},
    {0x2003, "init resource fail"},
    {0x2004, "invaild input param"},
    {0x2005, "kyp server not runing"},
    {0x2006, "invaild request cmd"},
    {0x2007, "invaild buff length"},
    {0x2008, "no memory"},
    {0x2009, "disk is full"},
    {0x3000, "create file fail"},
    {0x3001, "open file fail"},
    {0x3002, "file not exist"},
    {0x3003, "read file buffer fail"},
    {0x3004, "write file buffer fail"},
    {0x3005, "invaild file handler"},
    {0x3006, "transfer fault,network error"},
    {0x4001, "component not register"},
    {0x4002, "connect kypserver timeout"},
    {0x4003, "same component name already register,kypserver refuse register"},
    {0x4004, "component is offline"},
    {0x4005, "component name is illegal"},
    {0x4006, "component not build connectchannel"},
    {0x4007, "kyp server is offline"},
};

TEST(KypStatusTest, EveryCodeHasItsText) {
    EXPECT_EQ(64u, std::size(kRows));
    for (Row const& row : kRows) {
        SCOPED_TRACE(row.code);
        EXPECT_STREQ(row.message, LibkypGetErrorString(row.code));
    }
}

TEST(KypStatusTest, EveryNumberOutsideTheTableIsUnknown) {
    size_t row = 0;
    for (int code = 0; code <= 0x5000; ++code) {
        if (row < std::size(kRows) && kRows[row].code == code) {
            ++row;
            continue;
        }
        ASSERT_STREQ("Unknown error code", LibkypGetErrorString(code)) << code;
    }
    EXPECT_EQ(std::size(kRows), row);
}

TEST(KypStatusTest, NegativeAndHugeCodesAreUnknown) {
    for (int const code : {-1, -2, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(code);
        EXPECT_STREQ("Unknown error code", LibkypGetErrorString(code));
    }
}

TEST(KypStatusTest, EachThreadStartsWithStatusZero) {
    tlsErrno = KYP_ERR_HANDLE;
    int seen = -1;

    std::thread([&seen] { seen = tlsErrno; }).join();

    EXPECT_EQ(KYP_OK, seen);
}

TEST(KypStatusTest, OneThreadsStatusLeavesTheOthersAlone) {
    tlsErrno = KYP_ERR_HANDLE;

    std::thread([] { tlsErrno = KYP_ERR_NO_MEMORY; }).join();

    EXPECT_EQ(KYP_ERR_HANDLE, tlsErrno);
}

}  // namespace
