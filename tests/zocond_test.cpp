// Conditions: values, results, waits and wake-ups.

#include "zocond.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <limits>
#include <memory>

#include "cancelled.h"
#include "services.h"
#include "watchdog.h"

using namespace zotest;

namespace {

// Those who sleep on one variable of the system's, as the linker lets the library call it.
class Sleeping {
public:
    explicit Sleeping(pthread_cond_t* variable) : variable(variable) { Count(1); }
    ~Sleeping() { Count(-1); }
    static inline std::atomic<int> all{0}, mostOnOne{0};

private:
    void Count(int change) {
        std::lock_guard<std::mutex> const hold(mutex);
        int const now = counts[variable] += change;
        mostOnOne = std::max(mostOnOne.load(), now);
        all += change;
    }
    static inline std::mutex mutex;
    static inline std::map<pthread_cond_t*, int> counts;
    pthread_cond_t* variable;
};

}  // namespace

extern "C" {
int __real_pthread_cond_wait(pthread_cond_t* variable, pthread_mutex_t* mutex);
int __real_pthread_cond_timedwait(pthread_cond_t* variable, pthread_mutex_t* mutex,
                                  timespec const* deadline);
int __wrap_pthread_cond_wait(pthread_cond_t* variable, pthread_mutex_t* mutex) {
    Sleeping const sleeping(variable);
    return __real_pthread_cond_wait(variable, mutex);
}
int __wrap_pthread_cond_timedwait(pthread_cond_t* variable, pthread_mutex_t* mutex,
                                  timespec const* deadline) {
    Sleeping const sleeping(variable);
    return __real_pthread_cond_timedwait(variable, mutex, deadline);
}
}

namespace {

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
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(condition->WaitForCondition(1, 1100), ZoTimedOut);
    // The deadline is on the wall clock, which may be adjusted a little.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
    std::thread setter([&] { condition->SetCondition(); });
    for (int i = 0; i < 100; ++i) std::this_thread::yield();
    EXPECT_EQ(condition->value, 0) << "the lock is kept, also after a time-out";
    condition->Unlock();
    setter.join();
    EXPECT_EQ(condition->WaitForCondition(1, ZoNoLimit), ZoSuccess);
    EXPECT_EQ(condition->Unlock(), 1);
}

