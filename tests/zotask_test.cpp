// Calls submitted to work queues, loops over a range, and a pool's number of workers.

#include "zotask.h"

#include <gtest/gtest.h>

#include <latch>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>

#include "alloc_fault.h"
#include "cancelled.h"
#include "services.h"
#include "watchdog.h"

using namespace zotest;
using namespace std::chrono_literals;
using zotask::ParallelFor;
using zotask::Submit;
using zotask::Task;

namespace {

// Each test with a queue of no, one and several workers.
class Tasks : public testing::TestWithParam<int> {
protected:
    ~Tasks() override {
        if (queue != nullptr) queue->Destroy();
    }
    // Keeps every worker busy until `release` is counted down.
    void Occupy() {
        for (int i = 0; i < GetParam(); ++i) {
            Submit(*queue, [this] {
                taken.count_down();
                release.wait();
            });
        }
        taken.wait();
    }

    std::latch taken{GetParam()}, release{1};
    Watchdog watchdog;
    Context context{false};
    ZoWorkQueue* queue = ZoWorkQueue::Create(GetParam(), nullptr);
};
INSTANTIATE_TEST_SUITE_P(Workers, Tasks, testing::Values(0, 1, 3));

int Fibonacci(ZoWorkQueue& queue, int n) {
    if (n < 2) return n;
    Task<int> one = Submit(queue, [&queue, n] { return Fibonacci(queue, n - 1); });
    int const other = Fibonacci(queue, n - 2);
    return one.Get() + other;
}

TEST_P(Tasks, GiveTheCollectorTheirResultOrException) {
    int word = 0;
    EXPECT_EQ(Submit(*queue, [] { return std::make_unique<int>(5); }).Get().operator*(), 5);
    EXPECT_EQ(&Submit(*queue, [&]() -> int& { return word; }).Get(), &word);
    int&& moved = Submit(*queue, [&]() -> int&& { return std::move(word); }).Get();
    EXPECT_EQ(&moved, &word);
    Task<void> nothing = Submit(*queue, [&] { word = 7; });
    nothing.Get();
    EXPECT_EQ(word, 7);
    EXPECT_TRUE(nothing.IsEmpty());
    EXPECT_THROW(Submit(*queue, []() -> int { throw std::range_error("x"); }).Get(),
                 std::range_error);
    EXPECT_EQ(Fibonacci(*queue, 12), 144) << "calls collect calls, however few the workers";
    OnThreads(3, [&](int thread) {
        for (int i = 0; i < 500; ++i) {
            Task<int> task = Submit(*queue, [i] { return i; });
            if (thread == 0) {
                while (!task.WaitFor(i % 3 * 1us)) watchdog.Progress();
                EXPECT_TRUE(task.HasEnded());
            }
            ASSERT_EQ(task.Get(), i);
        }
    });
}

TEST_P(Tasks, RunOnceOrNeverAndDropWhatTheyCaptured) {
    Occupy();
    auto const captured = std::make_shared<int>(0);
    std::atomic<int> runs{0};
    auto const call = [&runs, captured] { return ++runs; };
    bool const begins = GetParam() == 0;  // within Submit
    Task<int> cancelled = Submit(*queue, call), collected = Submit(*queue, call);
    EXPECT_EQ(cancelled.HasEnded(), begins);
    EXPECT_EQ(cancelled.WaitFor(1ms), begins);
    EXPECT_EQ(cancelled.Cancel(), !begins);
    EXPECT_FALSE(cancelled.Cancel());
    if (!begins) {
        EXPECT_THROW(cancelled.Get(), zotask::Cancelled);
    }
    collected.Get();
    Submit(*queue, call);  // let go
    EXPECT_EQ(captured.use_count(), begins ? 2 : 3);
    Task<int> waiting = Submit(*queue, call);
    if (GetParam() != 0) {
        queue->Terminate();
        EXPECT_THROW(waiting.Get(), zotask::Cancelled);
        EXPECT_THROW(Submit(*queue, call).Get(), zotask::Cancelled);
    }
    release.count_down();
    EXPECT_EQ(runs, begins ? 4 : 1);
    EXPECT_EQ(captured.use_count(), 2) << "the test's and its call's";
}

TEST_P(Tasks, OutliveACancelledCollector) {
    if (GetParam() == 0) return;
    std::atomic<bool> begun{false}, waits{false};
    Task<int> task = Submit(*queue, [&] {
        begun = true;
        release.wait();
        return 3;
    });
    Await([&] { return begun.load(); });
    CancelWhen([&] { return waits.load(); },
               [&] {
                   waits = true;
                   task.Wait();
               });
    EXPECT_FALSE(task.WaitFor(0s));
    release.count_down();
    EXPECT_EQ(task.Get(), 3);
}

TEST_P(Tasks, LoopsCallEachPlaceOnce) {
    for (std::size_t const count : {0U, 1U, 2U, 7U, 1000U}) {
        for (std::size_t const grain : {0U, 1U, 3U, 5000U}) {
            std::vector<std::atomic<int>> calls(count);
            ParallelFor(
                *queue, calls.begin(), calls.end(), [](auto at) { ++*at; }, grain);
            ParallelFor(
                *queue, std::size_t{0}, count, [&](std::size_t i) { ++calls[i]; }, grain);
            for (auto const& of : calls) ASSERT_EQ(of, 2);
        }
    }
    std::atomic<long> sum{0};
    Task<void> const nested = Submit(*queue, [&] {
        ParallelFor(*queue, -100, 100,
                    [&](int i) { ParallelFor(*queue, 0, 3, [&](int) { sum += i; }); });
    });
    Await([&] { return nested.HasEnded(); });
    ParallelFor(*queue, 5, -5, [&](int) { sum = 1; });
    EXPECT_EQ(sum, -300);
    // The first exception ends the loop, on whichever thread; none is lost, none is left running.
    std::atomic<int> inside{0}, calls{0};
    for (int const thrower : {0, 500, 999}) {
        EXPECT_THROW(ParallelFor(*queue, 0, 1000,
                                 [&](int i) {
                                     ++inside;
                                     ++calls;
                                     ZoThreadSwitch();
                                     --inside;
                                     if (i == thrower) throw std::to_string(i);
                                 }),
                     std::string);
        EXPECT_EQ(inside, 0);
    }
    EXPECT_LT(calls, 3000);
    if (GetParam() == 0) return;
    Occupy();
    std::atomic<bool> begun{false};
    CancelWhen([&] { return begun.load(); },
               [&] {
                   ParallelFor(*queue, 0, 1000, [&](int) {
                       begun = true;
                       SysSleep(100);
                   });
               });
    queue->Terminate();
    sum = 0;
    ParallelFor(*queue, 0, 100, [&](int i) { sum += i; });
    EXPECT_EQ(sum, 4950) << "without the workers of a terminated queue";
    release.count_down();
}

TEST_P(Tasks, FailWholeWhereMemoryRunsOut) {
    NEEDS_ALLOC_FAULTS();
    std::atomic<int> runs{0};
    int submitted = 0;
    FailEachAllocation([&](AllocFault const&) {
        try {
            Task<void> const task = Submit(*queue, [&] { ++runs; });
            ++submitted;
            Await([&] { return task.HasEnded(); });
        } catch (std::bad_alloc const&) {
        }
    });
    EXPECT_EQ(runs, submitted);
    FailEachAllocation([&](AllocFault const&) {
        runs = 0;
        ParallelFor(*queue, 0, 50, [&](int) { ++runs; });
        EXPECT_EQ(runs, 50);
    });
    FailEachAllocation([&](AllocFault const&) {
        try {
            zotask::Pool pool(GetParam());
            EXPECT_GE(pool.Workers(), 1);
        } catch (std::bad_alloc const&) {
        }
    });
}

TEST(TaskPool, HasTheWorkersThatWereWantedLast) {
    Watchdog watchdog;
    Context const context(false);
    zotask::Pool pool(3);
    EXPECT_EQ(pool.Workers(), 3);
    for (int const wanted : {5, 1, 0, 4, -7, 2}) {
        pool.SetWorkers(wanted);
        Await([&] { return pool.Workers() == std::max(wanted, 1); });
    }
    // Whoever changes it in between, no call is left waiting.
    OnThreads(3, [&](int thread) {
        for (int i = 0; i < 300; ++i) {
            pool.SetWorkers((i + thread) % 4);
            Task<int> const task = Submit(pool, [&pool, i] { return pool.SetWorkers(i % 5), i; });
            Await([&] { return task.HasEnded(); });
            watchdog.Progress();
        }
    });
    pool.SetWorkers(2);
    Await([&] { return pool.Workers() == 2; });
    std::latch both(2);
    Task<void> const meets = Submit(pool, [&] { both.arrive_and_wait(); });
    Submit(pool, [&] { both.arrive_and_wait(); });
    Await([&] { return meets.HasEnded(); });
    // A call that still runs when the pool ends.
    for (int round = 0; round < 100; ++round) {
        std::latch begun(1);
        zotask::Pool ending(4);
        Submit(ending, [&] {
            begun.count_down();
            for (int i = 0; i < 500; ++i) ending.SetWorkers(i % 2 == 0 ? 4 : 1);
        });
        begun.wait();
        watchdog.Progress();
    }
}

}  // namespace
