#include "_zothrd.h"

#include <cstdint>
#include <new>

#include "cancellation.h"
#include "chain.h"
#include "checkers.h"
#include "ending_threads.h"
#include "smp_io.h"
#include "thrdimp.h"
#include "thread_entry.h"
#include "thread_life.h"
#include "trace.h"
#include "zocond.h"
#include "zocrits.h"
#include "zoevmdis.h"
#include "zointrlk.h"
#include "zosyncob.h"
#include "zothread.h"
#include "zotls.h"

namespace {

void SetUp() {
    FirstSynchro = nullptr;
    fscs = ZoCritSect::Make("CS chain");
    csDLD = ZoMakeCritSectCritSect();
    __defTLS = new (std::nothrow) ZoTLS;
    smp_console = new (std::nothrow) smp_io;
    smp_debugger = new (std::nothrow) smp_debug(-1);
    suppress_chaining = 0;
    interlockedObject = ZoInterlocked::Make();
    eventDispatcher = new (std::nothrow) ZoEventMessageDispatcher;
    qaSemaphore = nullptr;
}

template <class Object>
void Destroy(Object*& object) {
    delete object;
    object = nullptr;
}

void TearDown() {
    EndingThreads::WaitForNone();
    Destroy(eventDispatcher);
    Destroy(interlockedObject);
    Destroy(smp_debugger);
    Destroy(smp_console);
    Destroy(__defTLS);
    ForgetChain();
    suppress_chaining = 1;
    Destroy(csDLD);
    Destroy(fscs);
}

}  // namespace

void ___ZoExtendedContext(int setUp) {
    bool const isSetUp = __defTLS != nullptr;
    if (setUp != 0 && !isSetUp) SetUp();
    if (setUp == 0 && isSetUp) TearDown();
}

// --- the abstract system thread ----------------------------------------------------------------

_Thread::_Thread(ZoThread* owner) : owner(owner) {}

_Thread::~_Thread() {
    owner = nullptr;
}

int _Thread::Abort() {
    owner->status = ZoThread::Aborted;
    return 0;
}

int _Thread::Start(long) {
    return 0;
}

int _Thread::Suspend() {
    owner->status = ZoThread::Suspended;
    return 0;
}

int _Thread::Continue() {
    owner->status = ZoThread::Running;
    return 0;
}

int _Thread::Giveup() {
    return 0;
}

int _Thread::GetOSThreadInfo(void*, void*, void*) {
    return ZoNotSupported;
}

CmdObj::CmdObj() = default;

CmdObj::~CmdObj() = default;

int CmdObj::ProcessCmd(_Thread*) {
    return ZoNotHandled;
}

// --- the entry of a thread ---------------------------------------------------------------------

namespace {

// As the traces show it: the pattern of its 32 bits, like an address.
void* AsPointer(int number) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(static_cast<unsigned int>(number)));
}

// The watcher, if it counts this thread.
ZoResourceWatcher* CountIn(ZoResourceWatcher* watcher) {
    return watcher != nullptr && watcher->IncrementCounter() >= 0 ? watcher : nullptr;
}

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
        CancellationDeferred deferred;  // the starter waits for it
        ZoThreadAttach(nullptr);
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
    ThreadLife::UnlessAborted([&] {
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
