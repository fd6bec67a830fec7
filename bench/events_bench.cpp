// A trace that is switched off beside the test of a flag, and the delivery of an event beside a
// signal.
#include <benchmark/benchmark.h>
#include <boost/signals2.hpp>

#include <atomic>
#include <memory>

#include "counting_listener.h"
#include "zobaseservices.h"

namespace {

// --- a trace that is switched off --------------------------------------------------------------

constexpr ZoUInt32 Category = 0x800000;

// An engine has a configuration; in this one no trace is on.
class NoTraces : public ZoConfig {
public:
    int ReadValue(char const*, int*, char const* const*) override { return -1; }
};

void Tested(benchmark::State& state) {
    static std::atomic<ZoUInt32> flags = 0;
    for (auto _ : state) {
        bool const isOn = (flags.load(std::memory_order_relaxed) & Category) != 0;
        benchmark::DoNotOptimize(isOn);
    }
}

void Traced(benchmark::State& state) {
    static NoTraces configuration;
    ZoConfig* const before = ZoSetDefaultConfig(&configuration);
    for (auto _ : state) {
        smp_debug const* const debugger = GetDebugger();
        if (debugger != nullptr &&
            (debugger->current.load(std::memory_order_relaxed) & Category) != 0) {
            ZoDebugEvent event(Category);
            event << "traced" << endl;
            ZoEventMessageDispatcher::GetDispatcher()->Dispatch(&event);
        }
    }
    ZoSetDefaultConfig(before);
}

// --- delivery ----------------------------------------------------------------------------------

void Dispatched(benchmark::State& state, int count) {
    ZoEventMessageDispatcher dispatcher;
    for (int i = 0; i < count; ++i) {
        dispatcher.RegisterListener(1, 0xB00, new CountingListener);
    }
    ZoSimpleEvent const event(0, 1, 0xB00);
    for (auto _ : state) dispatcher.Dispatch(&event);
}

void Signalled(benchmark::State& state, int count) {
    boost::signals2::signal<void(ZoEvent const*)> signal;
    for (int i = 0; i < count; ++i) {
        signal.connect([listener = std::make_shared<CountingListener>()](ZoEvent const* event) {
            listener->Notify(event);
        });
    }
    ZoSimpleEvent const event(0, 1, 0xB00);
    for (auto _ : state) signal(&event);
}

BENCHMARK(Traced)->Name("trace that is off/zo");
BENCHMARK(Tested)->Name("trace that is off/test of a flag");
BENCHMARK_CAPTURE(Dispatched, 1, 1)->Name("dispatch to 1 listener/zo");
BENCHMARK_CAPTURE(Signalled, 1, 1)->Name("dispatch to 1 listener/boost::signals2");
BENCHMARK_CAPTURE(Dispatched, 10, 10)->Name("dispatch to 10 listeners/zo");
BENCHMARK_CAPTURE(Signalled, 10, 10)->Name("dispatch to 10 listeners/boost::signals2");

}  // namespace
