#include "wait_graph.h"

#include <pthread.h>

#include <array>
#include <cstdint>
#include <new>

#include "mutex.h"
#include "owned_sections.h"
#include "rw_record.h"
#include "zosyncob.h"

namespace {

// The records' lock: guards the records of other threads against being freed while they are read,
// and the notes that a walk makes in them.
constinit Mutex recordsLock;

// The threads whose waits are announced, the latest first.
ZoTLS* firstWaiting ZO_GUARDED_BY(csDLD) = nullptr;

// The number of the last walk.
unsigned long long lastWalk ZO_GUARDED_BY(recordsLock) = 0;

// The waits for readers that a walk has found, by the mutex.
constexpr unsigned PlaceBits = 6;
std::array<ZoReadersWait*, 1U << PlaceBits> places ZO_GUARDED_BY(recordsLock);

}  // namespace

// --- a walk ------------------------------------------------------------------------------------

// The search for a target, with csDLD and the records' lock held. It is a breadth-first search that
// visits each waiting thread once. A thread that waits for a section leads to one other thread, the
// owner. When the search first meets a wait for readers, it sorts all waiting threads' reads by the
// mutexes that are waited for. So its time is linear in the number of waiting threads and their
// reads, it allocates nothing, and it also ends in a ring that the target is not on.
//
// It writes into records of waiting threads only: those of running ones stay in their caches.
class WaitForGraph::Walk {
public:
    explicit Walk(ZoTLS const* target) ZO_REQUIRES(csDLD, recordsLock)
        : target(target), number(++lastWalk) {}

    // The first thread on a shortest path from `start` to the target; null: there is none.
    ZoTLS* FirstStepFrom(Wait const& start) ZO_REQUIRES(csDLD, recordsLock) {
        begun.mutex = start.readersOf;
        GoOnFrom(start, nullptr);
        for (; toVisit != nullptr && found == nullptr; toVisit = toVisit->nextToVisit) {
            GoOnFrom(WaitOf(toVisit), toVisit->firstStep);
        }
        return found;
    }

private:
    void GoOnFrom(Wait const& wait, ZoTLS* firstStep) ZO_REQUIRES(csDLD, recordsLock) {
        if (wait.section != nullptr) {
            if (ZoTLS* const owner = RecordOfOwner(wait.section)) Reach(owner, firstStep);
        } else if (wait.readersOf != nullptr) {
            for (ZoRWRecord* reader = ReadersOf(wait.readersOf); reader != nullptr;
                 reader = reader->nextReader) {
                Reach(reader->thread, firstStep);
            }
        }
    }

    void Reach(ZoTLS* thread, ZoTLS* firstStep) {
        if (firstStep == nullptr) firstStep = thread;
        if (thread == target) {
            if (found == nullptr) found = firstStep;
        } else if (!WaitOf(thread).IsNone() && thread->walk != number) {
            thread->walk = number;
            thread->firstStep = firstStep;
            thread->nextToVisit = nullptr;
            (toVisit == nullptr ? toVisit : lastToVisit->nextToVisit) = thread;
            lastToVisit = thread;
        }
    }

    ZoRWRecord* ReadersOf(ZoRW_Mutex const* mutex) ZO_REQUIRES(csDLD, recordsLock) {
        if (!readersAreSorted) SortReaders();
        ZoReadersWait const* const wait = FindWaitFor(mutex);
        return wait != nullptr ? wait->readers : nullptr;
    }

    // A mutex has one writer that waits for its readers, the one that holds "RW_Exclusive".
    void SortReaders() ZO_REQUIRES(csDLD, recordsLock) {
        readersAreSorted = true;
        places.fill(nullptr);
        for (ZoTLS* thread = firstWaiting; thread != nullptr; thread = thread->nextWaiting) {
            if (thread->readersWait.mutex != nullptr) Add(thread->readersWait);
        }
        if (begun.mutex != nullptr && FindWaitFor(begun.mutex) == nullptr) Add(begun);
        for (ZoTLS* thread = firstWaiting; thread != nullptr; thread = thread->nextWaiting) {
            SortReadsOf(thread);
        }
        // The caller is about to wait, so its own reads stand still too.
        ZoTLS* const caller = currentRecord;
        if (caller == target && caller->waitingLink == nullptr) SortReadsOf(caller);
    }

    static void SortReadsOf(ZoTLS* thread) ZO_REQUIRES(recordsLock) {
        ZoSimpleLinkedListItem* item = thread->rwRecords.GetFirst();
        for (; item != nullptr; item = item->GetNext()) {
            auto* const record = static_cast<ZoRWRecord*>(item);
            if (!IsCountedReader(record->holdings)) continue;
            ZoReadersWait* const wait = FindWaitFor(record->mutex);
            if (wait == nullptr) continue;
            record->thread = thread;
            record->nextReader = wait->readers;
            wait->readers = record;
        }
    }

    static void Add(ZoReadersWait& wait) ZO_REQUIRES(recordsLock) {
        ZoReadersWait*& first = PlaceOf(wait.mutex);
        wait.readers = nullptr;
        wait.next = first;
        first = &wait;
    }

    static ZoReadersWait* FindWaitFor(ZoRW_Mutex const* mutex) ZO_REQUIRES(recordsLock) {
        ZoReadersWait* wait = PlaceOf(mutex);
        while (wait != nullptr && wait->mutex != mutex) wait = wait->next;
        return wait;
    }

    // Addresses of mutexes differ in their middle bits; the product carries them to the upper ones.
    static ZoReadersWait*& PlaceOf(ZoRW_Mutex const* mutex) ZO_REQUIRES(recordsLock) {
        auto const word = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(mutex) >> 4);
        return places[word * 2654435769U >> (32 - PlaceBits)];
    }

    ZoTLS const* const target;
    unsigned long long const number;
    ZoTLS* toVisit = nullptr;  // a queue, linked by nextToVisit
    ZoTLS* lastToVisit = nullptr;
    ZoTLS* found = nullptr;

    ZoReadersWait begun;  // the wait at which the walk begins, which may be announced only later
    bool readersAreSorted = false;
};

