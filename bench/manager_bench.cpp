// A bracket of the thread manager beside the mutex that it takes, used directly.
#include <benchmark/benchmark.h>

#include <memory>

#include "rw_mutex.h"
#include "zolock.h"
#include "zothrdmg.h"

namespace {

void Bracket(benchmark::State& state) {
    auto const manager = std::make_unique<ZoThreadMgr>(nullptr, ZoThreadMgr::AllCS);
    for (auto _ : state) {
        manager->BeginReader("bench");
        manager->EndReader("bench");
    }
}

void Mutex(benchmark::State& state) {
    std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
    for (auto _ : state) {
        mutex->StartRW(0, ZoNoLimit);
        mutex->EndRW(0);
    }
}

void Scope(benchmark::State& state) {
    auto const manager = std::make_unique<ZoThreadMgr>(nullptr, ZoThreadMgr::AllCS);
    for (auto _ : state) ZoReader const reader(*manager, "bench");
}

BENCHMARK(Bracket)->Name("reader bracket/zo");
BENCHMARK(Mutex)->Name("reader bracket/the mutex beneath");
BENCHMARK(Scope)->Name("ZoReader/zo");
BENCHMARK(Bracket)->Name("ZoReader/the plain calls");

}  // namespace
