// Critical sections: the library's basic lock. Named, recursive, and described in one line.
//
//     ZoCritSect* accounts = ZoCritSect::Make("accounts");
//     accounts->Begin();
//     …                                     // may Begin again; leaves as often as it entered
//     accounts->Exit();
//     delete accounts;
//
// States of a section, seen by thread T:
//
//     state           owning count   Begin by T            Exit by T
//     free            0              owns it, count 1      caller's error
//     owned by T      n ≥ 1          count n + 1           count n - 1; free at 0
//     owned by other  n ≥ 1          blocks until free     caller's error
//
// Four factories make sections; each returns a new object that the caller owns and deletes, or null
// when memory ran out:
//
//     factory              deadlock detection off   deadlock detection on
//     Make, MakeLight      PosixCritSect            ZoDLDCritSect around a PosixCritSect
//     MakeImplementation   PosixCritSect            PosixCritSect
//     MakeDummy            locks nothing            locks nothing
//
// Detection is switched through the address that ZoGetDeadLockDetectionEnabled returns. The switch
// is read when a section is made and never again.
//
// Who may call: any operation, any thread, except that only the owner calls Exit. A section is
// destroyed when no thread holds it or waits for it. No operation reports an error. Leaving a
// section that the caller does not own, or more often than it was entered, goes undetected with a
// POSIX section and breaks it; a detecting section stays as it is and reports it (below).

#ifndef KELVARA_INCLUDE_ZOCRITS_H_
#define KELVARA_INCLUDE_ZOCRITS_H_

#include <pthread.h>

#include <atomic>

#include "zosyncob.h"
#include "zotypes.h"
#include "zowaits.h"

class ChainLock;
class ZoTLS;

// A complete class: the dummy section, which never blocks and never counts.
class ZO_API ZO_CAPABILITY("section") ZO_REENTRANT ZoCritSect : public ZoSynchroObj {
public:
    // As the table above says. `name` is kept, not copied.
    static ZoCritSect* Make(char const* name);
    static ZoCritSect* MakeLight(char const* name);
    static ZoCritSect* MakeDummy(char const* name);
    static ZoCritSect* MakeImplementation(char const* name);

    // Counts 0. `name` is kept, not copied.
    explicit ZoCritSect(char const* name);
    ~ZoCritSect() override;

    // If the calling thread owns the section, leaves it completely; otherwise does nothing.
    void ForceRelease() override;
    // Enters; blocks while another thread owns the section.
    virtual void Begin() ZO_ACQUIRE();
    // Leaves once.
    virtual void Exit() ZO_RELEASE();
    // Writes one line that begins with the name and a colon, at most `size` bytes, the terminating
    // NUL included. A null buffer is left alone. The counts are a snapshot.
    virtual void GetInfo(char* buffer, int size);

protected:
    ZO_INTERNAL ZoCritSect(char const* name, ChainLock const& held);

    // How often the owner has entered and not yet left. Changed by the owner only; atomic because
    // GetInfo reads it from any thread.
    std::atomic<ZoInt32> owningCount{0};
    // How many threads are blocked in Begin. For GetInfo only.
    std::atomic<ZoInt32> waitCount{0};

    // In relaxed order: the section orders its owners.
    void SetOwningCount(ZoInt32 count) { owningCount.store(count, std::memory_order_relaxed); }
    ZoInt32 GetOwningCount() const { return owningCount.load(std::memory_order_relaxed); }
};

// Enters if that needs no wait for the section. Returns 1, and the caller leaves by Exit; or 0:
// another thread holds the section, or it is of a class of the host's, which cannot be tried. The
// owner enters again, and the section that locks nothing is always free. A detecting section is
// tried while nobody holds csDLD, so this may wait for a deadlock report to be answered.
ZO_API int ZoTryBegin(ZoCritSect* section) ZO_TRY_ACQUIRE(1, section);

