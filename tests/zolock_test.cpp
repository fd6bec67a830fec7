// The locks in the standard's terms: the standard's own locks over them, brackets, monitors.

#include "zolock.h"

#include <gtest/gtest.h>

#include <climits>
#include <condition_variable>
#include <functional>
#include <limits>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cancelled.h"
#include "services.h"
#include "watchdog.h"
#include "zosleep.h"

using namespace zotest;
using namespace std::chrono_literals;

namespace {

class StandardLocks : public testing::TestWithParam<bool> {
protected:
    Watchdog watchdog;
    Services services;
    Context context{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(Detection, StandardLocks, testing::Bool());

TEST_P(StandardLocks, TryTellsWhetherTheSectionIsFree) {
    class Host : public ZoCritSect {
    public:
        Host() : ZoCritSect("host") {}
    };
    struct {
        ZoCritSect* made;
        int free, again, taken;
    } const kinds[] = {
        {ZoCritSect::Make("any"), 1, 1, 0},
        {ZoCritSect::MakeImplementation("plain"), 1, 1, 0},
        {ZoCritSect::MakeDummy("dummy"), 1, 1, 1},
        {new Host, 0, 0, 0},
    };
    for (auto const& [made, free, again, taken] : kinds) {
        SCOPED_TRACE(made->GetName());
        ZoSection section(made);
        std::string const before = InfoOf(made);
        EXPECT_EQ(section.try_lock(), free);
        EXPECT_EQ(section.try_lock(), again);
        std::thread([&, expected = taken != 0] {
            std::unique_lock<ZoSection> const other(section, std::try_to_lock);
            EXPECT_EQ(other.owns_lock(), expected);
        }).join();
        for (int level = free + again; level != 0; --level) section.unlock();
        EXPECT_EQ(InfoOf(made), before);
    }
    EXPECT_TRUE(services.Messages().empty());
}

// Each row: the levels that a thread starts (r, w) and ends (R, W); then whether it may read and
// write beyond them, and whether another thread may, without a wait.
TEST_P(StandardLocks, TryTellsWhetherTheSharedSectionMayBeReadOrWritten) {
    class Host : public ZoGenRW_Mutex {};
    struct {
        ZoRW_Mutex* made;
        char const* steps;
        bool read, write, otherRead, otherWrite;
    } const rows[] = {
        {ZoRW_Mutex::Make(nullptr), "", true, true, true, true},
        {ZoRW_Mutex::Make(nullptr), "wW", true, true, true, true},
        {ZoRW_Mutex::Make(nullptr), "r", true, false, true, false},
        {ZoRW_Mutex::Make(nullptr), "wWr", true, false, true, false},
        {ZoRW_Mutex::Make(nullptr), "w", true, true, false, false},
        {ZoRW_Mutex::Make(nullptr), "wr", true, true, false, false},
        {new ZoRW_Mutex, "rw", true, true, true, true},
        {new Host, "", false, false, false, false},
    };
    for (auto const& [made, steps, read, write, otherRead, otherWrite] : rows) {
        SCOPED_TRACE(steps);
        std::unique_ptr<ZoRW_Mutex> const mutex(made);
        for (char const* step = steps; *step != '\0'; ++step) {
            int const mode = *step == 'w' || *step == 'W';
            *step == 'r' || *step == 'w' ? mutex->StartRW(mode, 0) : mutex->EndRW(mode);
        }
        std::string const before = InfoOf(made);
        auto const mayEnter = [&, made = made](int mode) {
            bool const may = ZoTryStartRW(made, mode) != 0;
            if (may) made->EndRW(mode);
            EXPECT_EQ(InfoOf(made), before);
            return may;
        };
        for (int twice = 0; twice < 2; ++twice) {
            EXPECT_EQ(mayEnter(0), read);
            EXPECT_EQ(mayEnter(-7), write);
            std::thread([&, r = otherRead, w = otherWrite] {
                EXPECT_EQ(mayEnter(0), r);
                EXPECT_EQ(mayEnter(1), w);
            }).join();
        }
        made->ForceRelease();
    }
    EXPECT_TRUE(services.Messages().empty());
    EXPECT_TRUE(services.Assertions().empty());
    ZoSharedSection deep;
    for (int level = 0; level < 65535; ++level) deep.lock_shared();
    EXPECT_THROW(deep.lock_shared(), std::system_error);
    EXPECT_FALSE(deep.try_lock_shared());
    deep.Get().ForceRelease();
}

// Beside threads that wait, and a writer that waits for a reader; what is written is plain memory.
TEST_P(StandardLocks, TriesKeepOthersOutAndAreInNobodysWay) {
    ZoSharedSection shared;
    std::string const before = InfoOf(&shared.Get());
    constexpr int Rounds = 3000;
    long left = 0, right = 0;
    std::atomic<long> writes{0};
    auto const read = [&] { EXPECT_EQ(left, right); };
    auto const write = [&] {
        ++left;
        if (++writes % 8 == 0) ZoThreadSwitch();
        ++right;
    };
    OnThreads(6, [&](int thread) {
        for (int i = 0; i < Rounds; ++i) {
            if (i % 2 == 0) {
                std::shared_lock<ZoSharedSection> reader(shared, std::defer_lock);
                if (thread == 0) reader.lock();
                if (reader || reader.try_lock()) read();
            } else {
                std::unique_lock<ZoSharedSection> writer(shared, std::defer_lock);
                if (thread == 1) writer.lock();
                if (writer || writer.try_lock()) write();
            }
            watchdog.Progress();
        }
    });
    EXPECT_EQ(left, writes);
    EXPECT_EQ(right, writes);
    EXPECT_EQ(InfoOf(&shared.Get()), before);
    // A gate that a try has closed is open again: the condition's lock is not needed at an end.
    ZoSharedHold reader(shared);
    EXPECT_EQ(WordOf<Condition>(&shared.Get(), 4)->SetConditionApp(nullptr, nullptr), 0);
    // The waiting writer comes first.
    CancelWhen(
        [&] {
            if (NumberAfter(InfoOf(&shared.Get()), "wait_wr #") == 0) return false;
            EXPECT_FALSE(shared.try_lock_shared());
            EXPECT_FALSE(shared.try_lock());
            return true;
        },
        [&] { shared.lock(); });
    EXPECT_TRUE(shared.try_lock_shared());
    shared.unlock_shared();
}

// No order of them is wrong for std::scoped_lock, and each thread gets its turn.
TEST_P(StandardLocks, ExcludeWhicheverLockHoldsThem) {
    ZoSection one("one"), two("two");
    PosixCritSect three("three");
    ZoSharedSection shared;
    constexpr int Threads = 4, Rounds = 2000;
    long ofOne = 0, ofTwo = 0, ofShared = 0, seen = 0;
    std::condition_variable_any turned;
    OnThreads(Threads, [&](int thread) {
        for (int i = 0; i < Rounds; ++i) {
            {
                std::unique_lock<ZoSection> mine(one);
                turned.wait(mine, [&] { return ofOne % Threads == thread; });
                ++ofOne;
                turned.notify_all();
            }
            ZoSection &first = thread % 2 == 0 ? one : two, &second = thread % 2 == 0 ? two : one;
            {
                std::scoped_lock all(first, shared, second);
                std::lock_guard<ZoSection> again(first);
                ++ofTwo;
            }
            {
                ZoHold writer(shared);
                ++ofShared;
            }
            {
                std::shared_lock<ZoSharedSection> reader(shared);
                ZoSharedHold again(shared);
                if (ofShared <= long{Threads} * Rounds) watchdog.Progress();
            }
            ZoHold hold(three);
            ZoHold again(two.Get());
            ++seen;
        }
    });
    for (long const count : {ofOne, ofTwo, ofShared, seen}) EXPECT_EQ(count, Threads * Rounds);
    EXPECT_TRUE(services.Messages().empty());
}

TEST(Limits, AreMillisecondsRoundedUp) {
    using Days = std::chrono::duration<double, std::ratio<86400>>;
    EXPECT_EQ(ZoMilliseconds(-1h), 0U);
    EXPECT_EQ(ZoMilliseconds(0s), 0U);
    EXPECT_EQ(ZoMilliseconds(1ns), 1U);
    EXPECT_EQ(ZoMilliseconds(1001us), 2U);
    EXPECT_EQ(ZoMilliseconds(4294967294ms), 4294967294U);
    EXPECT_EQ(ZoMilliseconds(4294967295ms), ZoNoLimit);
    EXPECT_EQ(ZoMilliseconds(std::chrono::hours::max()), ZoNoLimit);
    EXPECT_EQ(ZoMilliseconds(Days(std::numeric_limits<double>::infinity())), ZoNoLimit);
    std::unique_ptr<Condition> const condition(Condition::MakeCondition("c"));
    EXPECT_FALSE(ZoWaitFor(*condition, 1ms));
    condition->SetCondition();
    EXPECT_TRUE(ZoWaitFor(*condition, 0s));
}

class Monitors : public testing::Test {
protected:
    Watchdog watchdog;
    Context context{false};
    ZoMonitor monitor{"m"};
    std::atomic<int> tested{0};
};

// With limits that are long enough for the slowest machine.
TEST_F(Monitors, WaitUntilAPredicateIsTrue) {
    using Wait = std::function<bool(std::function<bool()>)>;
    Wait const waits[] = {
        [&](auto done) { return monitor.Wait(done), true; },
        [&](auto done) { return monitor.WaitFor(1h, done); },
        [&](auto done) { return monitor.WaitFor(std::chrono::hours::max(), done); },
        [&](auto done) { return monitor.WaitUntil(std::chrono::system_clock::now() + 1h, done); },
    };
    for (Wait const& wait : waits) {
        tested = 0;
        int state = 0, calls = 0;
        std::thread waiter([&] {
            EXPECT_TRUE(wait([&] {
                ++tested;
                return state == 2 && ++calls != 0;
            }));
        });
        Await([&] { return tested >= 1; });  // tested with the lock that it gives up to sleep
        monitor.Change([] {});
        Await([&] { return tested >= 2; });
        monitor.Change([&] { state = 2; });
        waiter.join();
        EXPECT_EQ(calls, 1) << "a predicate that was true is not asked again";
    }
}

TEST_F(Monitors, EndWhenTheTimeIsOverHoweverOftenTheyAreWoken) {
    EXPECT_FALSE(monitor.WaitFor(std::chrono::hours::min(), [] { return false; }));
    using Clock = std::chrono::system_clock;
    EXPECT_FALSE(monitor.WaitUntil(Clock::time_point::min(), [] { return false; }));
    for (auto const limit : {0ms, -5ms, 30ms}) {
        auto const start = std::chrono::steady_clock::now();
        EXPECT_FALSE(monitor.WaitFor(limit, [] { return false; }));
        EXPECT_GE(std::chrono::steady_clock::now() - start, limit);
    }
    std::atomic<bool> over{false};
    std::thread disturber([&] {
        while (!over) monitor.ChangeForAll([] {});
    });
    EXPECT_FALSE(monitor.WaitFor(50ms, [] { return false; }));
    over = true;
    disturber.join();
}

TEST_F(Monitors, AChangeForAllWakesAllOfThem) {
    constexpr int Waiters = 5;
    for (int round = 0; round < 50; ++round) {
        int open = -1;
        std::atomic<int> passed{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < Waiters; ++i) {
            waiters.emplace_back([&] {
                monitor.Wait([&] { return ++tested, open == round; });
                ++passed;
            });
        }
        Await([&] { return tested >= Waiters; });
        monitor.ChangeForAll([] {});
        monitor.ChangeForAll([&] { open = round; });
        for (std::thread& waiter : waiters) waiter.join();
        EXPECT_EQ(passed, Waiters);
        tested = 0;
        watchdog.Progress();
    }
}

TEST_F(Monitors, PassExceptionsOnAndSurviveCancellation) {
    EXPECT_THROW(monitor.Change([] { throw std::runtime_error("change"); }), std::runtime_error);
    EXPECT_THROW(monitor.Wait([]() -> bool { throw std::runtime_error("test"); }),
                 std::runtime_error);
    CancelWhen([&] { return tested == 1; }, [&] { monitor.Wait([&] { return ++tested, false; }); });
    // One that throws when it is woken has passed the waking on.
    tested = 0;
    bool all = false;
    std::thread throwing([&] {
        EXPECT_THROW(monitor.Wait([&] {
            ++tested;
            return all ? throw std::runtime_error("woken") : false;
        }),
                     std::runtime_error);
    });
    Await([&] { return tested == 1; });
    std::thread behind([&] { monitor.Wait([&] { return ++tested, all; }); });
    Await([&] { return tested == 2; });
    monitor.ChangeForAll([&] { all = true; });
    throwing.join();
    behind.join();
}

}  // namespace
