#include "thread_entry.h"

#include <pthread.h>

#include <cstdint>
#include <cstring>

#include "cancellation.h"
#include "checkers.h"
#include "ending_threads.h"
#include "probes.h"
#include "thrdimp.h"
#include "thread_life.h"
#include "trace.h"
#include "zocond.h"
#include "zothread.h"
#include "zotls.h"

namespace {

// As the traces show it: the pattern of its 32 bits, like an address.
void* AsPointer(int number) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(static_cast<unsigned int>(number)));
}

// The watcher, if it counts this thread.
ZoResourceWatcher* CountIn(ZoResourceWatcher* watcher) {
    return watcher != nullptr && watcher->IncrementCounter() >= 0 ? watcher : nullptr;
}

// What tools know of a thread, for as long as it is in its entry, however it ends: the thread
// object and its name may be gone by then.
class ToldThread {
public:
    explicit ToldThread(ZoThread const* thread, char const* name) : object(thread) {
        std::strncpy(kept, name, sizeof kept - 1);
        if (ThreadLife::current != nullptr) NameSystemThread();
        probes::ThreadStarted(object, kept);
    }
    ToldThread(ToldThread const&) = delete;
    ToldThread& operator=(ToldThread const&) = delete;
    ~ToldThread() { probes::ThreadEnded(object, kept, identity); }

private:
    // Every tool shows the thread by it; one without a name of its own keeps that of the process.
    void NameSystemThread() const {
        if (kept[0] != '\0') pthread_setname_np(pthread_self(), kept);
    }

    void const* const object;
    ZoTLS const* const identity = currentRecord;
    char kept[16] = "";  // the system keeps 15 characters
};

}  // namespace

int Trampoline(void* startRecord) {
    StartRecord* const record = static_cast<StartRecord*>(startRecord);
    return CplusplusTrampoline(record->owner, &record->started);
}

// Once the starter may go on, the object is touched only inside UnlessAborted and by the virtual
// calls: as soon as the thread has been aborted or has stored its last status, the object may be
// destroyed.
int CplusplusTrampoline(ZoThread* thread, int volatile* started) {
    constexpr TraceArea Steps = TraceArea::ThreadSteps;
    void* const argument = thread->argument;
    char const* const name = thread->name != nullptr ? thread->name : "";
    bool const autoDelete = thread->autoDelete != 0;
    ZoResourceWatcher* watcher = nullptr;
    {
        CancellationDeferred deferred;
        ZoThreadAttach(nullptr);
    }
    ToldThread const told(thread, name);
    {
        CancellationDeferred deferred;  // the starter waits for it
        watcher = CountIn(thread->resourceWatcher);
        thread->SetThreadPriority();
        thread->SetThreadPriorityBoost();
        // Before the starter goes on, so that a second start finds it running. Not over the mark of
        // an abort or a Suspend that came in between.
        ZoInt32 starting = ZoThread::NotStarted;
        thread->status.compare_exchange_strong(starting, ZoThread::Running);
        checkers::Release(started);
        if (started != nullptr) __atomic_store_n(started, 1, __ATOMIC_RELEASE);
        if (ThreadLife::current != nullptr) ThreadLife::current->SayStarted();
    }
    ThreadLife::UnlessAborted([] {});
    thread->Init(argument);
    Trace(Steps, "ZoThread ", thread, ",", name, " : Trampoline, Work started ...");
    ThreadLife::UnlessAborted([] {});
    int const result = thread->Work(argument);
    ThreadLife::UnlessAborted([&] { thread->result = result; });
    Trace(Steps, "ZoThread ", thread, ",", name, " : Trampoline, Work done");
    Trace(Steps, "ZoThread ", thread, ",", name, " : Trampoline, Result = ", AsPointer(result));
    ThreadLife::UnlessAborted([] {});
    thread->Cleanup(argument);
    Trace(Steps, "ZoThread ", thread, ",", name, " : Trampoline, Cleanup done");
    CancellationDeferred deferred;  // past the last status every step is run
    ThreadLife::UnlessAborted([&]() ZO_NOT_ANALYSED {
        if (ThreadLife::current != nullptr) ThreadLife::current->state = ThreadLife::Finishing;
        thread->status = ZoThread::Finished;
    });
    Trace(Steps, "ZoThread ", thread, ",", name, " : Trampoline, Status set");
    Trace(Steps, "ZoThread", thread, ",", name, " : Trampoline, ZoThreadDetach done");
    if (autoDelete) {
        Trace(Steps, "ZoThread ", thread, ",", name, " : Trampoline, delete before...");
        void* const address = thread;
        delete thread;
        Trace(Steps, "ZoThread ", address, " : Trampoline, delete done");
    }
    ZoThreadDetach(nullptr);
    ZoThreadPriority(ZoPriorityHighest);
    EndingThreads::Enter();
    if (watcher != nullptr) watcher->DecrementCounter();
    return result;
}