// A section over a POSIX mutex. Recursion is its own: the mutex is locked once per outermost entry.
//
// A thread that finds the section taken tries again a few times, at growing distances, and then
// blocks in the mutex, counted as waiting. The mutex decides who gets it next: a thread that comes
// just as the section is left may overtake threads that block. errno stays as it was.
//
// A thread that ends while it owns a section takes the section with it: no other thread ever gets
// it, and none is mistaken for the owner, even if the system uses addresses and handles again. A
// line of the system log at level 4 reports that, with the names of the sections. No line is
// written in a process that has no POSIX thread-specific key left when it loads the library.
//
// In a child process made by fork() the forking thread owns what it owned. A section that another
// thread of the parent owned stays taken, and its waiters stay counted.
class ZO_API PosixCritSect : public ZoCritSect {
public:
    // Free. `name` is kept, not copied.
    explicit PosixCritSect(char const* name);
    ~PosixCritSect() override;

    void ForceRelease() override;
    void Begin() ZO_ACQUIRE() override;
    void Exit() ZO_RELEASE() override;

private:
    friend class ZoDLDCritSect;
    friend class Contention;
    friend class OwnedSections;
    friend class ZoGenRW_Mutex;
    friend bool TryBegin(ZoCritSect& section);
    friend int ZoTryBegin(ZoCritSect* section);
    friend bool GraphIsFree();
    friend class WaitForGraph;
    friend void SetWhole(ZoCritSect* part, ZoSynchroObj const* whole);

    ZO_INTERNAL PosixCritSect(char const* name, ChainLock const& held);

    ZO_INTERNAL bool IsMine() const;
    ZO_INTERNAL bool IsFree() const;
    ZO_INTERNAL bool TakeIfFree();
    [[gnu::always_inline]] inline void Own();
    [[gnu::cold]] ZO_INTERNAL void WaitAndTake();

    pthread_mutexattr_t attributes{};
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<pthread_t> owner;  // NoThread when free; see IsMine for why it needs no lock
    std::atomic<unsigned long> ownerNumber;  // the owner's number in this process
    ZoWaitFigures figures;                   // of those who blocked in Begin
    // The detecting section or the mutex that contains it and reports for it; null: there is none.
    ZoSynchroObj const* partOf = nullptr;
};

// The section "DeadLockDetectionCS", which guards the wait-for graph: what every thread's record
// says it waits for, and while it is held, no entry into a detecting section and no leave begins. A
// host may put a section of its own in its place; unless that is a PosixCritSect, every entry and
// every leave goes through it. Null while the library context is not set up.
extern ZO_API ZoCritSect* csDLD;

// A section that finds a deadlock before it blocks.
//
// A free section costs hardly more than a plain one to enter and to leave: what detection needs is
// done by the threads that must wait.
//
// Each detecting section knows its owner, and each thread's record (zotls.h) knows what the thread
// waits for: a section, or the readers of a reader/writer mutex (rw_mutex.h). Before Begin blocks
// it follows these edges from the owner of the wanted section; when they lead back to the caller,
// the wait would close a ring. Begin then writes the ring to the console, if there is one, and to
// "deadlock.txt" in the current directory, logs "Deadlock detected." with the section's
// GetInfo text, shows "Deadlock detected.\n(CANCEL to debug)" through the message service, and
// waits all the same. A wait that ends after all is logged as a false alarm. A writer does the same
// before it waits for readers; the text is then the mutex's.
//
// The whole report, the message included, runs on the detecting thread with `csDLD` held. An entry
// or a leave that begins meanwhile waits until the message is answered; so does one that begins
// while the host holds csDLD to look at the graph. `csDLD` is recursive: while the message is
// shown, the detecting thread may leave sections it owns (Exit or ForceRelease) and end its reads
// and writes, which dissolves the ring. It must not enter a section that another thread may hold.
//
// The configuration key "csSleepTime" in section "debug" makes the last Exit of every detecting
// section hold it that many milliseconds longer. The key "csStacks" adds the call stack of each
// thread to a report. Both are read once, when the first detecting section is made.
//
// A detecting section also reports its misuse, in one line of the system log at level 4 that names
// the calling thread, the section and its owner as the reports do:
//
//     Exit by a thread that does not own it     nothing changes
//     destroyed while owned or waited for       it is destroyed; its waiters never get it
//
// No line reports the destruction of a section whose owner has ended, which was reported then,
// unless the section is waited for; nor, in a child made by fork(), that of a section of the
// parent's. For the section of a reader/writer mutex (rw_mutex.h) the mutex reports. A line waits,
// as GetInfo does, while another thread holds csDLD.
//
// Detecting sections are entered and left only while the library context is set up. A thread that
// is cancelled during a report or a delayed Exit is cancelled only after it. In a child process
// made by fork() the threads that are not there wait for nothing.
class ZO_API ZoDLDCritSect : public ZoCritSect {
public:
    // Owns `wrapped`, the section that really locks.
    ZoDLDCritSect(char const* name, ZoCritSect* wrapped);
    ~ZoDLDCritSect() override;

