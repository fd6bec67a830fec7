// The reader/writer mutex beside the shared mutexes of the standard library and of Boost.
#include <benchmark/benchmark.h>
#include <boost/thread/shared_mutex.hpp>

#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <shared_mutex>
#include <string>
#include <thread>

#include "hot_owner.h"
#include "processors.h"
#include "rw_mutex.h"
#include "zocrits.h"

namespace {

// With deadlock detection it is seen by that.
template <bool Detecting>
class Mutex {
public:
    Mutex() {
        *ZoGetDeadLockDetectionEnabled() = Detecting ? 1 : 0;
        mutex.reset(ZoRW_Mutex::Make(nullptr));
        *ZoGetDeadLockDetectionEnabled() = 0;
    }
    void BeginRead() { mutex->StartRW(0, ZoNoLimit); }
    void EndRead() { mutex->EndRW(0); }
    void BeginWrite() { mutex->StartRW(1, ZoNoLimit); }
    void EndWrite() { mutex->EndRW(1); }

private:
    std::unique_ptr<ZoRW_Mutex> mutex;
};

using Ours = Mutex<false>;
using Seen = Mutex<true>;

template <class Mutex>
class Peer {
public:
    void BeginRead() { mutex->lock_shared(); }
    void EndRead() { mutex->unlock_shared(); }
    void BeginWrite() { mutex->lock(); }
    void EndWrite() { mutex->unlock(); }

private:
    std::unique_ptr<Mutex> mutex = std::make_unique<Mutex>();
};

// The subject that all threads of a benchmark share. Each has a processor to itself, if there are
// as many.
template <class Subject>
Subject& Shared() {
    static Subject subject;
    return subject;
}

template <class Subject>
void Reads(benchmark::State& state) {
    OnProcessors const place(state.thread_index(), 1);
    Subject& subject = Shared<Subject>();
    for (auto _ : state) {
        subject.BeginRead();
        subject.EndRead();
    }
}

// The peer knows no nesting: its nested read is another read of a mutex that is free.
void NestedReads(benchmark::State& state) {
    Ours subject;
    subject.BeginRead();
    for (auto _ : state) {
        subject.BeginRead();
        subject.EndRead();
    }
    subject.EndRead();
}

template <class Subject>
void Writes(benchmark::State& state) {
    Subject subject;
    for (auto _ : state) {
        subject.BeginWrite();
        subject.EndWrite();
    }
}

// Each thread writes one time in `every`.
template <class Subject, int every>
void MostlyReads(benchmark::State& state) {
    static long data = 0;
    OnProcessors const place(state.thread_index(), 1);
    Subject& subject = Shared<Subject>();
    int turn = every / 2 * state.thread_index();
    for (auto _ : state) {
        if (++turn == every) {
            turn = 0;
            subject.BeginWrite();
            benchmark::DoNotOptimize(++data);
            subject.EndWrite();
        } else {
            subject.BeginRead();
            benchmark::DoNotOptimize(data);
            subject.EndRead();
        }
    }
}

// A mutex in one of its modes.
template <class Subject>
struct Reading {
    void Enter() { subject.BeginRead(); }
    void Leave() { subject.EndRead(); }
    Subject& subject;
};

template <class Subject>
struct Writing {
    void Enter() { subject.BeginWrite(); }
    void Leave() { subject.EndWrite(); }
    Subject& subject;
};

// A write that has to wait: each time a thread reads when it is asked for, and ends its read only
// when the writer sleeps, or soon will.
template <class Subject>
void WriteAgainstReader(benchmark::State& state) {
    Subject subject;
    std::atomic<long> asked{0}, reading{0};
    std::thread reader([&] {
        for (long round = 1;; ++round) {
            while (asked.load(std::memory_order_acquire) < round) std::this_thread::yield();
            if (asked.load(std::memory_order_relaxed) == std::numeric_limits<long>::max()) break;
            subject.BeginRead();
            reading.store(round, std::memory_order_release);
            auto const end = std::chrono::steady_clock::now() + std::chrono::microseconds(20);
            while (std::chrono::steady_clock::now() < end) {
            }
            subject.EndRead();
        }
    });
    long round = 0;
    for (auto _ : state) {
        asked.store(++round, std::memory_order_release);
        while (reading.load(std::memory_order_acquire) < round) std::this_thread::yield();
        subject.BeginWrite();
        subject.EndWrite();
    }
    asked.store(std::numeric_limits<long>::max(), std::memory_order_release);
    reader.join();
}

template <class Subject>
void RegisterHot(std::string const& who) {
    RegisterOnProcessors("writer against a hot writer", who, [](auto& state, int processors) {
        Subject subject;
        HotOwners::Run(state, Writing<Subject>{subject}, Writing<Subject>{subject}, 1, processors);
    });
    RegisterOnProcessors("reader against a hot writer", who, [](auto& state, int processors) {
        Subject subject;
        HotOwners::Run(state, Writing<Subject>{subject}, Reading<Subject>{subject}, 1, processors);
    });
    RegisterOnProcessors("writer against 2 hot readers", who, [](auto& state, int processors) {
        Subject subject;
        HotOwners::Run(state, Reading<Subject>{subject}, Writing<Subject>{subject}, 2, processors);
    });
}

using Standard = Peer<std::shared_mutex>;
using Boost = Peer<boost::shared_mutex>;

BENCHMARK(Reads<Ours>)->Name("first read, end/zo")->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(Reads<Standard>)
    ->Name("first read, end/std::shared_mutex")
    ->ThreadRange(1, 2)
    ->UseRealTime();
BENCHMARK(NestedReads)->Name("nested read, end/zo");
BENCHMARK(Reads<Standard>)->Name("nested read, end/std::shared_mutex");
BENCHMARK(Writes<Ours>)->Name("write, end/zo");
BENCHMARK(Writes<Standard>)->Name("write, end/std::shared_mutex");
BENCHMARK(Reads<Seen>)->Name("first read, end/detected")->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(Writes<Seen>)->Name("write, end/detected");
BENCHMARK(WriteAgainstReader<Seen>)->Name("write against a reader, detected/zo")->UseRealTime();
BENCHMARK(WriteAgainstReader<Ours>)
    ->Name("write against a reader, detected/undetected")
    ->UseRealTime();
BENCHMARK(WriteAgainstReader<Standard>)
    ->Name("write against a reader, detected/std::shared_mutex")
    ->UseRealTime();
BENCHMARK(MostlyReads<Ours, 1000>)->Name("1 write in 1000/zo")->Threads(2)->UseRealTime();
BENCHMARK(MostlyReads<Standard, 1000>)
    ->Name("1 write in 1000/std::shared_mutex")
    ->Threads(2)
    ->UseRealTime();
BENCHMARK(MostlyReads<Ours, 100>)->Name("1 write in 100/zo")->Threads(2)->UseRealTime();
BENCHMARK(MostlyReads<Standard, 100>)
    ->Name("1 write in 100/std::shared_mutex")
    ->Threads(2)
    ->UseRealTime();
BENCHMARK(MostlyReads<Ours, 20>)->Name("95 % reads/zo")->Threads(2)->UseRealTime();
BENCHMARK(MostlyReads<Standard, 20>)
    ->Name("95 % reads/std::shared_mutex")
    ->Threads(2)
    ->UseRealTime();
BENCHMARK(MostlyReads<Boost, 20>)
    ->Name("95 % reads/boost::shared_mutex")
    ->Threads(2)
    ->UseRealTime();

int const registered = [] {
    RegisterHot<Ours>("zo");
    RegisterHot<Standard>("std::shared_mutex");
    return 0;
}();

}  // namespace