// --- edges -------------------------------------------------------------------------------------

WaitForGraph::Holder WaitForGraph::SafeHolder(ZoTLS* thread) {
    if (thread == nullptr) return {};
    return {thread, thread->threadIdentity, WaitOf(thread)};
}

WaitForGraph::Holder WaitForGraph::OwnerOf(ZoDLDCritSect const* section) {
    MutexHold const hold(recordsLock);
    return SafeHolder(RecordOfOwner(section));
}

void* WaitForGraph::IdentityOfOwner(ZoDLDCritSect const* section) {
    MutexHold const hold(recordsLock);
    ZoTLS const* const owner = RecordOfOwner(section);
    return owner != nullptr ? owner->threadIdentity : nullptr;
}

WaitForGraph::Holder WaitForGraph::HolderOf(Wait const& wanted, ZoTLS const* target) {
    if (wanted.section != nullptr) return OwnerOf(wanted.section);
    MutexHold const hold(recordsLock);
    return SafeHolder(Walk(target).FirstStepFrom(wanted));
}

bool WaitForGraph::LeadsTo(ZoTLS volatile const* thread, ZoTLS volatile const* target) {
    MutexHold const hold(recordsLock);
    Walk walk(const_cast<ZoTLS const*>(target));
    return walk.FirstStepFrom(WaitOf(const_cast<ZoTLS const*>(thread))) != nullptr;
}

bool WaitForGraph::LeadsTo(Wait const& wanted, ZoTLS const* target) {
    MutexHold const hold(recordsLock);
    Walk walk(target);
    if (wanted.section == nullptr) return walk.FirstStepFrom(wanted) != nullptr;
    ZoTLS const* const owner = RecordOfOwner(wanted.section);
    return owner != nullptr && walk.FirstStepFrom(WaitOf(owner)) != nullptr;
}

// A thread may wait within a wait: the code of a wrapped section of the host's may enter others. It
// is in the list once. A forked child may find any of these steps half done. So a record is in the
// list before its wait is stored, and a walk from the list's head meets records of the list only.
void WaitForGraph::Announce(ZoTLS* me, Wait const& wanted) {
    if (me->waitingLink == nullptr) {
        me->waitingLink = &firstWaiting;
        me->nextWaiting = firstWaiting;
        if (firstWaiting != nullptr) firstWaiting->waitingLink = &me->nextWaiting;
        std::atomic_ref<ZoTLS*>(firstWaiting).store(me, std::memory_order_release);
    }
    me->waitingFor = wanted.section;
    me->readersWait.mutex = wanted.readersOf;
}

void WaitForGraph::Withdraw(ZoTLS* me) {
    Clear(me);
    if (me->waitingLink == nullptr) return;
    std::atomic_ref<ZoTLS*>(*me->waitingLink).store(me->nextWaiting, std::memory_order_release);
    if (me->nextWaiting != nullptr) me->nextWaiting->waitingLink = me->waitingLink;
    me->waitingLink = nullptr;
}

void WaitForGraph::Clear(ZoTLS* thread) {
    thread->waitingFor = nullptr;
    thread->readersWait.mutex = nullptr;
}

void WaitForGraph::LetWalksPass() {
    MutexHold const pass(recordsLock);
}

int ThreadWaitsForThread(ZoTLS volatile* waiter, ZoTLS volatile* target) {
    GraphLock lock;
    return WaitForGraph::LeadsTo(waiter, target) ? 1 : 0;
}

// --- in a forked child -------------------------------------------------------------------------

// A child has only the thread that forked, but gets the library's locks as other threads of its
// parent held them. The data that these locks guard is usable at every moment. The records' lock
// guards the notes of a walk, which the next walk makes anew. The words of the graph and the links
// of the chain and of the list of waiting threads are changed one at a time.
void WaitForGraph::ForgetAbsentThreads() ZO_NOT_ANALYSED {
    new (&recordsLock) Mutex;
    FreeUnlessMine(csDLD);
    FreeUnlessMine(fscs);
    ZoTLS* const me = currentRecord;
    Wait const mine = me != nullptr ? WaitOf(me) : Wait{};
    for (ZoTLS* thread = firstWaiting; thread != nullptr; thread = thread->nextWaiting) {
        Clear(thread);
        thread->waitingLink = nullptr;
    }
    firstWaiting = nullptr;
    if (!mine.IsNone()) Announce(me, mine);
}

void WaitForGraph::FreeUnlessMine(ZoCritSect* section) {
    if (section == nullptr) return;
    if (typeid(*section) == typeid(PosixCritSect)) {
        FreeUnlessMine(static_cast<PosixCritSect&>(*section));
    } else if (typeid(*section) == typeid(ZoDLDCritSect)) {
        auto& detecting = static_cast<ZoDLDCritSect&>(*section);
        if (detecting.plain == nullptr || detecting.plain->IsMine()) return;
        FreeUnlessMine(*detecting.plain);
        detecting.owner.store(nullptr, std::memory_order_relaxed);
        detecting.SetOwningCount(0);
        detecting.waitCount.store(0, std::memory_order_relaxed);
    }
}

void WaitForGraph::FreeUnlessMine(PosixCritSect& section) {
    if (section.IsMine()) return;
    pthread_mutex_init(&section.mutex, &section.attributes);
    section.owner.store(NoThread, std::memory_order_relaxed);
    section.SetOwningCount(0);
    section.waitCount.store(0, std::memory_order_relaxed);
}
