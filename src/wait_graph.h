// The wait-for graph of deadlock detection: who owns a section, what a thread waits for.
//
// Edges:
//
//     section -> its owner             set and cleared by the owner, mostly without a lock
//     thread  -> the section it        set and cleared by the thread, in a hold of csDLD
//                waits for
//
// A walk runs in a hold of csDLD. It may meet an owner that is just entering or leaving a section
// without that lock. Such a thread runs, so it waits for nothing and the walk ends there; it cannot
// begin to wait before the hold is over. docs/locking.md has the whole argument.
//
// A record that a walk has found must not be freed under it, and its thread may have left the
// section and be about to end. So whoever reads a record that it found through a section's owner
// holds the records' lock, and whoever frees a record passes through that lock before. It lives as
// long as the process, unlike csDLD. It is a leaf: nothing is taken and no code of the host is
// called while it is held.

#ifndef KELVARA_SRC_WAIT_GRAPH_H_
#define KELVARA_SRC_WAIT_GRAPH_H_

#include <atomic>
#include <mutex>
#include <typeinfo>

#include "checkers.h"
#include "zocrits.h"
#include "zotls.h"

// Enters csDLD for a scope. Without the library context there is none, and no thread waits.
class GraphLock {
public:
    GraphLock() : section(csDLD) {
        if (section != nullptr) section->Begin();
    }
    GraphLock(GraphLock const&) = delete;
    GraphLock& operator=(GraphLock const&) = delete;
    ~GraphLock() {
        if (section != nullptr) section->Exit();
    }

private:
    ZoCritSect* section;
};

// Whether a section may be entered or left without csDLD while nobody holds that. A section of the
// host's in its place cannot be asked, so everybody goes through it.
inline bool GraphCanBePassed() {
    return csDLD == nullptr || typeid(*csDLD) == typeid(PosixCritSect);
}

// Whether nobody holds csDLD just now.
inline bool GraphIsFree() {
    return GraphCanBePassed() && (csDLD == nullptr || static_cast<PosixCritSect*>(csDLD)->IsFree());
}

// With csDLD held.
class WaitForGraph {
public:
    // What a walk learns of a section's owner. `thread` null: there is none.
    struct Owner {
        ZoTLS* thread = nullptr;
        void* identity = nullptr;
        ZoDLDCritSect* waitsFor = nullptr;
    };
    static Owner OwnerOf(ZoDLDCritSect const* section);

    // Whether the chain of waits that begins at `thread`, or at the owner of `section`, comes to
    // `target`.
    static bool LeadsTo(ZoTLS volatile const* thread, ZoTLS volatile const* target);
    static bool LeadsTo(ZoDLDCritSect const* section, ZoTLS const* target);

    // By a thread that frees its record, as the last step before: afterwards no walk reads it.
    static void LetWalksPass();

    // In a forked child: makes the records' lock, csDLD and the chain's lock free, unless the
    // calling thread owns them.
    static void FreeLocksInChild();

private:
    static void FreeUnlessMine(PosixCritSect& section);
    static void FreeUnlessMine(ZoCritSect* section);
    // The acquire order meets the release order of the owner's store: the owner has made its record
    // before, and may never have held csDLD since.
    static ZoTLS* RecordOfOwner(ZoDLDCritSect const* section) {
        ZoTLS* const record = section->owner.load(std::memory_order_acquire);
        checkers::Acquire(&section->owner);
        return record;
    }
    static bool SafeLeadsTo(ZoTLS volatile const* thread, ZoTLS volatile const* target);
};

#endif  // KELVARA_SRC_WAIT_GRAPH_H_
