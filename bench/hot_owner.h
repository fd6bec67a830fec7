// A second thread that wants a lock which others hold nearly all the time.
//
// An owner holds the lock for 20 µs and takes it again at once, for as long as the run lasts. The
// second thread holds it for a moment only and sleeps 20 µs, and what the timer adds, before it
// wants in again. Without the sleep it would enter many times in a row while an owner wakes up, and
// on one processor keep the owner from running: the means would tell of waits for a free lock.
//
// A run ends by time: ten times the least time of a measurement. The owners leave for good then, so
// a thread that never got in has waited for the whole run.

#ifndef KELVARA_BENCH_HOT_OWNER_H_
#define KELVARA_BENCH_HOT_OWNER_H_

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "processors.h"

// What --benchmark_min_time says.
std::chrono::duration<double> LeastTime();

class HotOwners {
public:
    // `lock` is entered and left by `owners` threads at once, `wanted` by the second thread: the
    // same lock, perhaps in another mode. Thread after thread gets the next of the `processors`.
    template <class Lock, class Wanted>
    static void Run(benchmark::State& state, Lock&& lock, Wanted&& wanted, int owners,
                    int processors) {
        for (auto _ : state) {
            HotOwners run(owners);
            std::vector<std::thread> threads;
            threads.reserve(static_cast<std::size_t>(owners));
            for (int i = 0; i < owners; ++i) {
                threads.emplace_back([&, i] {
                    OnProcessors const place(i % processors, 1);
                    run.Own(lock);
                });
            }
            threads.emplace_back([&] {
                OnProcessors const place(owners % processors, 1);
                run.Want(wanted);
            });
            std::this_thread::sleep_for(10 * LeastTime());
            run.over = true;
            for (std::thread& thread : threads) thread.join();
            state.counters["longest wait [ns]"] = run.longest.count();
            state.counters["mean wait [ns]"] = run.sum.count() / run.entries;
        }
    }

private:
    using Nanoseconds = std::chrono::duration<double, std::nano>;
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds Hold{20};
    static constexpr std::chrono::microseconds Away{20};

    explicit HotOwners(int owners) : started(owners) { Work(); }

    // Counted steps, because a clock would go on while the thread does not run.
    static void Work() {
        static long const steps = StepsOfWork();
        Count(steps);
    }
    static void Count(long steps) {
        while (steps > 0) benchmark::DoNotOptimize(--steps);
    }
    static long StepsOfWork() {
        constexpr long Steps = 100'000;
        Nanoseconds least = Nanoseconds::max();
        for (int i = 0; i < 20; ++i) {
            auto const start = Clock::now();
            Count(Steps);
            least = std::min<Nanoseconds>(least, Clock::now() - start);
        }
        return static_cast<long>(Steps * (Hold / least));
    }

    template <class Lock>
    void Own(Lock& lock) {
        started.count_down();
        while (!over.load(std::memory_order_relaxed)) {
            lock.Enter();
            Work();
            lock.Leave();
        }
    }

    template <class Lock>
    void Want(Lock& lock) {
        started.wait();
        do {
            auto const start = Clock::now();
            lock.Enter();
            Nanoseconds const wait = Clock::now() - start;
            lock.Leave();
            longest = std::max(longest, wait);
            sum += wait;
            ++entries;
            std::this_thread::sleep_for(Away);
        } while (!over.load(std::memory_order_relaxed));
    }

    std::latch started;
    std::atomic<bool> over{false};
    // The second thread's.
    Nanoseconds longest{0};
    Nanoseconds sum{0};
    double entries = 0;
};

// The yardstick: neither recursive nor fair.
class PosixMutex {
public:
    void Enter() { pthread_mutex_lock(&mutex); }
    void Leave() { pthread_mutex_unlock(&mutex); }

private:
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

// A benchmark for one processor and another for two: `run(state, processors)`.
template <class Run>
void RegisterOnProcessors(std::string const& name, std::string const& who, Run run) {
    for (int const processors : {1, 2}) {
        std::string row = name;
        row.append(processors == 1 ? ", 1 processor/" : ", 2 processors/").append(who);
        benchmark::RegisterBenchmark(row.c_str(),
                                     [=](benchmark::State& state) { run(state, processors); })
            ->UseRealTime()
            ->Iterations(1);
    }
}

#endif  // KELVARA_BENCH_HOT_OWNER_H_
