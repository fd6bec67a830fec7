// The word of a reader/writer mutex that lets readers in and out without a lock.
//
// It is the value of the mutex's condition `readers`:
//
//     bits 0-28   the count: threads that are counted as readers
//     bit 29      claimed: a writer has closed the gate on its way into the exclusive section
//     bit 30      closed: readers enter with the section held, and leave with the condition's lock
//                 held
//
//     word                 state                  a first read   a counted reader   a write
//     0                    free                   enters         -                  claims
//     n                    read                   enters         leaves             queues
//     closed + claimed     claimed, or written    queues         -                  queues
//     closed, count 0      written, or free       queues         -                  queues
//     closed, count n      write pending or read  queues         leaves with lock   queues
//
// Who changes it, all by atomic read-modify-write but for Open:
//
//     operation       by                                           allowed while
//     TryEnter        a reader                                     not closed
//     TryLeave        a counted reader                             not closed
//     TryClaim        a writer that holds nothing                  the word is 0
//     Enter, Close,   the thread that holds the section
//     Open
//     SafeSet         a counted reader, with the condition's lock  any time (rw_mutex.cpp)
//
// Invariant: a thread that holds the section and sees the gate closed with count 0 is alone. Nobody
// can enter without the section, nobody is left to leave, and a claim needs an open gate: the word
// is that thread's until it opens the gate, for which a plain store is therefore enough.
//
// Claimed implies count 0. A claim is made at 0, and closes the gate; the one way to raise the
// count beside it is Enter, which takes the claim off in the same hold of the section.
//
// Whoever leaves an open gate does not touch the mutex afterwards: a writer may see the 0 at once,
// write, and destroy it. Whoever finds the gate closed has a writer to wake and therefore leaves
// with the condition's lock. A writer that has closed the gate on counted readers, or finds it
// closed without a claim, believes a count of 0 only with that lock too, so it cannot go on while
// the reader still holds it.
//
// A writer opens the gate before it leaves the section, for a moment in which a reader may come in
// and, as the last one, destroy the mutex. So the destruction of an open one passes the section.
//
// The gate opens only while nobody is counted, at the end of a write. A writer that is cancelled
// leaves it closed: a reader that found it so may be on its way to the lock, and would leave an
// open gate while it still holds that. Until the next write ends, the mutex is then free or read
// with a closed gate; readers queue, which is slower, but no less right.
//
// Order: what a reader did must come before what a writer does after it, and the other way round.
// A reader leaves with release order, and a writer that relies on a count of 0 has read it with
// acquire order. Open has release order, and TryEnter acquire order. Between a store and the load
// that sees its effect stand only read-modify-writes, which carry the release on, or another Open,
// whose writer has acquired all before it. Writers and queued readers among themselves are ordered
// by the section.

#ifndef KELVARA_SRC_RW_GATE_H_
#define KELVARA_SRC_RW_GATE_H_

#include <atomic>

class ReaderGate {
public:
    explicit ReaderGate(int& word) : word(word) {}

    static int CountIn(int value) { return value & (Claimed - 1); }
    int Count() const { return CountIn(word.load(std::memory_order_acquire)); }

    // The word is read before it is tried: beside other readers a try with a guessed count fails
    // more often than not, and a failed one is as dear as one that succeeds.
    bool TryEnter() const { return TryStep(1, std::memory_order_acquire); }
    bool TryLeave() const { return TryStep(-1, std::memory_order_release); }

    // With the condition's lock held: a waiting writer tests the count with the same lock.
    void LeaveLocked() const { word.fetch_sub(1, std::memory_order_release); }

    bool IsFreeAndOpen() const { return word.load(std::memory_order_acquire) == 0; }

    bool TryClaim() const {
        int free = 0;
        return word.compare_exchange_strong(free, Closed | Claimed, std::memory_order_acquire,
                                            std::memory_order_relaxed);
    }

    // What follows is for the thread that holds the section.

    // Somebody has claimed, and since then no other thread has changed the word.
    bool IsClaimed() const { return word.load(std::memory_order_acquire) == (Closed | Claimed); }

    // Counts one reader. True when this took a claim off: the claimer must be told otherwise that
    // it waits. Relaxed is enough: the section orders this after every writer's end.
    bool Enter() const {
        bool const claimed = (word.fetch_add(1, std::memory_order_relaxed) & Claimed) != 0;
        if (claimed) word.fetch_and(~Claimed, std::memory_order_relaxed);
        return claimed;
    }

    enum Found { Free, ClaimedByOther, MustWait };
    Found Close() const {
        int const before = word.fetch_or(Closed, std::memory_order_acquire);
        if (before == 0) return Free;
        return before == (Closed | Claimed) ? ClaimedByOther : MustWait;
    }
    // Ends a write. `count`: 1 when the writer goes on as a reader, else 0.
    void Open(int count) const { word.store(count, std::memory_order_release); }

private:
    static constexpr int Claimed = 0x20000000;
    static constexpr int Closed = 0x40000000;

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
