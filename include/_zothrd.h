// The library context: one call makes the library's process-wide objects, one call destroys them.
//
//     *ZoGetDeadLockDetectionEnabled() = 1;    // if wanted, before set-up
//     ___ZoExtendedContext(1);
//     …                                        // any thread uses the library
//     ___ZoExtendedContext(0);                 // every thread has stopped using it
//
// Set-up makes, in this order:
//
//     object                               reached through
//     the section "CS chain"               fscs
//     the section "DeadLockDetectionCS"    csDLD, ZoGetCritSectCritSect()
//     the record that belongs to no thread __defTLS; non-null marks that the context is set up
//     the console                          GetConsole()
//     the debug switches                   GetDebugger()
//     - from here on synchronisation objects are chained -
//     the interlocked operations           GetZoInterlocked()
//     the event dispatcher                 ZoEventMessageDispatcher::GetDispatcher()
//
// and clears the host's semaphore (ZoQaSemaphore). Tear-down destroys them in the reverse order,
// each through its virtual destructor, also objects that the host has put there, and leaves every
// pointer as at load, so the two may follow each other again and again. It does not touch the
// host's semaphore. It waits for threads of the library that a watcher or a queue has let go but
// that still release their per-thread record: after a queue's Destroy, or at a watcher's zero, the
// context may be torn down at once.
//
// When there is no memory for the two sections or the record, set-up makes nothing: there is no
// context, and it may be set up again. Any other object that cannot be made is absent.
//
// A forked child has the context of its parent, the chain complete and free, and may tear it down.
// No thread forks during set-up or tear-down. fork() waits for no thread that walks the chain or
// holds csDLD: a deadlock report may be waiting for its answer.
//
// Also here: _Thread, the system thread as the library's portable part sees it.

#ifndef KELVARA_INCLUDE__ZOTHRD_H_
#define KELVARA_INCLUDE__ZOTHRD_H_

#include "zotypes.h"

// Non-zero sets up, 0 tears down; does nothing when that is already so. Called by one thread while
// no other uses the library. Reports no failure: what could not be made stays null.
ZO_API void ___ZoExtendedContext(int setUp);

class ZoThread;

// The system thread: what a ZoThread (zothread.h) knows of the operating system. The owner makes a
// new one for every start and destroys it; it writes the owner's status, so the owner outlives it.
// Complete by itself: what a platform cannot do it inherits.
//
// An owner's status is written by several threads; each of these may be called by any thread.
class ZO_API _Thread {
public:
    // The platform's system thread for `owner`, owned by the caller; null when memory ran out.
    static _Thread* MakeSysThread(ZoThread* owner);

    // Not started. `owner` is not owned and outlives it.
    explicit _Thread(ZoThread* owner);
    _Thread(_Thread const&) = delete;
    _Thread& operator=(_Thread const&) = delete;
    virtual ~_Thread();

    // Ends the thread: the owner's status becomes 5 (aborted). 0, or an error number.
    virtual int Abort();
    // Makes a thread that runs the owner. `stackSizeCode`: 0 the system's default, 1 32768 bytes,
    // 2 1048576 bytes, any other as many bytes. 0, or ZoRefused. Here: does nothing, returns 0.
    virtual int Start(long stackSizeCode);
    virtual int Suspend();   // only marks: the owner's status becomes 2; returns 0
    virtual int Continue();  // only marks: the owner's status becomes 1; returns 0
    virtual int Giveup();    // lets another thread run; here: does nothing; returns 0
    // Here: ZoNotSupported; the arguments, whose meaning is a platform's, are not touched.
    virtual int GetOSThreadInfo(void* first, void* second, void* third);

protected:
    ZoThread* owner;  // null once destroyed
};

// A command for a system thread, for the host to derive from; the library makes none.
class ZO_API CmdObj {
public:
    CmdObj();
    CmdObj(CmdObj const&) = delete;
    CmdObj& operator=(CmdObj const&) = delete;
    virtual ~CmdObj();

    // Here: ZoNotHandled.
    virtual int ProcessCmd(_Thread* thread);
};

#endif  // KELVARA_INCLUDE__ZOTHRD_H_
