// Which processors a thread of a benchmark runs on.

#ifndef KELVARA_BENCH_PROCESSORS_H_
#define KELVARA_BENCH_PROCESSORS_H_

#include <sched.h>

#include <cstddef>

// While this lives, the calling thread runs only on `count` of the processors that it may use, from
// the `first` on, which counts from 0. With fewer processors than asked for it begins again at 0.
class OnProcessors {
public:
    OnProcessors(int first, int count) {
        sched_getaffinity(0, sizeof before, &before);
        int const usable = CPU_COUNT(&before);
        cpu_set_t chosen;
        CPU_ZERO(&chosen);
        for (int i = first; i < first + count; ++i) CPU_SET(Usable(i % usable), &chosen);
        sched_setaffinity(0, sizeof chosen, &chosen);
    }
    OnProcessors(OnProcessors const&) = delete;
    OnProcessors& operator=(OnProcessors const&) = delete;
    ~OnProcessors() { sched_setaffinity(0, sizeof before, &before); }

private:
    std::size_t Usable(int index) const {
        std::size_t processor = 0;
        while (!CPU_ISSET(processor, &before) || index-- > 0) ++processor;
        return processor;
    }

    cpu_set_t before;
};

#endif  // KELVARA_BENCH_PROCESSORS_H_
