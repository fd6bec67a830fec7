// An increment through the library's object beside one through an object of the caller's own.
#include <benchmark/benchmark.h>

#include <atomic>
#include <memory>

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

void Ours(benchmark::State& state) {
    static ZoInt32 value = 0;
    ZoInterlocked* const operations = GetZoInterlocked();
    for (auto _ : state) {
        benchmark::DoNotOptimize(operations->Increment(&value));
    }
}

void Peer(benchmark::State& state) {
    static std::atomic<ZoInt32> value = 0;
    static std::unique_ptr<Counter> const operations = std::make_unique<AtomicCounter>();
    Counter* object = operations.get();
    benchmark::DoNotOptimize(object);  // the compiler must not see which class it is
    for (auto _ : state) {
        benchmark::DoNotOptimize(object->Increment(value));
    }
}

BENCHMARK(Ours)->Name("increment/zo")->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(Peer)->Name("increment/std::atomic")->ThreadRange(1, 2)->UseRealTime();

}  // namespace
