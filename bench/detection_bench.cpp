// Deadlock-detecting sections beside mutexes that look for deadlocks as well.
#include <absl/synchronization/mutex.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "zocond.h"
#include "zocrits.h"
#include "zotls.h"

namespace {

std::unique_ptr<ZoCritSect> MakeSection(bool detecting) {
    *ZoGetDeadLockDetectionEnabled() = detecting ? 1 : 0;
    std::unique_ptr<ZoCritSect> section(ZoCritSect::Make("bench"));
    *ZoGetDeadLockDetectionEnabled() = 0;
    return section;
}

class Ours {
public:
    void Enter() { section->Begin(); }
    void Leave() { section->Exit(); }

private:
    std::unique_ptr<ZoCritSect> section = MakeSection(true);
};

class Peer {
public:
    Peer() { absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kReport); }
    void Enter() { mutex.Lock(); }
    void Leave() { mutex.Unlock(); }

private:
    absl::Mutex mutex;
};

template <class Subject>
void NestTwo(benchmark::State& state) {
    Subject outer, inner;
    for (auto _ : state) {
        outer.Enter();
        inner.Enter();
        inner.Leave();
        outer.Leave();
    }
}

template <class Subject>
void Unrelated(benchmark::State& state) {
    Subject subject;  // each thread its own
    for (auto _ : state) {
        subject.Enter();
        subject.Leave();
    }
}

void ReEnter(benchmark::State& state, bool detecting) {
    auto const section = MakeSection(detecting);
    section->Begin();
    for (auto _ : state) {
        section->Begin();
        section->Exit();
    }
    section->Exit();
}

// Threads in a row: each holds a section and waits for that of the thread before it. The first one
// waits for a section that this object's maker holds.
class WaitingThreads {
public:
    explicit WaitingThreads(int count) {
        for (int i = 0; i <= count; ++i) sections.push_back(MakeSection(true));
        sections[0]->Begin();
        for (int i = 1; i <= count; ++i) {
            std::unique_ptr<Condition> const holds(Condition::MakeCondition("holds"));
            threads.emplace_back([this, i, &holds] { HoldAndWait(i, *holds); });
            holds->WaitForCondition(0, ZoNoLimit);
        }
        // The last wait in the graph is the last thread's.
        while (ThreadWaitsForThread(last, ZoTLS::GetThreadLocalStorage()) == 0) {
            std::this_thread::yield();
        }
    }
    WaitingThreads(WaitingThreads const&) = delete;
    WaitingThreads& operator=(WaitingThreads const&) = delete;
    ~WaitingThreads() {
        sections[0]->Exit();
        for (std::thread& thread : threads) thread.join();
    }

    ZoTLS* Last() const { return last; }

private:
    void HoldAndWait(int place, Condition& holds) {
        auto const i = static_cast<std::size_t>(place);
        sections[i]->Begin();
        last = ZoTLS::GetThreadLocalStorage();
        holds.SetCondition();
        sections[i - 1]->Begin();
        sections[i - 1]->Exit();
        sections[i]->Exit();
    }

    std::vector<std::unique_ptr<ZoCritSect>> sections;
    std::vector<std::thread> threads;
    ZoTLS* last = nullptr;  // the newest thread's record; handed over by its condition
};

// The time is that of one thread on the way.
void Walk(benchmark::State& state) {
    constexpr int Count = 1000;
    WaitingThreads const waiting(Count);
    for (auto _ : state) {
        auto const start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(ThreadWaitsForThread(waiting.Last(), __defTLS));
        std::chrono::duration<double> const time = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(time.count() / Count);
    }
}

BENCHMARK(NestTwo<Ours>)->Name("two nested, free/zo");
BENCHMARK(NestTwo<Peer>)->Name("two nested, free/absl::Mutex with detection");
BENCHMARK_CAPTURE(ReEnter, zo, true)->Name("re-enter + leave/zo");
BENCHMARK_CAPTURE(ReEnter, plain, false)->Name("re-enter + leave/plain section");
BENCHMARK(Unrelated<Ours>)->Name("unrelated sections/zo")->Threads(2)->UseRealTime();
BENCHMARK(Unrelated<Peer>)
    ->Name("unrelated sections/absl::Mutex with detection")
    ->Threads(2)
    ->UseRealTime();
BENCHMARK(Walk)->Name("a thread of 1,000 in a walk/zo")->UseManualTime()->Iterations(200);

}  // namespace
