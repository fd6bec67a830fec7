// Critical sections beside the recursive mutex of the standard library.
#include <benchmark/benchmark.h>

#include <memory>
#include <mutex>

#include "zocrits.h"

namespace {

class Ours {
public:
    void Enter() { section->Begin(); }
    void Leave() { section->Exit(); }

private:
    std::unique_ptr<ZoCritSect> section{ZoCritSect::Make("bench")};
};

class Peer {
public:
    void Enter() { mutex.lock(); }
    void Leave() { mutex.unlock(); }

private:
    std::recursive_mutex mutex;
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
    for (auto _ : state) {
        subject.Enter();
        benchmark::DoNotOptimize(++guarded);
        subject.Leave();
    }
}

BENCHMARK(EnterFree<Ours>)->Name("enter + leave, free/zo");
BENCHMARK(EnterFree<Peer>)->Name("enter + leave, free/std::recursive_mutex");
BENCHMARK(ReEnter<Ours>)->Name("re-enter + leave/zo");
BENCHMARK(ReEnter<Peer>)->Name("re-enter + leave/std::recursive_mutex");
BENCHMARK(Contended<Ours>)->Name("contended/zo")->Threads(2)->UseRealTime();
BENCHMARK(Contended<Peer>)->Name("contended/std::recursive_mutex")->Threads(2)->UseRealTime();

}  // namespace
