#include "kypserver/Errands.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <string>

namespace kypserver {
namespace {

using std::chrono::milliseconds;

TEST(ErrandsTest, RunOnAThreadOfTheirOwn) {
    CErrands errands;
    std::promise<std::thread::id> ran;

    errands.after(milliseconds(0), [&] { ran.set_value(std::this_thread::get_id()); });

    EXPECT_NE(std::this_thread::get_id(), ran.get_future().get());
}

TEST(ErrandsTest, TheEarliestIsFirst) {
    CErrands errands;
    std::string order;
    std::promise<void> done;

    errands.after(milliseconds(60), [&] {
        order += "c";
        done.set_value();
    });
    errands.after(milliseconds(30), [&] { order += "b"; });
    errands.after(milliseconds(0), [&] { order += "a"; });

    done.get_future().wait();
    EXPECT_EQ("abc", order);
}

TEST(ErrandsTest, NoneRunsBeforeItsTime) {
    CErrands errands;
    std::promise<std::chrono::steady_clock::time_point> ran;
    auto const begin = std::chrono::steady_clock::now();

    errands.after(milliseconds(50), [&] { ran.set_value(std::chrono::steady_clock::now()); });

    EXPECT_GE(ran.get_future().get() - begin, milliseconds(50));
}

TEST(ErrandsTest, AnErrandMayGiveAnother) {
    CErrands errands;
    std::promise<void> done;

    errands.after(milliseconds(0),
                  [&] { errands.after(milliseconds(0), [&] { done.set_value(); }); });

    done.get_future().wait();
}

TEST(ErrandsTest, NoneRunsBehindAStop) {
    CErrands errands;
    errands.after(milliseconds(0), [] {});
    errands.stop();

    errands.after(milliseconds(0), [] { ADD_FAILURE(); });
    errands.stop();
}

TEST(ErrandsTest, ThoseThatWaitAreDroppedAtTheEnd) {
    bool ran = false;
    {
        CErrands errands;
        errands.after(std::chrono::hours(1), [&] { ran = true; });
    }
    EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace kypserver
