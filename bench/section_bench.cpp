// Critical sections beside the recursive mutex of the standard library, and how a second thread
// fares at them, beside mutexes that are not recursive.
#include <absl/synchronization/mutex.h>
#include <benchmark/benchmark.h>

#include <memory>
#include <mutex>
#include <string>

#include "hot_owner.h"
#include "processors.h"
#include "zocrits.h"
#include "zolock.h"

namespace {

class Ours {
public:
    void Enter() { section->Begin(); }
    void Leave() { section->Exit(); }

private:
    std::unique_ptr<ZoCritSect> section{ZoCritSect::Make("bench")};
};

// Through the standard's locks; its peer are the plain calls on the same kind of section.
void Guarded(benchmark::State& state) {
    ZoSection section("bench");
    for (auto _ : state) std::lock_guard<ZoSection> const hold(section);
}

void GuardedByHand(benchmark::State& state) {
    ZoSection section("bench");
    ZoCritSect& plain = section.Get();
    for (auto _ : state) {
        plain.Begin();
        plain.Exit();
    }
}

void Tried(benchmark::State& state) {
    ZoSection section("bench");
    for (auto _ : state) std::unique_lock<ZoSection> const hold(section, std::try_to_lock);
}

void TriedByHand(benchmark::State& state) {
    ZoSection section("bench");
    ZoCritSect& plain = section.Get();
    for (auto _ : state) {
        if (ZoTryBegin(&plain) != 0) plain.Exit();
    }
}

class Peer {
public:
    void Enter() { mutex.lock(); }
    void Leave() { mutex.unlock(); }

private:
    std::recursive_mutex mutex;
};

class AbslMutex {
public:
    void Enter() { mutex.Lock(); }
    void Leave() { mutex.Unlock(); }

private:
    absl::Mutex mutex;
};

template <class Subject>
void EnterFree(benchmark::State& state) {
    Subject subject;
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

template <class Subject>
void Contended(benchmark::State& state) {
    static Subject subject;
    static long guarded = 0;
    OnProcessors const place(0, 2);
    for (auto _ : state) {
        subject.Enter();
        benchmark::DoNotOptimize(++guarded);
        subject.Leave();
    }
}

template <class Subject>
void SecondThread(benchmark::State& state, int processors) {
    Subject subject;
    HotOwners::Run(state, subject, subject, 1, processors);
}

BENCHMARK(EnterFree<Ours>)->Name("enter + leave, free/zo");
BENCHMARK(EnterFree<Peer>)->Name("enter + leave, free/std::recursive_mutex");
BENCHMARK(Guarded)->Name("std::lock_guard, free/zo");
BENCHMARK(GuardedByHand)->Name("std::lock_guard, free/the plain calls");
BENCHMARK(Tried)->Name("std::unique_lock, tried/zo");
BENCHMARK(TriedByHand)->Name("std::unique_lock, tried/the plain calls");
BENCHMARK(ReEnter<Ours>)->Name("re-enter + leave/zo");
BENCHMARK(ReEnter<Peer>)->Name("re-enter + leave/std::recursive_mutex");
BENCHMARK(Contended<Ours>)
    ->Name("contended/zo")
    ->Threads(2)
    ->Threads(8)
    ->Threads(32)
    ->UseRealTime();
BENCHMARK(Contended<Peer>)
    ->Name("contended/std::recursive_mutex")
    ->Threads(2)
    ->Threads(8)
    ->Threads(32)
    ->UseRealTime();

int const registered = [] {
    std::string const name = "second thread against a hot owner";
    RegisterOnProcessors(name, "zo", SecondThread<Ours>);
    RegisterOnProcessors(name, "pthread_mutex_t", SecondThread<PosixMutex>);
    RegisterOnProcessors(name, "absl::Mutex", SecondThread<AbslMutex>);
    return 0;
}();

}  // namespace