    void ForceRelease() override;
    void Begin() ZO_ACQUIRE() override;
    void Exit() ZO_RELEASE() override;
    // Names the section that the owner waits for. Of an owner that waits for the readers of a mutex
    // it says nothing: that mutex's own GetInfo does.
    void GetInfo(char* buffer, int size) override;

    // 1 when the owner of this section waits, directly or through a chain, for the thread whose
    // record is `me`; else 0. Call it with csDLD held.
    int WouldDeadLock(ZoTLS* me) ZO_REQUIRES(csDLD);

private:
    friend class Contention;
    friend class WaitForGraph;
    friend class Misuse;
    friend class ZoGenRW_Mutex;
    friend class ZoThreadMgr;
    friend void UnchainSection(ZoCritSect* section);
    friend void SetWhole(ZoCritSect* part, ZoSynchroObj const* whole);
    friend bool TryBegin(ZoCritSect& section);
    friend int ZoTryBegin(ZoCritSect* section);

    ZO_INTERNAL ZoDLDCritSect(char const* name, ZoCritSect* wrapped, ChainLock const& held);

    ZO_INTERNAL void BeginWithoutRecord();
    ZO_INTERNAL bool TakeBesideGraph(ZoTLS* me);
    ZO_INTERNAL bool TakeIfFree(ZoTLS* me);
    ZO_INTERNAL void Own(ZoTLS* me);
    [[gnu::cold]] ZO_INTERNAL void WaitAndTake(ZoTLS* me);
    ZO_INTERNAL bool TakeOrAnnounce(ZoTLS* me, bool& suspect);
    ZO_INTERNAL void EnterWrapped();
    ZO_INTERNAL void EndWait(ZoTLS* me);
    ZO_INTERNAL void WithdrawWait(ZoTLS* me) ZO_REQUIRES(csDLD);
    ZO_INTERNAL bool MayLeave() const;
    [[gnu::cold]] ZO_INTERNAL bool OwnsUnnoticed() const;
    ZO_INTERNAL void Leave();

    ZoCritSect* wrapped;
    // The owning thread's record, null when free. Written by the owner only, with csDLD held or
    // while nobody holds it; read by walks of the graph, with csDLD held, and by the re-entry test
    // of Begin, without: only the owner ever finds its own record there.
    std::atomic<ZoTLS*> owner{nullptr};
    PosixCritSect* plain;  // the wrapped section, if it is of this very kind; else null
    // Decide whether a destruction while it is in use is reported.
    ZoUInt32 generation;  // how many forks lay before it was made
    bool isPart = false;  // of another lock, which reports
};

// The address of the switch; 0 at load. Set it before the sections it is meant for are made, and
// before ___ZoExtendedContext(1) if it is meant for the library's own. A host that sets it while
// other threads make sections does so by an atomic store.
ZO_API int* ZoGetDeadLockDetectionEnabled();
// The address of csDLD, through which a host without the library context installs its own.
ZO_API ZoCritSect** ZoGetCritSectCritSect();
// A new PosixCritSect named "DeadLockDetectionCS", owned by the caller; null when memory ran out.
ZO_API ZoCritSect* ZoMakeCritSectCritSect();
// 1 when the thread `waiter` waits, directly or through a chain, for the thread `target`; else 0. A
// ring of waits that does not include `target` answers 0. What `target` reads counts if it waits
// itself or is the caller. Enters csDLD itself.
ZO_API int ThreadWaitsForThread(ZoTLS volatile* waiter, ZoTLS volatile* target);

#endif  // KELVARA_INCLUDE_ZOCRITS_H_
