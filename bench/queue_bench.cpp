// Small units through a work queue, beside the pools of other libraries: many at a time, and one at
// a time through an empty queue.
#include <benchmark/benchmark.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cstddef>
#include <latch>
#include <memory>
#include <semaphore>

#include "zowrkque.h"

namespace {

constexpr int Units = 10'000;

// A unit that does `step` and is gone, as a closure is in the other pools.
template <class Step>
class Unit final : public ZoWorkUnit {
public:
    explicit Unit(Step step) : step(step) {}
    void Handle(ZoWorkQueue*) override {
        step();
        delete this;
    }
    void Aborted(ZoWorkQueue*) override { delete this; }

private:
    Step step;
};

class Ours {
public:
    explicit Ours(int workers) : queue(ZoWorkQueue::Create(workers, nullptr)) {}
    template <class Step>
    void Post(Step step) {
        queue->Append(new Unit<Step>(step));
    }

private:
    struct Destroyer {
        void operator()(ZoWorkQueue* ended) const { ended->Destroy(); }
    };
    std::unique_ptr<ZoWorkQueue, Destroyer> queue;
};

class Asio {
public:
    explicit Asio(int workers) : pool(static_cast<std::size_t>(workers)) {}
    template <class Step>
    void Post(Step step) {
        boost::asio::post(pool, step);
    }

private:
    boost::asio::thread_pool pool;
};

template <class Pool, int Workers>
void Many(benchmark::State& state) {
    Pool pool(Workers);
    for (auto _ : state) {
        std::latch handled(Units);
        for (int i = 0; i < Units; ++i) pool.Post([&handled] { handled.count_down(); });
        handled.wait();
    }
    state.SetItemsProcessed(state.iterations() * Units);
}

// The calling thread is one of the arena's and handles units while it waits.
template <int Workers>
void ManyInArena(benchmark::State& state) {
    tbb::task_arena arena(Workers);
    arena.execute([&state] {
        tbb::task_group group;
        for (auto _ : state) {
            std::latch handled(Units);
            for (int i = 0; i < Units; ++i) group.run([&handled] { handled.count_down(); });
            group.wait();
        }
    });
    state.SetItemsProcessed(state.iterations() * Units);
}

template <class Pool>
void One(benchmark::State& state) {
    Pool pool(1);
    std::binary_semaphore handled(0);
    for (auto _ : state) {
        pool.Post([&handled] { handled.release(); });
        handled.acquire();
    }
}

BENCHMARK(Many<Ours, 1>)->Name("10,000 units, 1 worker/zo")->UseRealTime();
BENCHMARK(Many<Asio, 1>)->Name("10,000 units, 1 worker/boost::asio::thread_pool")->UseRealTime();
BENCHMARK(ManyInArena<1>)->Name("10,000 units, 1 worker/oneTBB task_group")->UseRealTime();
BENCHMARK(Many<Ours, 2>)->Name("10,000 units, 2 workers/zo")->UseRealTime();
BENCHMARK(Many<Asio, 2>)->Name("10,000 units, 2 workers/boost::asio::thread_pool")->UseRealTime();
BENCHMARK(ManyInArena<2>)->Name("10,000 units, 2 workers/oneTBB task_group")->UseRealTime();
BENCHMARK(One<Ours>)->Name("empty queue, latency/zo")->UseRealTime();
BENCHMARK(One<Asio>)->Name("empty queue, latency/boost::asio::thread_pool")->UseRealTime();

}  // namespace
