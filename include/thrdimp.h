// Threads over POSIX threads: the system thread of this platform, thread priorities and the number
// of processors.
//
//     int const workers = ZoGetNumberOfLogicalProcessors();
//
// Any thread may call anything here. A PosixThread is made by _Thread::MakeSysThread for a ZoThread
// (zothread.h), started once and destroyed by its owner. Every failing POSIX call is written to the
// system log, level 4, with the error number.

#ifndef KELVARA_INCLUDE_THRDIMP_H_
#define KELVARA_INCLUDE_THRDIMP_H_

#include <pthread.h>

#include <atomic>

#include "_zothrd.h"
#include "zothread.h"
#include "zotypes.h"

class ThreadLife;

// A detached POSIX thread.
class ZO_API PosixThread : public _Thread {
public:
    // For MakeSysThread; see _Thread.
    explicit PosixThread(ZoThread* owner);
    // The thread, if it runs, runs on.
    ~PosixThread() override;

    // Cancels the thread. 0, also while the start is under way: the thread then ends before it
    // calls the owner's operations. ESRCH when there is no thread, or it is past its work: the
    // owner's status becomes Failed and, if that is traced, a debug event says so.
    int Abort() override;
    // Returns once the new thread is attached, counted in its resource watcher and no longer needs
    // the starter. Without an error the object may be gone by then, if it deletes itself. ZoRefused
    // with the owner's status NotStarted when the stack size is refused, Failed when no thread
    // could be created.
    int Start(long stackSizeCode) override;
    int Suspend() override;
    int Continue() override;
    // On this thread itself yields the processor; elsewhere sleeps for 0 seconds. Returns 0.
    int Giveup() override;

private:
    friend class _Thread;
    friend class RunningThread;

    ZO_INTERNAL int Cancel(bool& started);
    ZO_INTERNAL void MarkAbortFailed(bool started);
    ZO_INTERNAL int FailToCreate(int error);
    ZO_INTERNAL void LeaveIdle();
    ZO_INTERNAL bool IsCallingThread();

    pthread_attr_t attributes;
    pthread_t handle;            // written by the thread itself as it starts; guarded by life
    std::atomic<int> lastError;  // of the last call that can fail in Start or Abort
    // Shared with the running thread, which may outlive this object and which this object may
    // outlive: tells whether `handle` still names a thread. Null when memory ran out.
    ThreadLife* life;
};

// The calling thread's priority; no effect on this platform.
ZO_API void ZoThreadPriority(ZoThreadPriorityValue priority);
// Switches the priority boost of the calling thread off; no effect on this platform.
ZO_API void ZoThreadPriorityBoostDisable();
// The priority of this number; ZoPriorityUnchanged for a number that is none.
ZO_API ZoThreadPriorityValue long2ZoThreadPriority(long number);

// Processors online; physical and logical ones are not told apart on this platform.
ZO_API int ZoGetNumberOfPhysicalProcessors();
ZO_API int ZoGetNumberOfLogicalProcessors();

#endif  // KELVARA_INCLUDE_THRDIMP_H_
