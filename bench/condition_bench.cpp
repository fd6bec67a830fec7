// Conditions beside a mutex and condition variable of the standard library that do the same.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "zocond.h"

namespace {

class Ours {
public:
    void Set() { condition->SetCondition(); }
    void Wait() { condition->WaitForCondition(0, ZoNoLimit); }
    void Clear() { condition->ClearCondition(); }

private:
    std::unique_ptr<Condition> condition{Condition::MakeCondition("bench")};
};

class Peer {
public:
    void Set() {
        std::scoped_lock const hold(mutex);
        ++value;
        changed.notify_one();
    }
    void Wait() {
        std::unique_lock hold(mutex);
        changed.wait(hold, [this] { return value != 0; });
    }
    void Clear() {
        std::scoped_lock const hold(mutex);
        --value;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    int value = 0;
};

template <class Subject>
void SetAndPass(benchmark::State& state) {
    Subject subject;
    for (auto _ : state) {
        subject.Set();
        subject.Wait();
        subject.Clear();
    }
}

// One round: there and back. The partner ends after the round that finds `over` set.
template <class Subject>
void PingPong(benchmark::State& state) {
    Subject there, back;
    bool over = false;
    std::thread partner([&] {
        for (bool last = false; !last;) {
            there.Wait();
            there.Clear();
            last = over;
            back.Set();
        }
    });
    auto const round = [&] {
        there.Set();
        back.Wait();
        back.Clear();
    };
    for (auto _ : state) round();
    over = true;
    round();
    partner.join();
}

BENCHMARK(SetAndPass<Ours>)->Name("set, wait that passes/zo");
BENCHMARK(SetAndPass<Peer>)->Name("set, wait that passes/std::condition_variable");
BENCHMARK(PingPong<Ours>)->Name("ping-pong/zo")->UseRealTime();
BENCHMARK(PingPong<Peer>)->Name("ping-pong/std::condition_variable")->UseRealTime();

}  // namespace
