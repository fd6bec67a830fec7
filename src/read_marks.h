// Reads of a reader/writer mutex that write nowhere but into the reader's own record.
//
// A counted reader changes a word that all readers of a mutex share, so its cache line travels from
// processor to processor. A marked reader sets a mark in its record (ZoReadMarks in zotls.h), and
// the writer looks through the marks of all threads.
//
//     step                         reader                   writer, with the section held
//     begin                        1 sets its mark          1 closes the gate
//                                  2 looks at the gate      2 announces itself (`announced`)
//                                                           3 calls membarrier
//     end                          1 takes its mark back    4 looks through the marks, and sleeps
//                                  2 looks at `announced`     until none of this mutex is left
//
// A reader that finds the gate closed in its second step takes its mark back, as at an end, and
// goes on as a counted reader.
//
// What membarrier promises: between its call and its return every thread of the process has passed
// a point at which all its earlier loads and stores are done, for every processor, before all its
// later ones. For each reader that point lies either before or after its second step.
//
//     second step        at a begin                            at an end
//     before the point   the mark was set before the point:    the mark was taken back before it:
//                        the writer sees it                     the writer does not see it
//     after the point    the reader sees the closed gate        the reader sees the announcement
//
// So a writer overlooks no reader, and a reader no writer that may sleep for it. Nothing weaker
// than a full barrier is enough: each side stores and then loads what the other side stores. All
// processors we build for let a load overtake an earlier store to another address (x86 reorders
// nothing else), and acquire and release order do not forbid that. Without membarrier each reader
// would need the barrier itself, which costs as much as the atomic update that a mark saves. The
// compiler must keep the order as well, hence the signal fence between the two steps.
//
// The rest of the order is acquire and release: a mark is set and taken back with release order,
// and a writer reads it with acquire order, so what a reader did comes before what the writer does
// next. A reader looks at the gate with acquire order (rw_gate.h).
//
// After it has taken its mark back a reader touches the mutex no more: a writer may see that at
// once, write, and destroy it. It finds the writer by the mutex's address, and wakes it under the
// marks' lock. A writer of a mutex that was made later at the same address may be woken for
// nothing.
//
// Wake-ups: a writer looks through the marks and falls asleep in one hold of the marks' lock. A
// reader that sees the announcement takes that lock after it has taken its mark back, so either the
// writer sees the mark gone, or it sleeps and is woken.
//
// Marks are off where the kernel lacks membarrier. For tests the environment variable
// ZOVA_READ_MARKS, read when the library is loaded, says "always" or "never".

#ifndef KELVARA_SRC_READ_MARKS_H_
#define KELVARA_SRC_READ_MARKS_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "rw_gate.h"
#include "schedule_point.h"
#include "zotls.h"
#include "zowaits.h"

// The bit of a mark that is set while the thread reads the mutex.
constexpr std::uintptr_t IsRead = 1;

inline std::uintptr_t AddressOf(ZoRW_Mutex const* mutex) {
    return reinterpret_cast<std::uintptr_t>(mutex);
}

class ReadMarks {
public:
    // Called by a thread that is to read `mutex`; `gate` is that mutex's. Null: the mutex accepts
    // no mark now, or the thread has none left.
    static ZoReadMark* TrySet(ZoReadMarks& mine, ZoRW_Mutex const* mutex, ReaderGate gate) {
        if (!gate.AcceptsMarks()) return nullptr;
        ZoReadMark* const mark = FreeMark(mine, AddressOf(mutex));
        if (mark == nullptr) return nullptr;
        mark->mutex.store(AddressOf(mutex) | IsRead, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        SchedulePoint();
        if (gate.AcceptsMarks()) [[likely]] {
            CountRead(*mark);
            return mark;
        }
        TakeBack(*mark, mutex);
        return nullptr;
    }

    // Afterwards the mutex may be gone.
    static void TakeBack(ZoReadMark& mark, ZoRW_Mutex const* mutex) {
        mark.mutex.store(AddressOf(mutex), std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        SchedulePoint();
        std::uintptr_t const waited = announced.load(std::memory_order_relaxed);
        if (waited != 0) [[unlikely]]
            WakeWriters(AddressOf(mutex), waited);
    }

    // How many threads read `mutex` with a mark.
    static int Count(ZoRW_Mutex const* mutex);

    // Join is called by a thread that gets its record, Leave by one that gives it up. False: a mark
    // is still set, so the marks must stay where they are for ever; the mutex is read for as long
    // as it lives.
    static void Join(ZoReadMarks& mine);
    static bool Leave(ZoReadMarks& mine);
    // Called as a mutex is destroyed: takes back the marks that ended threads have left.
    static void Forget(ZoRW_Mutex const* mutex);

    // Take and release the marks' lock around fork().
    static void Lock();
    static void Unlock();
    // Called in a forked child, with the lock held: only the calling thread is there.
    static void ForgetAbsentThreads();

    // Which writers may sleep for marks: 0 none, one of this mutex, or SeveralWriters. Changed
    // under the marks' lock. Every reader looks at it, so it has a cache line to itself.
    static std::atomic<std::uintptr_t> announced;

private:
    // The mark that was used for this mutex before, or else one that is not set.
    static ZoReadMark* FreeMark(ZoReadMarks& mine, std::uintptr_t address) {
        ZoReadMark& first = mine.marks[0];
        if (first.mutex.load(std::memory_order_relaxed) == address) [[likely]]
            return &first;
        return OtherFreeMark(mine, address);
    }
    static ZoReadMark* OtherFreeMark(ZoReadMarks& mine, std::uintptr_t address);
    static void CountRead(ZoReadMark& mark) {
        mark.reads.store(mark.reads.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    [[gnu::cold]] static void WakeWriters(std::uintptr_t mutex, std::uintptr_t waited);
};

// A writer's withdrawal of the marks of its mutex, for a scope with the exclusive section held and
// the gate closed. It is announced until it has found no mark or the scope ends.
class MarksWithdrawal {
public:
    // Announces the writer, makes every thread pass a barrier, and looks. If no marks may be out it
    // does nothing. No cancellation point.
    MarksWithdrawal(ZoRW_Mutex const* of, bool marksMayBeOut, ZoMarkHistory& history);
    MarksWithdrawal(MarksWithdrawal const&) = delete;
    MarksWithdrawal& operator=(MarksWithdrawal const&) = delete;
    ~MarksWithdrawal();

    bool MarksAreOut() const;
    // Sleeps, without limit, until no mark is left; the wait is added to `figures`, and tracers see
    // it as a wait for the object `told`. A cancellation point.
    void WaitForNone(ZoWaitFigures& figures, ZoSynchroObj const& told);

    // The members below are for the lists of read_marks.cpp.
    std::uintptr_t const mutex;
    ZoTLS* const thread;
    pthread_cond_t woken;  // made while the writer is announced
    // In the list of announced writers; guarded by the marks' lock.
    MarksWithdrawal* next = nullptr;
    MarksWithdrawal** link = nullptr;

    // Brings `announced` up to date, with the marks' lock held.
    static void SafeAnnounce();

private:
    void SafeLeave();
    void SafeSleep(ZoWaitFigures& figures, ZoSynchroObj const& told);

    bool isAnnounced = false;
};

#endif  // KELVARA_SRC_READ_MARKS_H_
