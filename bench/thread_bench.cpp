// A thread object from its making to its thread's end, beside a thread of the standard library.
#include <benchmark/benchmark.h>

#include <thread>

#include "zocond.h"
#include "zothread.h"

namespace {

class Step final : public ZoThread {
public:
    Step() : ZoThread("step", nullptr, 0) {}
    int Work(void* done) override {
        *static_cast<int*>(done) = 1;
        return 0;
    }
};

void Ours(benchmark::State& state) {
    ZoResourceWatcher watcher;
    for (auto _ : state) {
        int done = 0;
        Step thread;
        thread.SetResourceWatcher(&watcher);
        thread.Start(&done);
        watcher.WaitForZero(ZoNoLimit);
        benchmark::DoNotOptimize(done);
    }
}

void Peer(benchmark::State& state) {
    for (auto _ : state) {
        int done = 0;
        std::thread thread([&done] { done = 1; });
        thread.join();
        benchmark::DoNotOptimize(done);
    }
}

BENCHMARK(Ours)->Name("start to finished/zo")->UseRealTime();
BENCHMARK(Peer)->Name("start to finished/std::thread")->UseRealTime();

}  // namespace
