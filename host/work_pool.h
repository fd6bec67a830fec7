// A work queue as zohost uses it: a thread that has a piece of work waits until a worker has done
// it, and gets its result through the library's concurrent calculations.
//
//     WorkPool pool(2);
//     int const found = pool.Run([&] { return LookUp(batch); });
//
// Any thread that is not a worker calls anything. The piece of work takes what locks it likes: who
// calls Run holds none. Without workers it is done on the calling thread, one piece at a time.

#ifndef KELVARA_HOST_WORK_POOL_H_
#define KELVARA_HOST_WORK_POOL_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "zowrkque.h"

class WorkPool {
public:
    // Throws std::bad_alloc.
    explicit WorkPool(unsigned workers);
    WorkPool(WorkPool const&) = delete;
    WorkPool& operator=(WorkPool const&) = delete;

    // What `work` returns, zero or more. Throws what it throws, and std::bad_alloc.
    int Run(std::function<int()> const& work);
    // Both may be called while pieces of work are waiting and being done; one thread at a time
    // grows. Shrink leaves at least one worker, or what is waiting would wait for ever.
    void Grow(unsigned workers);
    void Shrink(unsigned workers);

    std::uint64_t Done() const { return done.load(std::memory_order_relaxed); }
    unsigned MostWorkers() const { return most.load(std::memory_order_relaxed); }
    unsigned Workers() const { return static_cast<unsigned>(queue->ThreadCount()); }

private:
    struct Destroy {
        void operator()(ZoWorkQueue* ended) const { ended->Destroy(); }
    };

    std::unique_ptr<ZoWorkQueue, Destroy> queue;
    std::atomic<std::uint64_t> done{0};
    std::atomic<unsigned> most{0};
};

#endif  // KELVARA_HOST_WORK_POOL_H_
