#include "wait_graph.h"

#include <pthread.h>

#include <new>

#include "owned_sections.h"
#include "zosyncob.h"

namespace {

// The records' lock: guards the records of other threads against being freed while they are read.
constinit std::mutex recordsLock;

}  // namespace

// A child has only the thread that forked, but gets the library's locks as other threads of its
// parent held them. What they guard can be used at every moment: the records' lock guards no data,
// the words of the graph are changed one at a time, and so are the chain's links, so that a walk
// from its head never leaves it.
void WaitForGraph::FreeLocksInChild() {
    new (&recordsLock) std::mutex;
    FreeUnlessMine(csDLD);
    FreeUnlessMine(fscs);
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

WaitForGraph::Owner WaitForGraph::OwnerOf(ZoDLDCritSect const* section) {
    std::lock_guard<std::mutex> const hold(recordsLock);
    ZoTLS* const thread = RecordOfOwner(section);
    if (thread == nullptr) return {};
    return {thread, thread->threadIdentity, thread->waitingFor};
}

bool WaitForGraph::LeadsTo(ZoTLS volatile const* thread, ZoTLS volatile const* target) {
    std::lock_guard<std::mutex> const hold(recordsLock);
    return SafeLeadsTo(thread, target);
}

bool WaitForGraph::LeadsTo(ZoDLDCritSect const* section, ZoTLS const* target) {
    std::lock_guard<std::mutex> const hold(recordsLock);
    return SafeLeadsTo(RecordOfOwner(section), target);
}

// A chain may also run into a ring without `target`, of threads left waiting for each other after
// an earlier report. Each thread waits for one section and each section has one owner, so such a
// ring comes back to every thread on it: the walk keeps one thread in mind, a later one each time
// the number of steps has doubled (Brent), and ends when it meets that thread again. It allocates
// nothing and visits each thread at most a few times.
bool WaitForGraph::SafeLeadsTo(ZoTLS volatile const* thread, ZoTLS volatile const* target) {
    ZoTLS volatile const* remembered = thread;
    unsigned long steps = 0;
    unsigned long limit = 1;
    while (thread != nullptr && thread->waitingFor != nullptr) {
        thread = RecordOfOwner(thread->waitingFor);
        if (thread == target) return true;
        if (thread == remembered) return false;
        if (++steps == limit) {
            remembered = thread;
            steps = 0;
            limit *= 2;
        }
    }
    return false;
}

void WaitForGraph::LetWalksPass() {
    std::lock_guard<std::mutex> const pass(recordsLock);
}

int ThreadWaitsForThread(ZoTLS volatile* waiter, ZoTLS volatile* target) {
    GraphLock lock;
    return WaitForGraph::LeadsTo(waiter, target) ? 1 : 0;
}
