// Conditions: values, results, waits and wake-ups.

#include "zocond.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <memory>
#include <thread>
#include <vector>

#include "services.h"

using namespace zotest;

namespace {

using Clock = std::chrono::steady_clock;
constexpr unsigned long NoLimit = 4294967295UL;

std::unique_ptr<Condition> Make() {
    return std::unique_ptr<Condition>(Condition::MakeCondition("c"));
}

TEST(Condition, CountsSetsAndClears) {
    auto posix = Make();
    Condition plain("plain");
    for (Condition* c : {posix.get(), &plain}) {
        EXPECT_EQ(c->SetCondition(), 1);
        EXPECT_EQ(c->WaitForCondition(0, 0), ZoSuccess);
        EXPECT_EQ(c->SetCondition(), 2);
        EXPECT_EQ(c->ClearCondition(), 1);
        EXPECT_EQ(c->ClearCondition(), 0);
        EXPECT_EQ(c->ClearCondition(), -1);
        EXPECT_EQ(c->Lock(), -1);
        c->value = -3;
        EXPECT_EQ(c->Unlock(), -3);
        char text[16] = "";
        c->GetInfo(text, sizeof text);
        EXPECT_STREQ(text, "cond-val: -3");
        c->GetInfo(text, 5);
        EXPECT_STREQ(text, "cond");
        c->GetInfo(nullptr, 5);
    }
    EXPECT_EQ(posix->ClearCondition(), ZoRefused);
    EXPECT_EQ(posix->value, -3);
    EXPECT_EQ(plain.ClearCondition(), -4);
    posix->value = INT_MAX;  // a queue sets its condition for as long as it lives
    EXPECT_EQ(posix->SetCondition(), INT_MIN);
    // The logic's answer from one class, the value from the other.
    posix->value = plain.value = -1;
    EXPECT_EQ(posix->SetConditionApp(nullptr, nullptr), 1);
    EXPECT_EQ(posix->SetConditionApp(nullptr, nullptr), 0);
    EXPECT_EQ(plain.SetConditionApp(nullptr, nullptr), 0);
    EXPECT_EQ(plain.SetConditionApp(nullptr, nullptr), 1);
}

TEST(Condition, TimesOutNoSoonerThanAsked) {
    auto condition = Make();
    EXPECT_EQ(condition->WaitForCondition(0, 0), ZoTimedOut);
    auto const start = Clock::now();
    EXPECT_EQ(condition->WaitForCondition(1, 1100), ZoTimedOut);
    // The deadline is on the wall clock, which may be adjusted a little.
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1000));
    EXPECT_EQ(condition->Unlock(), 0);  // kept, also after a time-out
    EXPECT_EQ(condition->SetCondition(), 1);
    EXPECT_EQ(condition->WaitForCondition(1, NoLimit), ZoSuccess);
    EXPECT_EQ(condition->Unlock(), 1);
}

// A counter that lets one waiter pass for each set, through a lock kept over the wait.
TEST(Condition, EverySetWakesAWaiter) {
    constexpr int Waiters = 4, Passes = 500;
    auto condition = Make();
    auto done = Make();
    std::vector<std::thread> threads;
    for (int t = 0; t < Waiters; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < Passes; ++i) {
                // -1 converted to unsigned long is no limit either.
                condition->WaitForCondition(1, static_cast<unsigned long>(-1));
                --condition->value;
                condition->Unlock();
                done->SetCondition();
            }
        });
    }
    for (int i = 0; i < Waiters * Passes; ++i) {
        condition->SetCondition();
        done->WaitForCondition(1, NoLimit);
        --done->value;
        done->Unlock();
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(condition->value, 0);
}

// Counts its tests, and passes when it is told.
class Gate final : public ConditionLogic {
public:
    int SafeTest(int*) override {
        ++tests;
        return open ? 0 : 1;
    }
    std::atomic<int> tests{0};
    std::atomic<bool> open{false};
};

TEST(Condition, ACancelledWaiterLeavesTheLockFree) {
    auto condition = Make();
    Gate gate;
    condition->logic = &gate;
    pthread_t thread;
    auto const wait = [](void* c) -> void* {
        static_cast<Condition*>(c)->WaitForCondition(0, NoLimit);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, wait, condition.get()), 0);
    Await([&] { return gate.tests != 0; });
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(condition->SetCondition(), 1);  // would block for ever on a lock left behind
}

TEST(Condition, TheBaseClassPollsUntilItsLogicPasses) {
    Condition condition("polled");
    Gate gate;
    condition.logic = &gate;
    std::thread opener([&] {
        Await([&] { return gate.tests > 3; });
        gate.open = true;
    });
    EXPECT_EQ(condition.WaitForCondition(0, 0), ZoSuccess);
    opener.join();
}

}  // namespace
