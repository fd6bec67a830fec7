// The wait-for graph of deadlock detection: who holds what, and what a thread waits for.
//
// Edges:
//
//     section -> its owner             set and cleared by the owner, mostly without a lock
//     mutex   -> each counted reader   in that thread's own record of the mutex, without a lock
//                that waits itself
//     thread  -> the section, or the   set and cleared by the thread, in a hold of csDLD
//                mutex whose readers,
//                it waits for
//
// A walk runs in a hold of csDLD. It may meet an owner that is just entering or leaving a section
// without that lock. Such a thread runs, so it waits for nothing and the walk ends there; it cannot
// begin to wait before the hold is over. docs/locking.md has the whole argument.
//
// A reader is found through the list of waiting threads, which csDLD guards: a thread is in it
// exactly while its wait is announced. A reader that runs is in no ring, and a waiting one leaves
// its records alone, so a walk may read them. It never goes to a mutex that it finds in them: one
// that was destroyed while it was read stands there still.
//
// A record must not be freed while a walk reads it, although its thread may have left the section
// and be about to end. So a thread that reads the record of a section's owner holds the records'
// lock, and a thread that frees its record takes and leaves that lock before. The lock lives as
// long as the process, unlike csDLD. It is a leaf: no lock is taken and no code of the host is
// called while it is held.

#ifndef KELVARA_SRC_WAIT_GRAPH_H_
#define KELVARA_SRC_WAIT_GRAPH_H_

#include <atomic>
#include <mutex>
#include <typeinfo>

#include "checkers.h"
#include "section_hold.h"
#include "zocrits.h"
#include "zotls.h"

// Enters csDLD for a scope. Without the library context there is none, and no thread waits.
class ZO_SCOPED_CAPABILITY GraphLock : SectionHold {
public:
    GraphLock() ZO_ACQUIRE(csDLD) : SectionHold(csDLD) {}
    ~GraphLock() ZO_RELEASE() {}
};

// Whether sections may be entered and left without csDLD while csDLD is free. A section of the
// host's in its place cannot be tested, so then every entry and leave takes it.
inline bool GraphCanBePassed() {
    return csDLD == nullptr || typeid(*csDLD) == typeid(PosixCritSect);
}

// Whether csDLD is free at this moment.
inline bool GraphIsFree() {
    return GraphCanBePassed() && (csDLD == nullptr || static_cast<PosixCritSect*>(csDLD)->IsFree());
}

// The object of a thread's wait: a section, or the readers of a mutex that it wants to write. Both
// null: none.
struct Wait {
    ZoDLDCritSect* section = nullptr;
    ZoRW_Mutex* readersOf = nullptr;

    bool IsNone() const { return section == nullptr && readersOf == nullptr; }
};

class WaitForGraph {
public:
    // A thread for which another one waits. `thread` null: there is none.
    struct Holder {
        ZoTLS* thread = nullptr;
        void* identity = nullptr;
        Wait waitsFor;
    };
    static Holder OwnerOf(ZoDLDCritSect const* section) ZO_REQUIRES(csDLD);
    // The thread for which a wait for `wanted` waits: the owner of a section; of several readers
    // the one from which the shortest chain of waits leads to `target`.
    static Holder HolderOf(Wait const& wanted, ZoTLS const* target) ZO_REQUIRES(csDLD);

    // The same owner's identity alone, or null; without csDLD.
    static void* IdentityOfOwner(ZoDLDCritSect const* section);

    // Whether a chain of waits leads from `thread`, or from the holders of `wanted`, to `target`. A
    // target that runs counts as a reader only if it is the caller.
    static bool LeadsTo(ZoTLS volatile const* thread, ZoTLS volatile const* target)
        ZO_REQUIRES(csDLD);
    static bool LeadsTo(Wait const& wanted, ZoTLS const* target) ZO_REQUIRES(csDLD);

    // Enter the wait of the calling thread, whose record is `me`, into the graph, and remove it.
    static void Announce(ZoTLS* me, Wait const& wanted) ZO_REQUIRES(csDLD);
    static void Withdraw(ZoTLS* me) ZO_REQUIRES(csDLD);

    // The last step of a thread before it frees its record: afterwards no walk reads it.
    static void LetWalksPass();

    // In a forked child: makes the records' lock, csDLD and the chain's lock free, unless the
    // calling thread owns them, and takes the waits of all other threads out of the graph.
    static void ForgetAbsentThreads();

private:
    class Walk;

    static void FreeUnlessMine(PosixCritSect& section);
    static void FreeUnlessMine(ZoCritSect* section);
    static void Clear(ZoTLS* thread);
    static Holder SafeHolder(ZoTLS* thread);
    static Wait WaitOf(ZoTLS const* thread) {
        return {thread->waitingFor, thread->readersWait.mutex};
    }
    // The acquire order meets the release order of the owner's store: the owner has made its record
    // before, and may never have held csDLD since.
    static ZoTLS* RecordOfOwner(ZoDLDCritSect const* section) {
        ZoTLS* const record = section->owner.load(std::memory_order_acquire);
        checkers::Acquire(&section->owner);
        return record;
    }
};

#endif  // KELVARA_SRC_WAIT_GRAPH_H_
