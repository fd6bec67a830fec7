// The thread object: a class to derive from, whose Init, Work and Cleanup run on a thread of their
// own.
//
//     class Checkpointer : public ZoThread {
//     public:
//         Checkpointer() : ZoThread("checkpointer", nullptr, 0) {}
//     private:
//         int Work(void* database) override;     // its result is the thread's
//     };
//     Checkpointer checkpointer;
//     if (checkpointer.Start(database) != ZoSuccess) …
//
// The new thread gets its per-thread record, is counted in the resource watcher, applies its
// priority, lets the starter go on, and runs Init, Work and Cleanup with the argument of Start.
// Then it stores its status, deletes the object if that was asked for, and uncounts itself last.
//
//     status      meaning                                     next
//     7           not started, or a start is under way        1; 6 when it cannot be created
//     1           running                                     2, 4, 5
//     2           marked as suspended; it runs on             1, 4, 5
//     4           finished: Cleanup has returned              7 by Start
//     5           aborted                                     7 by Start
//     6           creation or cancellation failed             - not started again
//
// Abort. It cancels the thread: the thread unwinds its stack from its next cancellation point (so
// Init, Work and Cleanup let a cancellation pass: no noexcept, no catch (...) that keeps it), or
// ends when the operation it is in returns, cancellation point or not. It then runs none of the
// remaining steps: no Cleanup, no status Finished, no deletion, and its watcher stays counted. From
// the moment at which Finished is stored there is nothing left to abort: an abort then fails with
// status Failed, and every step is run.
//
// Destruction. Nothing waits. An object that is deleted while its thread runs (status Running or
// Suspended) has its thread aborted, and the thread may go on in Init, Work or Cleanup for a while.
// From then on the library touches the object no more; what the thread still executes of the
// operation it is in, destructors of its local objects included, must not touch it either. So an
// owner deletes a running thread's object only
//   - when the thread is inside one of the three operations and stays there until it is cancelled
//     (a thread that is about to be sent into the next one would enter it without an object), and
//   - when that operation works on things that outlive the object.
// Otherwise it waits for the end first: for status Finished, or for zero on the watcher, after
// which the thread uses neither the object nor its name. An object made to delete itself is never
// deleted, finished or aborted from outside without knowing that its thread is still at work.
//
// In a forked child there is only the thread that forked. An object whose thread is another one may
// be destroyed there; an abort finds no thread. A thread that forks inside an operation goes on in
// the child as the thread of the same object.
//
// Who may call: Start, _Finish and the destructor, one thread at a time for one object. Abort,
// Suspend, Continue, Giveup and GetOSThreadInfo, any thread, also during Start and on the thread
// itself; none of them together with the destructor. Everything marked "before Start" is for the
// creator alone. No lock is held while the three operations run. Event listeners leave thread
// objects alone: a failing abort is traced to them while it keeps the object's system thread.

#ifndef KELVARA_INCLUDE_ZOTHREAD_H_
#define KELVARA_INCLUDE_ZOTHREAD_H_

#include <atomic>

#include "zotypes.h"

class ZoResourceWatcher;
class ZoSynchroObj;
class _Thread;

// Priorities have no effect on this platform.
enum ZoThreadPriorityValue : int {
    ZoPriorityUnchanged = -3,  // in a thread object: no change is pending
    ZoPriorityLowest = -2,
    ZoPriorityLow = -1,
    ZoPriorityNormal = 0,
    ZoPriorityHigh = 1,
    ZoPriorityHighest = 2,
};

class ZO_API ZoThread {
public:
    // The status, as the table above says.
    static constexpr ZoInt32 Running = 1;
    static constexpr ZoInt32 Suspended = 2;
    static constexpr ZoInt32 Finished = 4;
    static constexpr ZoInt32 Aborted = 5;
    static constexpr ZoInt32 Failed = 6;
    static constexpr ZoInt32 NotStarted = 7;

    // `name` appears in traces; `text` is kept for the host. Both pointers are kept, not copied.
    // `autoDelete` non-zero: the thread deletes the object, made with new, at its end.
    ZoThread(char const* name, char const* text, int autoDelete);
    // The same, and starts at once; the status tells how that went. Not for a derived class that
    // overrides an operation: its thread would run before the derived part is constructed.
    ZoThread(char const* name, void* argument, char const* text, int autoDelete);
    ZoThread(ZoThread const&) = delete;
    ZoThread& operator=(ZoThread const&) = delete;
    virtual ~ZoThread();

