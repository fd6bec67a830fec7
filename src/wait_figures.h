// Measuring waits, where a thread is about to block.

#ifndef KELVARA_SRC_WAIT_FIGURES_H_
#define KELVARA_SRC_WAIT_FIGURES_H_

#include <ctime>

#include "checkers.h"
#include "probes.h"
#include "zowaits.h"

// The beginning of the calling thread's present wait, in seconds since 1970; 0: it does not wait.
// For a debugger.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local std::time_t waitingSince;

// Concurrent additions are all counted, and a reset falls before or after an addition. Nothing is
// ordered by these numbers, so relaxed order is enough.
inline void AddTo(std::atomic<unsigned long long>& figure, unsigned long long number) {
    figure.fetch_add(number, std::memory_order_relaxed);
}

inline void RaiseTo(std::atomic<unsigned long long>& figure, unsigned long long number) {
    unsigned long long before = figure.load(std::memory_order_relaxed);
    while (before < number &&
           !figure.compare_exchange_weak(before, number, std::memory_order_relaxed)) {
    }
}

inline int FiguresAreAtomic(ZoWaitFigures& figures) {
    return checkers::AreAtomic(figures.waits, figures.nanoseconds, figures.longest);
}

// Measures a wait for a scope, which ends while the object is the thread's or its lock is held: the
// object lives then. Probes tell a tracer of it.
class MeasuredWait {
public:
    MeasuredWait(ZoWaitFigures& figures, ZoSynchroObj const& object, bool isLock)
        : figures(figures), object(object), isLock(isLock) {
        probes::WaitBegun(object, isLock);
        timespec now;
        clock_gettime(CLOCK_REALTIME_COARSE, &now);
        waitingSince = now.tv_sec;
        clock_gettime(CLOCK_MONOTONIC, &begun);
    }
    MeasuredWait(MeasuredWait const&) = delete;
    MeasuredWait& operator=(MeasuredWait const&) = delete;
    ~MeasuredWait() {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        waitingSince = 0;
        long long const waited =
            (now.tv_sec - begun.tv_sec) * 1'000'000'000LL + (now.tv_nsec - begun.tv_nsec);
        AddTo(figures.waits, 1);
        AddTo(figures.nanoseconds, static_cast<unsigned long long>(waited));
        RaiseTo(figures.longest, static_cast<unsigned long long>(waited));
        probes::WaitEnded(object, isLock);
    }

private:
    ZoWaitFigures& figures;
    ZoSynchroObj const& object;  // as reports show it: the whole of a part
    bool const isLock;
    timespec begun;
};

#endif  // KELVARA_SRC_WAIT_FIGURES_H_
