// The word of a reader/writer mutex that lets readers in and out without a lock.
//
// It is the value of the mutex's condition `readers`:
//
//     bits 0-27   the count: threads that are counted as readers
//     bit 28      marks: threads that are not counted may read with a mark (read_marks.h)
//     bit 29      quiet: nobody has entered since a write
//     bit 30      closed: readers enter with the section held, and leave with the condition's lock
//                 held
//
//     word              state                     a first read    a reader's end    a write
//     0                 free                      enters          -                 closes
//     n                 read                      enters          leaves            closes, waits
//     closed + quiet    written again, or free    queues, opens   -                 goes on
//     closed, count n   write pending, or written queues          leaves by lock    queues
//
// The bit for marks stands beside any of these but the quiet one. A mutex accepts marks while it is
// set and the gate is open, so the step that closes the gate also ends the acceptance. The bit
// stays set behind a closed gate: it says that marks may be out, and a write ends with it cleared
// only because the writer has found no mark (read_marks.h). A cancelled writer leaves it as it is.
//
// "Queues" and every write go through the exclusive section. Only its holder may call the
// operations below the line:
//
//     operation           by
//     TryEnter            a reader, while the gate is open
//     TryLeave            a counted reader, while the gate is open
//     LeaveLocked         a counted reader, with the condition's lock, if the gate is closed
//     AcceptMarks         a counted reader; nothing unless the gate is open
//     -----------------------------------------------------------------------------------------
//     Enter               a reader that queued
//     Close, TryClose     a writer
//     GiveUp              a writer that is cancelled in its wait, or does not wait; with the
//                         condition's lock as well
//     EndWrite            the writer
//
// A write leaves the gate closed, unless the writer goes on as a reader. So the next write has
// nothing to change, and the first reader that queues opens the gate for all.
//
// Invariant: a thread that holds the section and sees a quiet gate is alone. Nobody is counted or
// has a mark, nobody can enter without the section, and no thread that was counted before still
// uses the mutex. So no other thread changes the word, and a plain store is enough.
//
// Invariant: while the gate is open, each thread that has or is about to take the condition's lock
// is counted or holds the section. So a writer may rely on a count of 0 at an open gate: no thread
// that has left still touches the mutex. A reader that leaves through an open gate does not touch
// the mutex afterwards either: a writer may see the 0 at once, write, and destroy the mutex.
//
// A counted reader that finds the gate closed must wake a writer, so it leaves with the condition's
// lock. A writer that has closed the gate while readers were counted relies on a count of 0 only if
// it has read it with that lock held, so it cannot go on while the reader still holds the lock.
//
// A writer that is cancelled opens the gate again, also while readers are counted, and some of
// these may be about to take the lock. If one of them left with the lock through the open gate, it
// could bring the count to 0 and still hold the lock when the next write ends and the mutex is
// destroyed. So such a reader looks again once it has the lock. If the gate is open, the reader
// gives the lock back, is still counted, and leaves through the open gate as usual. What it sees
// holds while it has the lock: only GiveUp opens a closed gate with a counted reader, and GiveUp
// needs the lock. GiveUp finds no reader that has left and still holds the lock, because its caller
// holds the lock.
//
// Order: what a reader did must come before what a writer does after it, and the other way round. A
// reader leaves with release order, and a writer that relies on a count of 0 has read it with
// acquire order, or has seen a quiet gate, whose writer had. Enter opens the gate with release
// order, and TryEnter has acquire order. Only read-modify-writes, GiveUp's among them, stand
// between a store and the load that sees its effect, and they continue the release sequence. The
// section orders the threads that hold it.

#ifndef KELVARA_SRC_RW_GATE_H_
#define KELVARA_SRC_RW_GATE_H_

#include <atomic>

class ReaderGate {
    static constexpr int Marks = 0x10000000;
    static constexpr int Quiet = 0x20000000;
    static constexpr int Closed = 0x40000000;

public:
    explicit ReaderGate(int& word) : word(word) {}

    // Of a free gate.
    static constexpr int FirstWord(bool acceptsMarks) { return acceptsMarks ? Marks : 0; }

    int Count() const { return word.load(std::memory_order_acquire) & (Marks - 1); }

    // Acquire order as in TryEnter: what was written before the gate was opened comes before the
    // marked read.
    bool AcceptsMarks() const {
        return (word.load(std::memory_order_acquire) & (Marks | Closed)) == Marks;
    }
    bool MarksMayBeOut() const { return (word.load(std::memory_order_acquire) & Marks) != 0; }

    // The word is read before it is tried: beside other readers a try with a guessed count fails
    // more often than not, and a failed one costs as much as one that succeeds.
    bool TryEnter() const { return TryStep(1, std::memory_order_acquire); }
    bool TryLeave() const { return TryStep(-1, std::memory_order_release); }

    void AcceptMarks() const {
        int before = word.load(std::memory_order_relaxed);
        while ((before & (Marks | Closed)) == 0 &&
               !word.compare_exchange_weak(before, before | Marks, std::memory_order_relaxed)) {
        }
    }

    // With the condition's lock held, for the two below: a waiting writer tests the count with the
    // same lock. Only a counted reader that has seen the gate closed in this hold leaves so.
    bool IsClosed() const { return (word.load(std::memory_order_relaxed) & Closed) != 0; }
    void LeaveLocked() const { word.fetch_sub(1, std::memory_order_release); }

    // A snapshot: whether a writer could close the gate and go on.
    bool IsFreeOrQuiet() const {
        int const now = word.load(std::memory_order_relaxed);
        return now == 0 || now == (Closed | Quiet);
    }

    // The operations below are for the thread that holds the section.

    // Counts one reader, and opens a quiet gate for later readers.
    void Enter(bool acceptMarks) const {
        if (IsQuiet()) {
            word.store(acceptMarks ? Marks + 1 : 1, std::memory_order_release);
        } else {
            word.fetch_add(1, std::memory_order_relaxed);
        }
    }

    // Closes the gate for a write. True: no reader is left, so the writer need not wait.
    bool Close() const {
        return IsQuiet() || word.fetch_or(Closed, std::memory_order_acquire) == 0;
    }

    // Closes the gate if it is free or quiet. False: nothing has been done.
    bool TryClose() const {
        if (IsQuiet()) return true;
        int free = 0;
        return word.compare_exchange_strong(free, Closed, std::memory_order_acquire,
                                            std::memory_order_relaxed);
    }

    // With the condition's lock held: gives up the write for which Close returned false, and opens
    // the gate. `isReader`: the writer is counted again.
    void GiveUp(bool isReader) const {
        word.fetch_sub(Closed - (isReader ? 1 : 0), std::memory_order_relaxed);
    }

    // Ends the write that Close began, with no mark left. `isReader`: the writer goes on as one.
    void EndWrite(bool isReader) const {
        word.store(isReader ? 1 : Closed | Quiet, std::memory_order_release);
    }

private:
    bool IsQuiet() const { return word.load(std::memory_order_relaxed) == (Closed | Quiet); }

    bool TryStep(int step, std::memory_order order) const {
        int before = word.load(std::memory_order_relaxed);
        while ((before & Closed) == 0) {
            if (word.compare_exchange_weak(before, before + step, order, std::memory_order_relaxed))
                [[likely]] {
                return true;
            }
        }
        return false;
    }

    std::atomic_ref<int> word;
};

#endif  // KELVARA_SRC_RW_GATE_H_
