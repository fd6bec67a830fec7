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
// destroyed when no thread holds it or waits for it. No operation reports an error: leaving a
// section that the caller does not own, or more often than it was entered, goes undetected and
// breaks the section.

#ifndef KELVARA_INCLUDE_ZOCRITS_H_
#define KELVARA_INCLUDE_ZOCRITS_H_

#include <pthread.h>

#include <atomic>

#include "zosyncob.h"
#include "zotypes.h"

class ChainLock;
class ZoTLS;

// A complete class: the dummy section, which never blocks and never counts.
class ZO_API ZoCritSect : public ZoSynchroObj {
public:
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
    virtual void Begin();
    // Leaves once.
    virtual void Exit();
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

    void SetOwningCount(ZoInt32 count) { owningCount.store(count, std::memory_order_relaxed); }
    ZoInt32 GetOwningCount() const { return owningCount.load(std::memory_order_relaxed); }
};

// A section over one word. Recursion is its own: the word is taken once per outermost entry.
//
//     word       the section is    Begin by another thread           the last Exit
//     Free       free              takes it                          -
//     Taken      owned             waits, and makes it Awaited       frees it
//     Awaited    owned             waits                             frees it and wakes one
//
// A free section costs one atomic step to enter and one to leave. A thread that waits tries again a
// few times and then sleeps; one that comes just as the section is left may overtake those that
// sleep. errno stays as it was.
class ZO_API PosixCritSect : public ZoCritSect {
public:
    explicit PosixCritSect(char const* name);
    ~PosixCritSect() override;

    void ForceRelease() override;
    void Begin() override;
    void Exit() override;

private:
    friend class ZoDLDCritSect;
    friend bool TryBegin(ZoCritSect& section);

    ZO_INTERNAL PosixCritSect(char const* name, ChainLock const& held);

    ZO_INTERNAL bool IsMine() const;
    ZO_INTERNAL bool TakeIfFree();
    ZO_INTERNAL void Own();
    [[gnu::cold]] ZO_INTERNAL void WaitAndTake();
    [[gnu::cold]] ZO_INTERNAL void SleepAndTake();

    // Made, and kept for the layout: the word is the lock.
    pthread_mutexattr_t attributes;
    pthread_mutex_t mutex;
    std::atomic<pthread_t> owner;  // NoThread when free; see IsMine for why it needs no lock
    std::atomic<int> word;
};

// A section that finds a deadlock before it blocks.
//
// Each detecting section knows its owner, and each thread's record (zotls.h) knows the section the
// thread waits for. Before Begin blocks it follows these edges from the owner of the wanted
// section; when they lead back to the caller, the wait would close a ring. Begin then writes the
// ring to the console, if there is one, and to "deadlock.txt" in the current directory, logs
// "Deadlock detected." with the section's description, shows "Deadlock detected.\n(CANCEL to
// debug)" through the message service, and waits all the same. A wait that ends after all is logged
// as a false alarm.
//
// The whole report, the message included, runs on the detecting thread with `csDLD` held, so no
// thread enters or leaves a detecting section until the message is answered. `csDLD` is recursive:
// while the message is shown, the detecting thread may leave sections it owns (Exit or
// ForceRelease), which dissolves the ring. It must not enter a section that another thread may
// hold.
//
// The configuration key "csSleepTime" in section "debug" makes the last Exit of every detecting
// section hold it that many milliseconds longer. The key is read once, when the first detecting
// section is made.
//
// Detecting sections are entered and left only while the library context is set up. A thread that
// is cancelled during a report or a delayed Exit is cancelled only after it.
class ZO_API ZoDLDCritSect : public ZoCritSect {
public:
    // Owns `wrapped`, the section that really locks.
    ZoDLDCritSect(char const* name, ZoCritSect* wrapped);
    ~ZoDLDCritSect() override;

    void ForceRelease() override;
    void Begin() override;
    void Exit() override;
    void GetInfo(char* buffer, int size) override;

    // 1 when the owner of this section waits, directly or through a chain, for the thread whose
    // record is `me`; else 0. Call it with csDLD held.
    int WouldDeadLock(ZoTLS* me);

private:
    friend class WaitForGraph;
    friend void UnchainSection(ZoCritSect* section);
    friend bool TryBegin(ZoCritSect& section);

    ZO_INTERNAL ZoDLDCritSect(char const* name, ZoCritSect* wrapped, ChainLock const& held);

    ZO_INTERNAL bool TakeOrAnnounce(ZoTLS* me, bool& suspect);
    ZO_INTERNAL bool TakeIfFree(ZoTLS* me);
    ZO_INTERNAL void ReportDeadlock(ZoTLS* me);
    ZO_INTERNAL void ReportFalseAlarm();
    ZO_INTERNAL void EnterWrapped();
    ZO_INTERNAL void TakeOwnership(ZoTLS* me);

    ZoCritSect* wrapped;
    // The owning thread's record, null when free. Written under csDLD only. Atomic because the
    // re-entry test of Begin reads it without: only the owner ever finds its own record there.
    std::atomic<ZoTLS*> owner{nullptr};
};

// The section "DeadLockDetectionCS", which guards the owner of every detecting section and the
// waitingFor of every thread's record. Null while the library context is not set up.
extern ZO_API ZoCritSect* csDLD;

// The address of the switch; 0 at load. Set it before the sections it is meant for are made, and
// before ___ZoExtendedContext(1) if it is meant for the library's own.
ZO_API int* ZoGetDeadLockDetectionEnabled();
// The address of csDLD, through which a host without the library context installs its own.
ZO_API ZoCritSect** ZoGetCritSectCritSect();
// A new PosixCritSect named "DeadLockDetectionCS", owned by the caller; null when memory ran out.
ZO_API ZoCritSect* ZoMakeCritSectCritSect();
// 1 when the thread `waiter` waits, directly or through a chain, for the thread `target`; else 0. A
// ring of waits that does not include `target` answers 0. Enters csDLD itself.
ZO_API int ThreadWaitsForThread(ZoTLS volatile* waiter, ZoTLS volatile* target);

#endif  // KELVARA_INCLUDE_ZOCRITS_H_