    // The thread's operations, each called with the argument of Start. The base ones do nothing but
    // trace, and Work returns 0.
    virtual int Work(void* argument);
    virtual void Init(void* argument);
    virtual void Cleanup(void* argument);

    // Starts the thread, when the status is NotStarted, Finished or Aborted; otherwise does
    // nothing. Returns 0 when the thread is counted and about to run (an object that deletes itself
    // may be gone) or when there was nothing to do; ZoOutOfMemory, nothing changed, when no system
    // thread could be made; ZoStartFailed when it did not start: status NotStarted when the stack
    // size was refused, Failed when the thread could not be created, with the reason in the system
    // log.
    int Start(void* argument);
    // Cancels the thread, as described above; always 0.
    int Abort();
    // These mark the status, or yield (a thread for itself; from another thread, nothing but a
    // cancellation point). 0, also before the first start.
    int Suspend();
    int Giveup();
    int Continue();
    // As Suspend; the argument is ignored.
    int Block(ZoSynchroObj* ignored);
    // Not supported: reports the assertion "0" and returns 0 at once.
    int WaitForThreadExit(int ignored);
    // ZoRefused before the first start, then ZoNotSupported.
    int GetOSThreadInfo(void* first, void* second, void* third);

    // On the thread itself, as part of its entry: applies the pending priority; always 0.
    int SetThreadPriority();
    // The same for the priority boost.
    int SetThreadPriorityBoost();
    // Destroys the system thread and releases the blocking object. The thread, if it runs, runs on,
    // and can no longer be aborted.
    void _Finish();

    // The status, and the result of Work, 0 before it has returned.
    ZoInt32 GetStatus() const { return status; }
    int GetResult() const { return result; }

    // Before Start: applied by the thread as it starts. ZoPriorityUnchanged leaves its priority.
    void SetPendingPriority(ZoThreadPriorityValue priority) { pendingPriority = priority; }
    // Before Start: non-zero has the thread switch its priority boost off.
    void SetPriorityBoostOff(int off) {
        flags = static_cast<unsigned short>(off != 0 ? flags | 1U : flags & ~1U);
    }
    // Before Start: see _Thread::Start (_zothrd.h); 2 unless changed. The system may refuse a size
    // below its least: on AArch64 that is 128 KiB, so with code 1 Start returns ZoStartFailed
    // there.
    void SetStackSizeCode(long code) { stackSizeCode = static_cast<ZoInt32>(code); }
    // Before Start: counts the thread from before Start returns until the thread uses the object no
    // more. Not owned; outlives the thread's uncounting. Then the thread still releases its
    // per-thread record; the tear-down of the library context waits for that. A thread that the
    // watcher refuses to count, because it is closed, runs uncounted.
    void SetResourceWatcher(ZoResourceWatcher* watcher) { resourceWatcher = watcher; }

protected:
    std::atomic<_Thread*> systemThread;  // owned; of the last start; null before
    std::atomic<ZoInt32> status;         // one of the constants above
    std::atomic<int> result;             // of Work; 0 before
    void* argument;                      // of the last Start
    // As given.
    char const* name;
    char const* text;
    ZoThreadPriorityValue pendingPriority;
    unsigned short flags;  // bit 0: priority boost off
    // Null; the library sets none. Abort, _Finish and the destructor null it and give it a
    // ForceRelease, one of them if several meet.
    std::atomic<ZoSynchroObj*> blockingObject;
    ZoInt32 stackSizeCode;
    int autoDelete;
    ZoResourceWatcher* resourceWatcher;
    // How many calls use systemThread at this moment, and whether it is being replaced: it is never
    // destroyed in use.
    std::atomic<ZoUInt32> systemThreadUses;

private:
    friend class _Thread;
    friend class PosixThread;
    friend class SystemThreadUse;
    friend int CplusplusTrampoline(ZoThread* thread, int volatile* started);

    ZO_INTERNAL void ReplaceSystemThread(_Thread* replacement);
    ZO_INTERNAL void ReleaseBlockingObject();
};

#endif  // KELVARA_INCLUDE_ZOTHREAD_H_
