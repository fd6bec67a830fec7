// An increment through the library's object beside one through an object of the caller's own.
#include <benchmark/benchmark.h>

#include <atomic>

#include "zointrlk.h"

namespace {

class Counter {
public:
    virtual ~Counter() = default;
    virtual long Increment(std::atomic<ZoInt32>& target) = 0;
};

class AtomicCounter final : public Counter {
public:
    long Increment(std::atomic<ZoInt32>& target) override { return target.fetch_add(1) + 1; }
};

// Could be meant by a call through the base as well: with one class alone the compiler makes it a
// direct call.
class NoCounter final : public Counter {
public:
    long Increment(std::atomic<ZoInt32>&) override { return 0; }
};

void Ours(benchmark::State& state) {
    static ZoInt32 value = 0;
    ZoInterlocked* const operations = GetZoInterlocked();
    for (auto _ : state) {
        benchmark::DoNotOptimize(operations->Increment(&value));
    }
}

void Peer(benchmark::State& state) {
    static std::atomic<ZoInt32> value = 0;
    AtomicCounter counter;
    NoCounter none;
    Counter* objects[] = {&counter, &none};
    benchmark::DoNotOptimize(objects);
    Counter* const object = objects[0];
    for (auto _ : state) {
        benchmark::DoNotOptimize(object->Increment(value));
    }
}

BENCHMARK(Ours)->Name("increment/zo")->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(Peer)->Name("increment/std::atomic")->ThreadRange(1, 2)->UseRealTime();

}  // namespace
