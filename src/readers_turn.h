// When a write of a reader/writer mutex ends, the waiting readers have the next turn.
//
// The section "RW_Exclusive" goes to the thread that comes first, and a writer that comes back at
// once mostly comes before a reader that must still wake up. So a writer that ends while readers
// wait notes how many are due, and writers that come later let these pass the section first.
//
//     step                                          by
//     Grant                                         a writer that ends, with the section held
//     Pass, then WakeWriters when it says so        a reader that has waited for the section, with
//                                                   it held; afterwards as a counted reader
//     AwaitPassage                                  a writer, before it enters the section
//
// The turn affects scheduling only: mutual exclusion does not depend on it. A writer waits for
// readers that were woken and need nothing but a processor. It waits for 10 ms at the most, because
// deadlock detection does not see this wait. A reader may fail to come: its thread ended in a
// report, or is absent in a forked child. The next write is delayed once then, and writers wait no
// more until a reader has passed again.
//
// Wake-up: a writer counts itself as waiting before it looks at the number, and the last reader
// looks at the count of waiting writers after it has cleared the number. All four accesses are
// sequentially consistent, so either the writer sees 0 or the reader sees the writer. The system
// puts a writer to sleep only if the number is still the one it saw.

#ifndef KELVARA_SRC_READERS_TURN_H_
#define KELVARA_SRC_READERS_TURN_H_

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "zotypes.h"

class ReadersTurn {
public:
    // `due` is the mutex's number of readers that are due, or InVain: the last ones did not come.
    explicit ReadersTurn(std::atomic<ZoInt32>& due) : due(due) {}

    bool IsNow() const { return due.load(std::memory_order_relaxed) > 0; }

    void Grant(ZoInt32 waitingReaders) const {
        if (due.load(std::memory_order_relaxed) != InVain) due.store(waitingReaders);
    }

    // True: no further reader is due.
    bool Pass() const {
        ZoInt32 const before = due.load(std::memory_order_relaxed);
        if (before == 0) return false;
        due.store(before > 0 ? before - 1 : 0);
        return before == 1;
    }

    void WakeWriters(std::atomic<ZoInt32> const& waitingWriters) const {
        if (waitingWriters.load() != 0) Futex(FUTEX_WAKE_PRIVATE, AllOfThem, nullptr);
    }

    // The caller has been counted as a waiting writer. Signals and turns that are granted meanwhile
    // do not make the wait longer.
    void AwaitPassage() const {
        timespec const end = InTenMilliseconds();
        for (ZoInt32 seen = due.load(); seen > 0; seen = due.load()) {
            if (Futex(FUTEX_WAIT_BITSET_PRIVATE, seen, &end) != ETIMEDOUT) continue;
            due.compare_exchange_strong(seen, InVain);
            return;
        }
    }

private:
    static constexpr ZoInt32 InVain = -1;
    static constexpr int AllOfThem = 0x7FFFFFFF;

    static timespec InTenMilliseconds() {
        constexpr long Limit = 10'000'000, Second = 1'000'000'000;
        timespec end{};
        clock_gettime(CLOCK_MONOTONIC, &end);
        end.tv_nsec += Limit;
        if (end.tv_nsec >= Second) end = {end.tv_sec + 1, end.tv_nsec - Second};
        return end;
    }

    // Returns the error, 0 for none, and leaves errno as it was. No cancellation point. A condition
    // variable would need a lock, and care in a forked child.
    int Futex(int operation, int value, timespec const* end) const {
        int const before = errno;
        bool const failed =
            syscall(SYS_futex, &due, operation, value, end, nullptr, FUTEX_BITSET_MATCH_ANY) == -1;
        return failed ? std::exchange(errno, before) : 0;
    }

    std::atomic<ZoInt32>& due;
};

#endif  // KELVARA_SRC_READERS_TURN_H_
