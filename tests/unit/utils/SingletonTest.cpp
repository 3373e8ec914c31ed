#include "utils/Singleton.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using utility::instance;
using utility::Singleton;

struct Plain {
    int value = 7;
};

TEST(SingletonTest, TheFirstUseMakesTheObject) {
    static bool const s_startsEmpty = Singleton<Plain>::m_instance == nullptr;

    Plain& object = instance<Plain>();

    EXPECT_TRUE(s_startsEmpty);
    EXPECT_EQ(7, object.value);
    EXPECT_EQ(&object, Singleton<Plain>::m_instance);
    EXPECT_EQ(&object, &instance<Plain>());
}

struct Counted {
    Counted() { ++s_made; }

    static std::atomic<int> s_made;
};

std::atomic<int> Counted::s_made{0};

TEST(SingletonTest, ManyFirstUsersMakeOneObject) {
    std::vector<Counted*> seen(8);
    std::vector<std::thread> threads;
    for (Counted*& mine : seen) threads.emplace_back([&mine] { mine = &instance<Counted>(); });
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(1, Counted::s_made);
    for (Counted* const one : seen) EXPECT_EQ(Singleton<Counted>::m_instance, one);
}

struct Stubborn {
    Stubborn() {
        if (s_refuse) throw std::system_error(EAGAIN, std::generic_category());
    }

    static bool s_refuse;
};

bool Stubborn::s_refuse = true;

TEST(SingletonTest, AFailedConstructionReachesItsUserAndTheNextOneTriesAgain) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer's once never ends after an exception";
#endif
    static bool const s_failed = [] {
        EXPECT_THROW(instance<Stubborn>(), std::system_error);
        return Singleton<Stubborn>::m_instance == nullptr;
    }();
    Stubborn::s_refuse = false;

    Stubborn& object = instance<Stubborn>();

    EXPECT_TRUE(s_failed);
    EXPECT_EQ(&object, Singleton<Stubborn>::m_instance);
}

struct Immortal {
    ~Immortal() { _exit(1); }
};

TEST(SingletonTest, TheObjectIsNeverDestroyed) {
    auto const leave = [] {
        instance<Immortal>();
        exit(0);
    };

    EXPECT_EXIT(leave(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
