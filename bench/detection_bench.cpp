// Deadlock-detecting sections beside mutexes that look for deadlocks as well.
#include <absl/synchronization/mutex.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "hot_owner.h"
#include "zocond.h"
#include "zocrits.h"
#include "zotls.h"

namespace {

// One thread at a time: the switch is the whole process's.
std::unique_ptr<ZoCritSect> MakeSection(bool detecting) {
    static std::mutex making;
    std::scoped_lock const hold(making);
    *ZoGetDeadLockDetectionEnabled() = detecting ? 1 : 0;
    std::unique_ptr<ZoCritSect> section(ZoCritSect::Make("bench"));
    *ZoGetDeadLockDetectionEnabled() = 0;
    return section;
}

template <bool Detecting>
class Section {
public:
    void Enter() { section->Begin(); }
    void Leave() { section->Exit(); }

private:
    std::unique_ptr<ZoCritSect> section = MakeSection(Detecting);
};

using Ours = Section<true>;
using Plain = Section<false>;

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
void EnterFree(benchmark::State& state) {
    Subject subject;  // each thread its own
    for (auto _ : state) {
        subject.Enter();
        subject.Leave();
    }
}

template <class Subject>
void ReEnter(benchmark::State& state) {
    Subject subject;
    subject.Enter();
    for (auto _ : state) {
        subject.Enter();
        subject.Leave();
    }
    subject.Leave();
}

// Two threads that want the same lock all the time, for as long as this lives.
template <class Subject>
class ContendedPair {
public:
    ContendedPair() = default;
    ContendedPair(ContendedPair const&) = delete;
    ContendedPair& operator=(ContendedPair const&) = delete;
    ~ContendedPair() {
        over = true;
        one.join();
        other.join();
    }

private:
    void Contend() {
        while (!over.load(std::memory_order_relaxed)) {
            subject.Enter();
            benchmark::DoNotOptimize(++guarded);
            subject.Leave();
        }
    }

    Subject subject;
    long guarded = 0;
    std::atomic<bool> over{false};
    std::thread one{[this] { Contend(); }};
    std::thread other{[this] { Contend(); }};
};

// The time is that of the threads whose locks are free.
template <class Contended, class Free>
void BesidePair(benchmark::State& state) {
    std::optional<ContendedPair<Contended>> pair;
    if (state.thread_index() == 0) pair.emplace();
    EnterFree<Free>(state);
}

template <class Subject>
void SecondThread(benchmark::State& state, int processors) {
    Subject subject;
    HotOwners::Run(state, subject, subject, 1, processors);
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
BENCHMARK(EnterFree<Ours>)->Name("enter + leave, free/zo");
BENCHMARK(EnterFree<Plain>)->Name("enter + leave, free/plain section");
BENCHMARK(ReEnter<Ours>)->Name("re-enter + leave/zo");
BENCHMARK(ReEnter<Plain>)->Name("re-enter + leave/plain section");
BENCHMARK(EnterFree<Ours>)->Name("unrelated sections/zo")->Threads(2)->UseRealTime();
BENCHMARK(EnterFree<Peer>)
    ->Name("unrelated sections/absl::Mutex with detection")
    ->Threads(2)
    ->UseRealTime();
BENCHMARK(Walk)->Name("a thread of 1,000 in a walk/zo")->UseManualTime()->Iterations(200);
BENCHMARK(BesidePair<Ours, Ours>)
    ->Name("free beside a contended pair/zo")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK(BesidePair<Peer, Peer>)
    ->Name("free beside a contended pair/absl::Mutex with detection")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK(BesidePair<Plain, Ours>)
    ->Name("free beside a contended pair/pair on a plain section")
    ->ThreadRange(1, 2)
    ->UseRealTime();

int const registered = [] {
    std::string const name = "second thread against a hot owner";
    RegisterOnProcessors(name, "zo", SecondThread<Ours>);
    RegisterOnProcessors(name, "pthread_mutex_t", SecondThread<PosixMutex>);
    RegisterOnProcessors(name, "absl::Mutex with detection", SecondThread<Peer>);
    return 0;
}();

}  // namespace
