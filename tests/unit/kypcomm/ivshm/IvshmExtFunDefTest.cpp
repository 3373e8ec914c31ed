#include "kypcomm/ivshm/IvshmExtFunDef.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/IvshmLibrary.h"
#include "support/LogCapture.h"

namespace {

constexpr char const* kPlace = "/usr/lib/libivshmAPI.so";

// What the probe keeps of the latest call.
struct ProbeCall {
    void* handle;
    unsigned long size;
    void* data;
    long timeoutMs;
};

class IvshmExtFunDefTest : public ::testing::Test {
protected:
    // `lacking` is "nothing" or the function that is left out.
    static void offer_probe(std::string const& lacking) {
        offer_ivshm_library(KYP_IVSHM_PROBES + lacking + ".so");
    }

    static ProbeCall latest_call() {
        void* const library = dlopen(kPlace, RTLD_LAZY | RTLD_NOLOAD);
        auto* const call = static_cast<ProbeCall*>(dlsym(library, "ivshm_probe_call"));
        const ProbeCall copy = call != nullptr ? *call : ProbeCall{};
        dlclose(library);
        return copy;
    }

    // A test's own: the process-wide one loads only once.
    ExtIvshmApiDef m_api;
    LogCapture m_log;
};

TEST_F(IvshmExtFunDefTest, IsTheSameForEveryCaller) {
    EXPECT_EQ(&ExtIvshmApiDef::GetInstance(), &ExtIvshmApiDef::GetInstance());
}

TEST_F(IvshmExtFunDefTest, HasNothingBeforeTheFirstTopic) {
    EXPECT_FALSE(m_api.m_bLoaded);
    EXPECT_EQ("", m_api.m_strPath);
    EXPECT_EQ(nullptr, m_api.m_pfnInit);
    EXPECT_EQ(nullptr, m_api.m_pfnSend);
    EXPECT_EQ(nullptr, m_api.m_pfnRecv);
    EXPECT_EQ(nullptr, m_api.m_pfnUninit);
    EXPECT_EQ("", m_log.text());
}

TEST_F(IvshmExtFunDefTest, LoadsTheLibraryWithTheFirstTopic) {
    offer_probe("nothing");

    EXPECT_EQ(reinterpret_cast<void*>(0x5031), m_api.InitIvshmTopic(3, 1));
    EXPECT_TRUE(m_api.m_bLoaded);
    EXPECT_EQ(1, m_log.count("DEBUG", "Load /usr/lib/libivshmAPI.so Success"));
    EXPECT_EQ(1, m_log.count("DEBUG", "init ivshmapi.so success"));
    EXPECT_EQ(1, m_log.count("DEBUG", "init mode:1,topic:3"));
}

TEST_F(IvshmExtFunDefTest, LoadsOnce) {
    offer_probe("nothing");
    m_api.InitIvshmTopic(0, 0);
    m_log.clear();

    EXPECT_EQ(reinterpret_cast<void*>(0x5010), m_api.InitIvshmTopic(1, 0));
    EXPECT_EQ(0, m_api.LoadIvshmSymbol());
    EXPECT_EQ(1, m_log.count("DEBUG", "init mode:0,topic:1"));
    EXPECT_EQ(0, m_log.count_containing("Load"));
    EXPECT_EQ(0, m_log.count_containing("success"));
}

TEST_F(IvshmExtFunDefTest, LoadsOnceForThreadsThatComeTogether) {
    offer_probe("nothing");
    std::vector<std::thread> threads;

    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([this] { EXPECT_NE(nullptr, m_api.InitIvshmTopic(0, 0)); });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(1, m_log.count_containing("Load /usr/lib/libivshmAPI.so Success"));
    EXPECT_EQ(8, m_log.count_containing("init mode:0,topic:0"));
}

TEST_F(IvshmExtFunDefTest, HandsSendAndRecvOnAsTheyAre) {
    offer_probe("nothing");
    void* const handle = m_api.InitIvshmTopic(2, 0);
    char data[16] = {};

    EXPECT_TRUE(m_api.Send(handle, 5, data, 300));
    EXPECT_EQ(handle, latest_call().handle);
    EXPECT_EQ(5u, latest_call().size);
    EXPECT_EQ(data, latest_call().data);
    EXPECT_EQ(300, latest_call().timeoutMs);
    EXPECT_FALSE(m_api.Send(handle, 5, data, 0));

    unsigned long size = sizeof data;
    EXPECT_TRUE(m_api.Recv(handle, &size, data, 200));
    EXPECT_EQ(sizeof data, latest_call().size);
    EXPECT_EQ(200, latest_call().timeoutMs);
    EXPECT_EQ(7u, size);
    EXPECT_FALSE(m_api.Recv(handle, &size, data, 0));

    m_api.UninitIvshmTopic(reinterpret_cast<void*>(0x77));
    EXPECT_EQ(reinterpret_cast<void*>(0x77), latest_call().handle);
}

TEST_F(IvshmExtFunDefTest, LeavesTheLibraryMapped) {
    offer_probe("nothing");
    void* const handle = m_api.InitIvshmTopic(0, 0);
    withdraw_ivshm_library();

    void* const mapped = dlopen(KYP_IVSHM_PROBES "nothing.so", RTLD_LAZY | RTLD_NOLOAD);
    EXPECT_NE(nullptr, mapped) << "a holder that is gone has taken the library along";
    if (mapped != nullptr) dlclose(mapped);
    EXPECT_TRUE(m_api.Send(handle, 0, nullptr, 1));
}

TEST_F(IvshmExtFunDefTest, IsWithoutTopicsWhereTheLibraryIsAbsent) {
    withdraw_ivshm_library();
    char data[16] = {};
    unsigned long size = sizeof data;

    EXPECT_EQ(nullptr, m_api.InitIvshmTopic(0, 1));
    EXPECT_EQ(1, m_log.count("ERROR", "Load /usr/lib/libivshmAPI.so Fail"));
    EXPECT_EQ(0, m_log.count_containing("init mode"));
    EXPECT_FALSE(m_api.Send(data, 1, data, 100));
    EXPECT_FALSE(m_api.Recv(data, &size, data, 100));
    EXPECT_EQ(sizeof data, size);
    m_api.UninitIvshmTopic(data);
}

TEST_F(IvshmExtFunDefTest, DoesNotTryAFailedLoadAgain) {
    withdraw_ivshm_library();
    m_api.InitIvshmTopic(0, 1);
    offer_probe("nothing");

    EXPECT_EQ(nullptr, m_api.InitIvshmTopic(0, 1));
    EXPECT_EQ(1, m_log.count_containing("Load /usr/lib/libivshmAPI.so"));
}

TEST_F(IvshmExtFunDefTest, ServesTopicsAfterALoadThatTheCallerRepeated) {
    withdraw_ivshm_library();
    EXPECT_EQ(-1, m_api.LoadIvshmSymbol());
    offer_probe("nothing");

    EXPECT_EQ(0, m_api.LoadIvshmSymbol());
    EXPECT_NE(nullptr, m_api.InitIvshmTopic(0, 1));
}

TEST_F(IvshmExtFunDefTest, IsWithoutTopicsWhereTheFileIsNoLibrary) {
    offer_ivshm_library("/etc/passwd");

    EXPECT_EQ(nullptr, m_api.InitIvshmTopic(0, 1));
    EXPECT_EQ(1, m_log.count("ERROR", "Load /usr/lib/libivshmAPI.so Fail"));
}

TEST_F(IvshmExtFunDefTest, IsWithoutTopicsWithoutItsInit) {
    m_api.m_bLoaded = true;

    EXPECT_EQ(nullptr, m_api.InitIvshmTopic(0, 1));
    EXPECT_EQ("", m_log.text());
}

class IvshmSymbolTest : public IvshmExtFunDefTest,
                        public ::testing::WithParamInterface<char const*> {};

TEST_P(IvshmSymbolTest, IsMissed) {
    offer_probe(GetParam());
    char data[16] = {};

    EXPECT_EQ(nullptr, m_api.InitIvshmTopic(0, 1));
    EXPECT_FALSE(m_api.m_bLoaded);
    EXPECT_EQ(1, m_log.count("DEBUG", "Load /usr/lib/libivshmAPI.so Success"));
    EXPECT_EQ(1, m_log.count("ERROR", std::string("Load libivshmapi_") + GetParam() + " fail"));
    EXPECT_EQ(1, m_log.count_containing(" fail"));
    EXPECT_EQ(0, m_log.count_containing("init ivshmapi.so success"));
    EXPECT_FALSE(m_api.Send(data, 1, data, 100));
    m_api.UninitIvshmTopic(data);
}

INSTANTIATE_TEST_SUITE_P(Each, IvshmSymbolTest, ::testing::Values("init", "send", "recv", "uninit"),
                         [](auto const& row) { return std::string(row.param); });

}  // namespace
