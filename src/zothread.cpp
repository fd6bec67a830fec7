#include "zothread.h"

#include "_zothrd.h"
#include "at_fork.h"
#include "cancellation.h"
#include "patience.h"
#include "thrdimp.h"
#include "trace.h"
#include "zobase.h"
#include "zosyncob.h"

namespace {

void TraceMethod(char const* text, ZoThread* thread) {
    Trace(TraceArea::ThreadMethods, text, thread);
}

// systemThreadUses counts the uses in its low half, but for this bit, which is set while the system
// thread is replaced. New uses wait for that, so a replacement is not kept from its turn by uses
// that follow each other.
constexpr ZoUInt32 Replacing = 0x8000;
// The high half is the generation of the process that counts (at_fork.h): uses by threads of the
// parent do not count in a child.
constexpr ZoUInt32 OneProcess = 0x10000;

ZoUInt32 NoUses() {
    return ForkGeneration() * OneProcess;
}

ZoUInt32 WithoutAbsent(ZoUInt32 uses) {
    return uses / OneProcess == NoUses() / OneProcess ? uses : NoUses();
}

}  // namespace

// Keeps the system thread of an object, if there is one, from being replaced while it is used.
class SystemThreadUse {
public:
    explicit SystemThreadUse(ZoThread& thread) : thread(thread) {
        for (Patience patience; !TryBegin();) patience.Wait();
        used = thread.systemThread;
    }
    SystemThreadUse(SystemThreadUse const&) = delete;
    SystemThreadUse& operator=(SystemThreadUse const&) = delete;
    ~SystemThreadUse() { --thread.systemThreadUses; }

    explicit operator bool() const { return used != nullptr; }
    _Thread* operator->() const { return used; }

private:
    // False while the system thread is replaced.
    bool TryBegin() {
        ZoUInt32 seen = thread.systemThreadUses;
        ZoUInt32 uses = 0;
        do {
            uses = WithoutAbsent(seen);
            if ((uses & Replacing) != 0) return false;
        } while (!thread.systemThreadUses.compare_exchange_weak(seen, uses + 1));
        return true;
    }

    ZoThread& thread;
    _Thread* used;
};

ZoThread::ZoThread(char const* name, char const* text, int autoDelete)
    : systemThread(nullptr),
      status(NotStarted),
      result(0),
      argument(nullptr),
      name(name),
      text(text),
      pendingPriority(ZoPriorityUnchanged),
      flags(0),
      blockingObject(nullptr),
      stackSizeCode(2),
      autoDelete(autoDelete),
      resourceWatcher(nullptr),
      systemThreadUses(NoUses()) {}

ZoThread::ZoThread(char const* name, void* argument, char const* text, int autoDelete)
    : ZoThread(name, text, autoDelete) {
    Start(argument);
}

ZoThread::~ZoThread() {
    CancellationDeferred deferred;
    ZoInt32 const now = status;
    if ((now == Running || now == Suspended) && systemThread != nullptr) Abort();
    ReleaseBlockingObject();
    ReplaceSystemThread(nullptr);
}

int ZoThread::Work(void*) {
    TraceMethod("ZoThread::Work ", this);
    return 0;
}

void ZoThread::Init(void*) {
    TraceMethod("ZoThread::Init ", this);
}

void ZoThread::Cleanup(void*) {
    TraceMethod("ZoThread::Cleanup ", this);
}

int ZoThread::Start(void* startArgument) {
    TraceMethod("ZoThread::Start ", this);
    ZoInt32 const now = status;
    if (now != NotStarted && now != Finished && now != Aborted) return ZoSuccess;
    argument = startArgument;
    _Thread* const made = _Thread::MakeSysThread(this);
    if (made == nullptr) return ZoOutOfMemory;
    ReplaceSystemThread(made);
    // `this` must not be used afterwards: the thread may have deleted the object.
    return made->Start(stackSizeCode) == 0 ? ZoSuccess : ZoStartFailed;
}

int ZoThread::Abort() {
    TraceMethod("ZoThread::Abort ", this);
    if (SystemThreadUse const used{*this}) used->Abort();
    ReleaseBlockingObject();
    return 0;
}

int ZoThread::Suspend() {
    SystemThreadUse const used(*this);
    return used ? used->Suspend() : 0;
}

int ZoThread::Giveup() {
    SystemThreadUse const used(*this);
    return used ? used->Giveup() : 0;
}

int ZoThread::Continue() {
    SystemThreadUse const used(*this);
    return used ? used->Continue() : 0;
}

int ZoThread::Block(ZoSynchroObj*) {
    return Suspend();
}

int ZoThread::WaitForThreadExit(int) {
    ZOVA_assert("0", "src/zothread", 228);
    return 0;
}

int ZoThread::GetOSThreadInfo(void* first, void* second, void* third) {
    SystemThreadUse const used(*this);
    return used ? used->GetOSThreadInfo(first, second, third) : ZoRefused;
}

int ZoThread::SetThreadPriority() {
    if (pendingPriority != ZoPriorityUnchanged) {
        ZoThreadPriority(pendingPriority);
        pendingPriority = ZoPriorityUnchanged;
    }
    return 0;
}

int ZoThread::SetThreadPriorityBoost() {
    if ((flags & 1U) != 0) ZoThreadPriorityBoostDisable();
    return 0;
}

void ZoThread::_Finish() {
    ReplaceSystemThread(nullptr);
    ReleaseBlockingObject();
}

void ZoThread::ReplaceSystemThread(_Thread* replacement) {
    ZoUInt32 seen = systemThreadUses;
    while (!systemThreadUses.compare_exchange_weak(seen, WithoutAbsent(seen) | Replacing)) {
    }
    ZoUInt32 const mine = NoUses() | Replacing;
    for (Patience patience; systemThreadUses != mine;) patience.Wait();
    _Thread* const old = systemThread.exchange(replacement);
    systemThreadUses = NoUses();
    delete old;
}

void ZoThread::ReleaseBlockingObject() {
    if (ZoSynchroObj* const blocking = blockingObject.exchange(nullptr)) blocking->ForceRelease();
}
