#include "kypclient/KypRequest.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <memory>
#include <thread>

#include "kypcomm/KypStatus.h"

namespace {

int64_t steady_in(std::chrono::nanoseconds fromNow) {
    return (std::chrono::steady_clock::now().time_since_epoch() + fromNow).count();
}

class KypResponseTest : public testing::Test {
protected:
    ~KypResponseTest() override { delete[] m_request.frame.rawData(); }

    void occupy(uint32_t invokeId, int64_t deadline) {
        m_request.deadline = deadline;
        m_slot.request = &m_request;
        m_slot.invokeId = invokeId;
    }

    void claim() { m_slot.invokeId = 0; }

    KypRequest m_request{false, Frame(0, nullptr), _KypDeviceId{}, 0, 0, 0, nullptr, nullptr, 0, 0};
    KypResponse m_slot;
};

TEST_F(KypResponseTest, NewSlotIsFreeAndAwaitsNothing) {
    EXPECT_EQ(nullptr, m_slot.request.load());
    EXPECT_EQ(0u, m_slot.invokeId.load());
}

TEST_F(KypResponseTest, KeepsResultZeroBeforeTheFirstUseAndMinusOneBehindIt) {
    EXPECT_EQ(0, m_slot.result);

    m_slot.Release();

    EXPECT_EQ(-1, m_slot.result);
}

TEST_F(KypResponseTest, ReleaseFreesTheSlotAndLeavesTheIdAwaited) {
    occupy(7, steady_in(std::chrono::seconds(20)));

    m_slot.Release();

    EXPECT_EQ(nullptr, m_slot.request.load());
    EXPECT_EQ(7u, m_slot.invokeId.load());
}

TEST_F(KypResponseTest, WaitReturnsWhatWasNotified) {
    occupy(7, steady_in(std::chrono::seconds(20)));
    claim();
    m_slot.Notify(0x1006);

    EXPECT_EQ(0x1006, m_slot.Wait());
}

TEST_F(KypResponseTest, WaitEndsAtTheDeadlineAndTakesTheIdBack) {
    occupy(7, steady_in(std::chrono::milliseconds(1)));

    EXPECT_EQ(0x1008, m_slot.Wait());

    EXPECT_EQ(0u, m_slot.invokeId.load());
    EXPECT_EQ(&m_request, m_slot.request.load());
}

TEST_F(KypResponseTest, DeadlineInThePastIsATimeoutAtOnce) {
    for (const int64_t deadline :
         {int64_t{0}, steady_in(std::chrono::seconds(-1)), std::numeric_limits<int64_t>::min()}) {
        SCOPED_TRACE(deadline);
        occupy(7, deadline);

        EXPECT_EQ(0x1008, m_slot.Wait());
    }
}

TEST_F(KypResponseTest, AnswerThatWasNotifiedWinsOverADeadlineInThePast) {
    occupy(7, 0);
    claim();
    m_slot.Notify(0);

    EXPECT_EQ(0, m_slot.Wait());
}

TEST_F(KypResponseTest, NotifyWakesAWaiterWithoutADeadlineToSpeakOf) {
    m_slot.Release();
    occupy(7, std::numeric_limits<int64_t>::max());
    std::thread receiver([this] {
        std::lock_guard<std::mutex> lock(m_slot.mutex);
        claim();
        m_slot.result = 5;
        m_slot.cond.notify_all();
    });

    EXPECT_EQ(5, m_slot.Wait());
    receiver.join();
}

TEST_F(KypResponseTest, ClaimedWaiterWaitsForItsNotificationBeyondTheDeadline) {
    m_slot.Release();
    occupy(7, 0);
    claim();
    std::thread receiver([this] { m_slot.Notify(9); });

    EXPECT_EQ(9, m_slot.Wait());
    receiver.join();
}

TEST_F(KypResponseTest, KeepsAnsweringZeroToAClaimThatOvertakesTheFirstWait) {
    occupy(7, steady_in(std::chrono::seconds(20)));
    claim();

    EXPECT_EQ(0, m_slot.Wait());
}

TEST(KypRequestTest, RequestsFromTheHeapAreIndependent) {
    const auto make = [](uint16_t port) {
        return std::unique_ptr<KypRequest>(new KypRequest{false, Frame(0, nullptr), _KypDeviceId{},
                                                          port, 9, 0, nullptr, nullptr, 0, 0});
    };

    std::vector<std::unique_ptr<KypRequest>> requests;
    for (uint16_t round = 0; round < 3; ++round) {
        for (uint16_t port = 1; port <= 100; ++port) requests.push_back(make(port));
        for (uint16_t port = 1; port <= 100; ++port) {
            EXPECT_EQ(port, requests[port - 1]->port);
            delete[] requests[port - 1]->frame.rawData();
        }
        requests.clear();
    }
}

}  // namespace
