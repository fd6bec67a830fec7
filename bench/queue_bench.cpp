// Small units through a work queue, beside the pools of other libraries: many at a time, and one at
// a time through an empty queue.
//
// The pools keep a copy of each closure in memory of their own. A unit of ours is the
// caller's: it may be one of an array that the caller keeps, or come from the heap and delete
// itself when it is handled. Both are measured, beside the same pools. A bare queue of pointers
// with threads that loop at it handles the same units as ours does.
#include <benchmark/benchmark.h>
#include <concurrentqueue/blockingconcurrentqueue.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <boost/asio/packaged_task.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <cstddef>
#include <future>
#include <latch>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "zotask.h"
#include "zowrkque.h"

namespace {

constexpr int Units = 10'000;

// A unit from the heap that does `step` and is gone.
template <class Step>
class HeapUnit final : public ZoWorkUnit {
public:
    explicit HeapUnit(Step step) : step(step) {}
    void Handle(ZoWorkQueue*) override {
        step();
        delete this;
    }
    void Aborted(ZoWorkQueue*) override { delete this; }

private:
    Step step;
};

// A unit of an array.
class KeptUnit final : public ZoWorkUnit {
public:
    void Handle(ZoWorkQueue*) override { handled->count_down(); }
    void Aborted(ZoWorkQueue*) override { handled->count_down(); }

    std::latch* handled = nullptr;
};

class Ours {
public:
    explicit Ours(int workers) : queue(ZoWorkQueue::Create(workers, nullptr)) {}
    template <class Step>
    void Post(Step step) {
        queue->Append(new HeapUnit<Step>(step));
    }
    void PostKept(ZoWorkUnit& unit) { queue->Append(&unit); }

private:
    struct Destroyer {
        void operator()(ZoWorkQueue* ended) const { ended->Destroy(); }
    };
    std::unique_ptr<ZoWorkQueue, Destroyer> queue;
};

// Threads that block at a queue and handle what they get.
class BlockingQueue {
public:
    explicit BlockingQueue(int workers) {
        for (int i = 0; i < workers; ++i) threads.emplace_back([this] { Consume(); });
    }
    BlockingQueue(BlockingQueue const&) = delete;
    BlockingQueue& operator=(BlockingQueue const&) = delete;
    ~BlockingQueue() {
        for (std::size_t i = 0; i < threads.size(); ++i) queue.enqueue(nullptr);
        for (std::thread& thread : threads) thread.join();
    }
    template <class Step>
    void Post(Step step) {
        queue.enqueue(new HeapUnit<Step>(step));
    }
    void PostKept(ZoWorkUnit& unit) { queue.enqueue(&unit); }

private:
    // A null is the last that a thread takes.
    void Consume() {
        for (ZoWorkUnit* unit = nullptr;;) {
            queue.wait_dequeue(unit);
            if (unit == nullptr) return;
            unit->Handle(nullptr);
        }
    }

    moodycamel::BlockingConcurrentQueue<ZoWorkUnit*> queue;
    std::vector<std::thread> threads;
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

template <class Pool, int Workers>
void ManyKept(benchmark::State& state) {
    Pool pool(Workers);
    auto const units = std::make_unique<KeptUnit[]>(Units);
    for (auto _ : state) {
        std::latch handled(Units);
        for (std::size_t i = 0; i < Units; ++i) {
            units[i].handled = &handled;
            pool.PostKept(units[i]);
        }
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

// Calls whose results are collected one by one.
template <int Workers>
void Collected(benchmark::State& state) {
    zotask::Pool pool(Workers);
    std::vector<zotask::Task<int>> tasks(Units);
    for (auto _ : state) {
        int number = 0, sum = 0;
        for (auto& task : tasks) {
            task = zotask::Submit(pool, [number] { return number; });
            ++number;
        }
        for (auto& task : tasks) sum += task.Get();
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * Units);
}

template <int Workers>
void CollectedFromAsio(benchmark::State& state) {
    boost::asio::thread_pool pool(static_cast<std::size_t>(Workers));
    std::vector<std::future<int>> tasks(Units);
    for (auto _ : state) {
        int number = 0, sum = 0;
        for (auto& task : tasks) {
            task = boost::asio::post(pool, std::packaged_task<int()>([number] { return number; }));
            ++number;
        }
        for (auto& task : tasks) sum += task.get();
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * Units);
}

constexpr int Places = 100'000;

// The calling thread works on the loop too.
template <int Workers>
void Loop(benchmark::State& state) {
    zotask::Pool pool(Workers);
    std::vector<int> squares(Places);
    for (auto _ : state) {
        zotask::ParallelFor(pool, std::size_t{0}, squares.size(), [&squares](std::size_t i) {
            squares[i] = static_cast<int>(i * i % 7);
        });
        benchmark::DoNotOptimize(squares.data());
    }
    state.SetItemsProcessed(state.iterations() * Places);
}

template <int Workers>
void LoopInArena(benchmark::State& state) {
    tbb::task_arena arena(Workers + 1);
    arena.execute([&state] {
        std::vector<int> squares(Places);
        for (auto _ : state) {
            tbb::parallel_for(std::size_t{0}, squares.size(), [&squares](std::size_t i) {
                squares[i] = static_cast<int>(i * i % 7);
            });
            benchmark::DoNotOptimize(squares.data());
        }
    });
    state.SetItemsProcessed(state.iterations() * Places);
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

template <int Workers>
void RegisterMany(std::string const& workers) {
    auto const add = [](std::string const& name, void (*run)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name.c_str(), run)->UseRealTime();
    };
    add("10,000 units, " + workers + "/zo", ManyKept<Ours, Workers>);
    add("10,000 heap units, " + workers + "/zo", Many<Ours, Workers>);
    add("10,000 calls collected, " + workers + "/zo", Collected<Workers>);
    add("10,000 calls collected, " + workers + "/boost::asio::thread_pool",
        CollectedFromAsio<Workers>);
    add("loop over 100,000, " + workers + "/zo", Loop<Workers>);
    add("loop over 100,000, " + workers + "/oneTBB parallel_for", LoopInArena<Workers>);
    std::string const blocking = workers + "/moodycamel::BlockingConcurrentQueue";
    add("10,000 units, " + blocking, ManyKept<BlockingQueue, Workers>);
    add("10,000 heap units, " + blocking, Many<BlockingQueue, Workers>);
    for (std::string const units : {"10,000 units, ", "10,000 heap units, "}) {
        add(units + workers + "/boost::asio::thread_pool", Many<Asio, Workers>);
        add(units + workers + "/oneTBB task_group", ManyInArena<Workers>);
    }
}

int const registered = [] {
    RegisterMany<1>("1 worker");
    RegisterMany<2>("2 workers");
    return 0;
}();

BENCHMARK(One<Ours>)->Name("empty queue, latency/zo")->UseRealTime();
BENCHMARK(One<Asio>)->Name("empty queue, latency/boost::asio::thread_pool")->UseRealTime();

}  // namespace
