// A listener that counts its events, for the benchmarks of delivery.

#ifndef KELVARA_BENCH_COUNTING_LISTENER_H_
#define KELVARA_BENCH_COUNTING_LISTENER_H_

#include <benchmark/benchmark.h>

#include "zoevmdis.h"

class CountingListener : public ZoEventListener {
public:
    int Notify(ZoEvent const*) override {
        benchmark::DoNotOptimize(++calls);
        return 0;
    }

private:
    long calls = 0;
};

#endif  // KELVARA_BENCH_COUNTING_LISTENER_H_