// A counter that lets one waiter pass for each set, through a lock kept over the wait.
TEST(Condition, EverySetWakesAWaiter) {
    constexpr int Waiters = 4, Passes = 500;
    auto condition = Make();
    auto done = Make();
    OnThreads(Waiters + 1, [&](int thread) {
        if (thread < Waiters) {
            for (int i = 0; i < Passes; ++i) {
                // -1 converted to unsigned long is no limit either.
                condition->WaitForCondition(1, static_cast<unsigned long>(-1));
                --condition->value;
                condition->Unlock();
                done->SetCondition();
            }
        } else {
            for (int i = 0; i < Waiters * Passes; ++i) {
                condition->SetCondition();
                done->WaitForCondition(1, ZoNoLimit);
                --done->value;
                done->Unlock();
            }
        }
    });
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

// Its logic, not the signal, says when a waiter passes: this one is cancelled in its second sleep.
TEST(Condition, ACancelledWaiterLeavesTheLockFree) {
    auto condition = Make();
    Gate gate;
    condition->logic = &gate;
    auto const isWokenForNothing = [&] {
        if (gate.tests != 0) condition->SetCondition();
        return gate.tests > 1;
    };
    CancelWhen(isWokenForNothing, [&] { condition->WaitForCondition(0, ZoNoLimit); });
    condition->SetCondition();  // would block for ever on a lock left behind
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

// In a child the waiters of the parent are absent: nobody waits for them, and no signal goes to
// them.
TEST(Condition, AChildDoesWithoutItsParentsWaiters) {
    auto condition = Make();
    Gate gate;
    condition->logic = &gate;
    auto const wait = [&] { condition->WaitForCondition(0, ZoNoLimit); };
    auto const passes = [&](std::thread waiter) {
        condition->Lock();  // given back by a waiter only when it sleeps
        condition->Unlock();
        gate.open = true;
        condition->SetCondition();
        waiter.join();
    };
    std::thread waiter(wait);
    Await([&] { return gate.tests > 0; });
    condition->Lock();
    condition->Unlock();
    EXPECT_TRUE(ChildSucceeds([&] {
        for (int round = 0; !threadSanitizer && round < 3; ++round) {
            gate.open = false;
            gate.tests = 0;
            std::thread own(wait);
            Await([&] { return gate.tests > 0; });
            passes(std::move(own));
        }
        condition.reset();
        _exit(0);
    }));
    passes(std::move(waiter));
}

class OpenWatcher final : public ZoResourceWatcher {
public:
    using ZoResourceWatcher::condition;
};

TEST(ResourceWatcher, CountsAndCloses) {
    OpenWatcher limits;
    limits.condition->value = INT_MIN;  // under UndefinedBehaviorSanitizer a plain step ends here
    EXPECT_EQ(limits.DecrementCounter(), INT_MAX);
    EXPECT_EQ(limits.IncrementCounter(), INT_MIN);

    ZoResourceWatcher plain;
    EXPECT_EQ(plain.WaitForZero(0), 0);
    for (int count : {1, 2, 3}) EXPECT_EQ(plain.IncrementCounter(), count);
    EXPECT_EQ(plain.Reset(), 0);
    EXPECT_EQ(plain.Counter(), 3);
    for (int count : {2, 1, 0, -1}) EXPECT_EQ(plain.DecrementCounter(), count);
    EXPECT_EQ(plain.IncrementCounter(), ZoRefused);

    constexpr int Closed = std::numeric_limits<int>::min();
    ZoLockableResourceWatcher lockable;
    EXPECT_EQ(lockable.IncrementCounter(), 1);
    EXPECT_EQ(lockable.IncrementCounter(), 2);
    std::thread owner([&] { EXPECT_EQ(lockable.WaitForZero(0), 0); });
    Await([&] { return lockable.Counter() == Closed + 2; });
    EXPECT_EQ(lockable.IncrementCounter(), ZoRefused);
    EXPECT_EQ(lockable.DecrementCounter(), Closed + 1);
    EXPECT_EQ(lockable.DecrementCounter(), Closed);
    owner.join();
    EXPECT_EQ(lockable.Counter(), Closed);
    EXPECT_EQ(lockable.DecrementCounter(), -1);  // wraps below the bit
    EXPECT_EQ(lockable.Reset(), 0);
    EXPECT_EQ(lockable.Counter(), std::numeric_limits<int>::max());
    EXPECT_EQ(lockable.IncrementCounter(), 0);
}

// One of the waiters is cancelled: it must not take the others' wake-up with it.
TEST(ResourceWatcher, ZeroLetsEveryWaiterPass) {
    Watchdog watchdog;
    for (int round = 0; round < 300; ++round) {
        auto watcher = std::make_unique<ZoLockableResourceWatcher>();
        watcher->IncrementCounter();
        std::atomic<pthread_t> cancelled{};
        OnThreads(8, [&](int thread) {
            if (thread < 7) {
                if (thread == 0) cancelled = pthread_self();
                watcher->WaitForZero(0);
            } else {
                Await([&] { return cancelled != 0; });
                if (round % 2 == 0) Await([&] { return watcher->Counter() < 0; });
                pthread_cancel(cancelled);
                watcher->DecrementCounter();
            }
        });
        watchdog.Progress();
    }
}

// The system may lose a signal to a variable on which three and more sleep.
TEST(Condition, NoTwoSleepOnOneVariableOfTheSystem) {
    constexpr int Waiters = 6;
    auto condition = Make();
    std::vector<std::thread> waiters;
    for (int i = 0; i < Waiters; ++i) {
        waiters.emplace_back(
            [&, i] { condition->WaitForCondition(0, i % 2 == 0 ? ZoNoLimit : 600'000); });
    }
    Await([] { return Sleeping::all == Waiters; });
    EXPECT_EQ(Sleeping::mostOnOne, 1);
    for (int i = 0; i < Waiters; ++i) condition->SetCondition();
    for (std::thread& waiter : waiters) waiter.join();
}

// A set and a cancellation meet one of two sleepers: the wake-up must reach the other one.
TEST(Condition, ACancelledSleeperPassesItsWakeUpOn) {
    for (int round = 0; round < 200; ++round) {
        auto condition = Make();
        std::atomic<pthread_t> first{};
        bool cancelled = false;
        std::thread victim([&] {
            cancelled = IsCancelled([&] {
                first = pthread_self();
                condition->WaitForCondition(0, ZoNoLimit);
            });
        });
        Await([&] { return Sleeping::all == 1; });
        int result = -1;
        std::thread other([&] { result = condition->WaitForCondition(0, 60'000); });
        Await([&] { return Sleeping::all == 2; });
        condition->Lock();  // the two come to the victim at one moment
        std::thread canceller([&] { pthread_cancel(first); });
        canceller.join();
        condition->Unlock();
        condition->SetCondition();
        victim.join();
        if (!cancelled) condition->SetCondition();
        other.join();
        EXPECT_EQ(result, ZoSuccess);
    }
}

}  // namespace
