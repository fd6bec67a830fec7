// How the cost of an operation grows with the number of objects.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "counting_listener.h"
#include "rw_mutex.h"
#include "zocond.h"
#include "zocrits.h"
#include "zosyncob.h"
#include "zowrkque.h"

namespace {

using Sections = std::vector<std::unique_ptr<ZoCritSect>>;

Sections MakeSections(std::int64_t number) {
    Sections sections;
    for (std::int64_t i = 0; i < number; ++i) sections.emplace_back(ZoCritSect::Make("section"));
    return sections;
}

void MakeSection(benchmark::State& state) {
    Sections const alive = MakeSections(state.range(0));
    for (auto _ : state) delete ZoCritSect::Make("one more");
}

// The thread owns every tenth section.
void ReleaseAll(benchmark::State& state) {
    Sections const alive = MakeSections(state.range(0));
    for (auto _ : state) {
        for (std::size_t i = 0; i < alive.size(); i += 10) alive[i]->Begin();
        ReleaseAllSynchronizationObjects();
    }
}

void FirstRead(benchmark::State& state) {
    std::vector<std::unique_ptr<ZoRW_Mutex>> held;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        held.emplace_back(ZoRW_Mutex::Make(nullptr))->StartRW(0, ZoNoLimit);
    }
    std::unique_ptr<ZoRW_Mutex> const wanted(ZoRW_Mutex::Make(nullptr));
    for (auto _ : state) {
        wanted->StartRW(0, ZoNoLimit);
        wanted->EndRW(0);
    }
    for (auto const& mutex : held) mutex->EndRW(0);
}

void Dispatch(benchmark::State& state) {
    ZoEventMessageDispatcher dispatcher;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        dispatcher.RegisterListener(1, 0xB00, new CountingListener);
    }
    ZoSimpleEvent const event(0, 1, 0xB00);
    for (auto _ : state) dispatcher.Dispatch(&event);
}

// The last of a batch tells.
class CountDown : public ZoWorkUnit {
public:
    CountDown(std::atomic<std::int64_t>& left, Condition& done) : left(left), done(done) {}
    void Handle(ZoWorkQueue*) override {
        if (left.fetch_sub(1) == 1) done.SetCondition();
    }
    void Aborted(ZoWorkQueue*) override {}

private:
    std::atomic<std::int64_t>& left;
    Condition& done;
};

// Each round appends as many units as given, so the queue grows up to that long, and sees them
// handled by one worker. The time is that of a unit.
void AppendAndHandle(benchmark::State& state) {
    ZoWorkQueue* const queue = ZoWorkQueue::Create(1, nullptr);
    std::unique_ptr<Condition> const done(Condition::MakeCondition("all handled"));
    std::atomic<std::int64_t> left{0};
    for (auto _ : state) {
        left = state.range(0);
        for (std::int64_t i = 0; i < state.range(0); ++i) queue->Append(new CountDown(left, *done));
        done->WaitForCondition(0, ZoNoLimit);
        done->ClearCondition();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    queue->Destroy();
}

BENCHMARK(MakeSection)
    ->Name("make and destroy a section, N alive/zo")
    ->RangeMultiplier(10)
    ->Range(1, 100000);
BENCHMARK(ReleaseAll)
    ->Name("release all, N sections alive/zo")
    ->RangeMultiplier(10)
    ->Range(1, 100000);
BENCHMARK(FirstRead)
    ->Name("first read and end, N mutexes held/zo")
    ->RangeMultiplier(10)
    ->Range(1, 100);
BENCHMARK(Dispatch)->Name("dispatch to N listeners/zo")->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK(AppendAndHandle)
    ->Name("append and handle one of N units/zo")
    ->RangeMultiplier(10)
    ->Range(1, 100000)
    ->UseRealTime();

}  // namespace
