// Work queues and concurrent calculations: the fate of each unit, order, wake-ups, the end of the
// workers, results.

#include "zowrkque.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <deque>
#include <latch>
#include <memory>
#include <numeric>
#include <random>

#include "cancelled.h"
#include "services.h"
#include "watchdog.h"
#include "zocond.h"
#include "zotls.h"

using namespace zotest;

namespace {

struct Destroyer {
    void operator()(ZoWorkQueue* queue) const { queue->Destroy(); }
};
using Queue = std::unique_ptr<ZoWorkQueue, Destroyer>;

Queue Make(int workers, void* context = nullptr) {
    return Queue(ZoWorkQueue::Create(workers, context));
}

// Keeps the one worker of a queue busy until it is told.
class Busy {
public:
    explicit Busy(Queue const& queue) {
        EXPECT_EQ(queue->Append(&unit), ZoSuccess);
        taken.wait();
    }
    void End() { released.count_down(); }

private:
    std::latch taken{1}, released{1};
    ScriptedUnit unit{[this] {
        taken.count_down();
        released.wait();
    }};
};

void CancelHere() {
    pthread_cancel(pthread_self());
    pthread_testcancel();
}

class WorkQueue : public testing::Test {
protected:
    Watchdog watchdog;
};
using Calculation = WorkQueue;

TEST_F(WorkQueue, WithoutWorkersTheAppenderHandles) {
    for (int const workers : {0, -1}) {
        int context = 0;
        auto const queue = Make(workers, &context);
        EXPECT_EQ(queue->ThreadCount(), 0);
        EXPECT_EQ(queue->Context(), &context);
        EXPECT_EQ(queue->DecreaseThreadCount(), ZoSuccess);
        ZoConcurrencyHelper::CalculateConcurrently();
        std::vector<std::thread::id> handlers;
        ScriptedUnit unit([&] { handlers.push_back(std::this_thread::get_id()); });
        EXPECT_EQ(queue->Append(&unit), ZoSuccess);
        std::vector<std::thread::id> const here{std::this_thread::get_id()};
        EXPECT_EQ(handlers, here);
        EXPECT_EQ(queue->Length(), 0);
        EXPECT_EQ(ZoConcurrencyHelper::GetResultObject()->parallel, 0);
        EXPECT_EQ(ZoConcurrencyHelper::CalculateResult(7), ZoNoResult);
        EXPECT_EQ(queue->Terminate(), 0);
        EXPECT_EQ(queue->Append(&unit), ZoRefused);
        EXPECT_EQ(queue->DecreaseThreadCount(), ZoRefused);
        EXPECT_EQ(queue->Length(), ZoRefused);
        EXPECT_EQ(handlers, here);
    }
}

TEST_F(WorkQueue, HandlesOrAbortsInTheOrderOfAppending) {
    constexpr int Units = 600;  // the queue has more than one item for so many
    std::vector<int> inOrder(Units);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (bool const terminate : {false, true}) {
        auto const queue = Make(1);
        Busy busy(queue);
        std::vector<int> handled, aborted;
        std::atomic<int> passed{0};
        std::deque<ScriptedUnit> units;
        for (int i = 0; i < Units; ++i) {
            units.emplace_back(
                [&, i] {
                    handled.push_back(i);
                    ++passed;
                },
                [&, i] { aborted.push_back(i); });
            EXPECT_EQ(queue->Append(&units.back()), ZoSuccess);
        }
        EXPECT_EQ(queue->Length(), Units);
        if (!terminate) {
            busy.End();
            Await([&] { return passed == Units; });
            EXPECT_EQ(handled, inOrder);
            EXPECT_EQ(queue->IncreaseThreadCount(), Units - 1);  // so often more were waiting
            continue;
        }
        EXPECT_EQ(queue->Terminate(), 0);
        EXPECT_EQ(aborted, inOrder);
        EXPECT_EQ(queue->Length(), ZoRefused);
        EXPECT_EQ(queue->Append(&units.front()), ZoRefused);
        EXPECT_EQ(queue->ThreadCount(), 1);
        queue->IncreaseThreadCount();
        busy.End();
        Await([&] { return queue->ThreadCount() == 0; });
        EXPECT_EQ(handled, std::vector<int>());
    }
}

TEST_F(WorkQueue, GrowsAndShrinks) {
    auto const queue = Make(3);
    EXPECT_EQ(queue->ThreadCount(), 3);
    EXPECT_EQ(queue->DecreaseThreadCount(), ZoSuccess);
    EXPECT_EQ(queue->DecreaseThreadCount(), ZoSuccess);
    Await([&] { return queue->ThreadCount() == 1; });
    EXPECT_EQ(queue->Length(), 0);
    queue->IncreaseThreadCount();
    EXPECT_EQ(queue->ThreadCount(), 2);
}

struct Fate {
    std::atomic<int> handled{0}, aborted{0}, refused{0};
};

// Deletes itself as soon as the queue has handed it over.
class Mortal : public ZoWorkUnit {
public:
    explicit Mortal(Fate& fate) : fate(fate) {}
    void Handle(ZoWorkQueue*) override { Meet(fate.handled); }
    void Aborted(ZoWorkQueue*) override { Meet(fate.aborted); }

private:
    void Meet(std::atomic<int>& one) {
        ++one;
        delete this;
    }
    Fate& fate;
};

// Threads append, grow and shrink, each only by workers it added itself, so that one is always
// there. In two of three rounds the queue is terminated meanwhile: from outside, or by a worker.
TEST_F(WorkQueue, EveryUnitMeetsOneFate) {
    constexpr std::size_t Rounds = 30, Threads = 4, Steps = 150;
    enum End { Drained, Terminated, TerminatedByUnit, Ends };
    for (std::size_t round = 0; round < Rounds; ++round) {
        auto const end = static_cast<End>(round % Ends);
        auto queue = Make(1);
        // May be handled while `queue` is reset, which is empty then.
        ScriptedUnit terminating([its = queue.get()] { its->Terminate(); });
        std::deque<Fate> fates(Threads * Steps);
        OnThreads(Threads, [&](int number) {
            auto const thread = static_cast<std::size_t>(number);
            std::mt19937 random(static_cast<unsigned>(round * Threads + thread));
            int added = 0;
            for (std::size_t i = 0; i < Steps; ++i) {
                bool const last = thread == 0 && i == Steps / 2;
                if (last && end == Terminated) queue->Terminate();
                if (last && end == TerminatedByUnit) queue->Append(&terminating);
                unsigned const dice = random() % 16;
                if (dice == 0 && added < 4) {
                    queue->IncreaseThreadCount();
                    ++added;
                } else if (dice == 1 && added > 0) {
                    queue->DecreaseThreadCount();
                    --added;
                }
                Fate& fate = fates[thread * Steps + i];
                auto* const unit = new Mortal(fate);
                if (queue->Append(unit) == ZoSuccess) continue;
                ++fate.refused;
                delete unit;
            }
        });
        if (end == Drained) {  // no more appends: a worker that sleeps now sleeps on
            Await([&] { return queue->Length() == 0; });
        }
        queue.reset();
        for (Fate const& fate : fates) {
            ASSERT_EQ(fate.handled + fate.aborted + fate.refused, 1);
            ASSERT_EQ(fate.handled, end == Drained ? 1 : fate.handled.load());
        }
        watchdog.Progress();
    }
}

// The workers of a queue that is being terminated leave it one by one. That the last one is gone
// does not make it a queue without workers, whose appender handles the unit.
TEST_F(WorkQueue, NoAppenderTakesOverFromWorkersThatLeave) {
    constexpr int Rounds = 2000;
    for (int i = 0; i < Rounds; ++i) {
        std::thread::id appender;
        std::atomic<int> takenOver{0};
        ScriptedUnit unit([&] { takenOver += std::this_thread::get_id() == appender ? 1 : 0; });
        auto const queue = Make(1);
        OnThreads(2, [&](int thread) {
            if (thread == 0) {
                queue->Terminate();
                return;
            }
            appender = std::this_thread::get_id();
            while (queue->Append(&unit) == ZoSuccess) {
            }
        });
        ASSERT_EQ(takenOver, 0);
        watchdog.Progress();
    }
}

// Two units that wait for each other, again and again: no unit waits while a worker sleeps or holds
// it back for itself. Now and then both workers have time to fall asleep.
TEST_F(WorkQueue, EveryWaitingUnitGetsAWorker) {
    constexpr int Pairs = 3000;
    auto const queue = Make(2);
    for (int i = 0; i < Pairs; ++i) {
        std::latch started(2), handled(2);
        ScriptedUnit::Step const meet = [&] {
            started.arrive_and_wait();
            handled.count_down();
        };
        ScriptedUnit one(meet), other(meet);
        queue->Append(&one);
        if (i % 3 == 0) std::this_thread::yield();
        queue->Append(&other);
        handled.wait();
        if (i % 16 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
        watchdog.Progress();
    }
}

// A worker still releases its record, with the condition in it, when nobody waits for it any more:
// the context may end at once.
TEST_F(WorkQueue, EndsWhenItsWorkersAreDone) {
    for (int round = 0; round < 500; ++round) {
        ___ZoExtendedContext(1);
        bool const destroy = round % 2 == 0;
        ZoWorkQueue* const queue = ZoWorkQueue::Create(destroy ? 4 : 1, nullptr);
        std::latch taken{1};
        bool done = false;
        ScriptedUnit unit([&] {
            TLSGetCondition();
            taken.count_down();
            Await([&] { return queue->Length() == ZoRefused; });
            for (int i = 0; i < 100; ++i) std::this_thread::yield();
            done = true;
        });
        ScriptedUnit forgotten([] { ADD_FAILURE(); }, [] { ADD_FAILURE(); });
        queue->Append(&unit);
        taken.wait();
        if (destroy) {
            queue->Destroy();
        } else {  // neither handles nor aborts what is waiting
            queue->Append(&forgotten);
            delete queue;
        }
        EXPECT_TRUE(done);
        ___ZoExtendedContext(0);
        watchdog.Progress();
    }
}

TEST_F(WorkQueue, ACancelledThreadLeavesTheQueueUsable) {
    auto const plain = Make(0);
    ScriptedUnit cancelling(CancelHere);
    EXPECT_TRUE(IsCancelled([&] { plain->Append(&cancelling); }));
    EXPECT_EQ(plain->Length(), 0);  // would block for ever on a lock left behind

    auto queue = Make(1);
    Busy busy(queue);
    int aborted = 0;
    ScriptedUnit first([] {}, CancelHere);
    ScriptedUnit second([] {},
                        [&] {
                            ++aborted;
                            pthread_testcancel();
                            busy.End();
                        });
    queue->Append(&first);
    queue->Append(&second);
    EXPECT_TRUE(IsCancelled([&] { queue->Terminate(); }));
    EXPECT_EQ(aborted, 0);
    bool destroyed = false;
    EXPECT_TRUE(IsCancelled([&] {
        pthread_cancel(pthread_self());
        queue.reset();
        destroyed = true;
        pthread_testcancel();
    }));
    EXPECT_EQ(aborted, 1);
    EXPECT_TRUE(destroyed);
}

// A unit is being handled, another thread holds the lock, and units are waiting.
TEST_F(WorkQueue, AChildDestroysItsParentsQueue) {
    auto queue = Make(1);
    Busy busy(queue);
    std::latch inAborted{1}, destroyed{1};
    std::atomic<int> aborted{0};
    auto const abort = [&] {
        if (++aborted == 1) {
            inAborted.count_down();
            destroyed.wait();
        }
    };
    ScriptedUnit units[]{ScriptedUnit([] {}, std::ref(abort)),
                         ScriptedUnit([] {}, std::ref(abort))};
    for (ScriptedUnit& unit : units) queue->Append(&unit);
    std::thread terminator([&] { queue->Terminate(); });
    inAborted.wait();
    EXPECT_TRUE(ChildSucceeds([&] {
        queue.reset();
        _exit(aborted == 1 ? 0 : 1);
    }));
    destroyed.count_down();
    terminator.join();
    EXPECT_EQ(aborted, 2);
    busy.End();
}

TEST_F(Calculation, OnOneThread) {
    Services services;
    EXPECT_EQ(ZoConcurrencyHelper::IsConcurrent(), 0);
    EXPECT_EQ(ZoConcurrencyHelper::GetResultObject(), nullptr);
    EXPECT_EQ(ZoConcurrencyHelper::CalculateResult(7), 7);
    ZoConcurrencyHelper::SetResult(nullptr, 3);
    struct {
        int stored, result;
    } const rows[] = {{5, 5}, {0, 7}, {-1, -1}, {ZoNoResult, ZoNoResult}};
    for (auto const& row : rows) {
        ZoConcurrencyHelper::CalculateConcurrently();
        EXPECT_EQ(ZoConcurrencyHelper::IsConcurrent(), 1);
        ZoResult* const result = ZoConcurrencyHelper::GetResultObject();
        EXPECT_STREQ(result->condition->GetName(), "ConcurrencyHelper");
        if (row.stored != ZoNoResult) ZoConcurrencyHelper::SetResult(result, row.stored);
        EXPECT_EQ(ZoConcurrencyHelper::CalculateResult(7), row.result);
        EXPECT_EQ(ZoConcurrencyHelper::IsConcurrent(), 0);
    }
    EXPECT_EQ(services.Assertions(), Services::Lines());
    ZoConcurrencyHelper::CalculateConcurrently();
    std::unique_ptr<ZoResult> const replaced(ZoConcurrencyHelper::GetResultObject());
    ZoConcurrencyHelper::CalculateConcurrently();
    EXPECT_EQ(services.Assertions(), Services::Lines{"res == 0 src/zowrkque 86"});
    EXPECT_NE(ZoConcurrencyHelper::GetResultObject(), replaced.get());
    delete replaced->condition;
    EXPECT_EQ(ZoConcurrencyHelper::CalculateResult(7), ZoNoResult);
}

// A unit that has stored its result is gone for the thread that waits for it: so is the result.
TEST_F(Calculation, OnAWorker) {
    constexpr int Threads = 3, Calculations = 700;
    auto const queue = Make(2);
    OnThreads(Threads, [&](int) {
        for (int i = 0; i < Calculations; ++i) {
            ZoConcurrencyHelper::CalculateConcurrently();
            ZoResult* const open = ZoConcurrencyHelper::GetResultObject();
            ScriptedUnit answer([=] {
                if (i % 2 == 0) std::this_thread::yield();
                ZoConcurrencyHelper::SetResult(open, i);
            });
            EXPECT_EQ(queue->Append(&answer), ZoSuccess);
            EXPECT_EQ(open->parallel, 1);
            ASSERT_EQ(ZoConcurrencyHelper::CalculateResult(-7), i != 0 ? i : -7);
            watchdog.Progress();
        }
    });
}

}  // namespace
