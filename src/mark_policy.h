// When a reader/writer mutex accepts marked reads (read_marks.h).
//
// A marked read is cheaper than a counted one, but the next write must withdraw the marks: a system
// call that interrupts every processor on which the process runs, and a look through all threads.
// So marks pay where enough reads come between two writes. Two rules:
//
//   - A mutex begins to accept marks once so many reads have been counted since the last write that
//     marks would have saved four times the cost of a withdrawal. Counting has then cost four times
//     what the next write can lose, and a mix with many writes never reaches that point.
//   - Each withdrawal adds what marks have saved since the write before to a credit, and subtracts
//     its own cost. While a credit is left, the first reader after the write lets marks in at once:
//     in a mix of one write in a thousand reads there is no time to begin anew after each write.
//     The credit is at most the cost of two withdrawals, so when writes become frequent two
//     withdrawals are in vain.
//
// The cost is measured, because it differs by a factor of thirty: 0.35 µs for membarrier alone
// while no other thread of the process runs, 10 µs while one does. What a mark saves is taken as
// fixed: 8 ns where one thread reads, 25 and more where two do. The cost rises in the same cases.
//
// Only the barrier and the look count as cost, not the wait for readers: counted readers would be
// waited for as long. A write behind whose gate no mark may be set does not ask the policy.

#ifndef KELVARA_SRC_MARK_POLICY_H_
#define KELVARA_SRC_MARK_POLICY_H_

#include <algorithm>
#include <atomic>

#include "rw_gate.h"
#include "zotls.h"

class MarkPolicy {
public:
    enum Mode { Never, Always, WhereItPays };

    static Mode CurrentMode() { return mode.load(std::memory_order_relaxed); }
    static void SetMode(Mode next) { mode.store(next, std::memory_order_relaxed); }

    // Called after a first read that was counted. `gate` is the gate through which it passed.
    static void ReadWasCounted(ZoTLS& me, ZoMarkHistory& history, ReaderGate gate) {
        if (--me.readMarks.untilLook > 0) [[likely]]
            return;
        me.readMarks.untilLook = ReadsPerLook;
        Look(history, gate);
    }

    // The two below are for the thread that holds the exclusive section.

    // Whether a mutex accepts marks from its first reader after a write on.
    static bool AcceptsAtOnce(ZoMarkHistory& history) {
        if (history.looks.load(std::memory_order_relaxed) != 0) {
            history.looks.store(0, std::memory_order_relaxed);
        }
        return CurrentMode() == Always || (CurrentMode() == WhereItPays && history.credit != 0);
    }

    // After marks were withdrawn for `nanoseconds`; `markedReads` is what the marks' numbers of
    // reads add up to. The number falls when a thread ends or uses a mark for another mutex; then
    // the saving is taken as 0.
    static void MarksWereWithdrawn(ZoMarkHistory& history, ZoUInt32 nanoseconds,
                                   ZoUInt32 markedReads) {
        ZoUInt32 const spent = Learn(nanoseconds);
        auto const reads = static_cast<ZoInt32>(markedReads - history.markedReads);
        ZoUInt32 const saved =
            static_cast<ZoUInt32>(std::clamp<ZoInt32>(reads, 0, MostReads)) * SavedByMark;
        ZoUInt32 const balance = history.credit + saved;
        history.credit = balance > spent ? std::min(balance - spent, 2 * spent) : 0;
        history.markedReads = markedReads;
    }

private:
    static constexpr ZoInt32 ReadsPerLook = 64;
    static constexpr ZoUInt32 SavedByMark = 16;  // nanoseconds
    static constexpr ZoInt32 MostReads = 1'000'000;
    static constexpr ZoUInt32 Reserve = 4;
    static constexpr ZoUInt32 LowestCost = 1'000;
    static constexpr ZoUInt32 FadingLooks = 128;
    // A withdrawal that was itself interrupted says nothing about the next one.
    static constexpr ZoUInt32 HighestCost = 100'000;

    [[gnu::cold]] static void Look(ZoMarkHistory& history, ReaderGate gate) {
        if (CurrentMode() == Never) return;
        ZoUInt32 const looks = history.looks.fetch_add(1, std::memory_order_relaxed) + 1;
        ZoUInt32 const expected = cost.load(std::memory_order_relaxed);
        if (looks * ReadsPerLook * SavedByMark >= Reserve * expected) return gate.AcceptMarks();
        if (expected > LowestCost) {
            cost.store(expected - expected / FadingLooks, std::memory_order_relaxed);
        }
    }

    static ZoUInt32 Learn(ZoUInt32 nanoseconds) {
        ZoUInt32 const last = std::min(nanoseconds, HighestCost);
        ZoUInt32 const mean = (cost.load(std::memory_order_relaxed) * 3 + last) / 4;
        cost.store(mean, std::memory_order_relaxed);
        return mean;
    }

    static std::atomic<Mode> mode;
    // The cost of a withdrawal in nanoseconds, a mean of the last ones. All mutexes share it, since
    // it depends on the machine and on what else runs.
    static std::atomic<ZoUInt32> cost;
};

#endif  // KELVARA_SRC_MARK_POLICY_H_
