// Conditions: a named integer that threads change and wait on.
//
//     Condition* ready = Condition::MakeCondition("ready");
//     …                                              // thread A
//     if (ready->WaitForCondition(0, 5000) == ZoTimedOut) …
//     …                                              // thread B
//     ready->SetCondition();
//
// What setting and clearing do to the value, and when a wait is over, is not the condition's affair
// but that of its ConditionLogic. With the default logic a condition is a counting event: a set
// adds one, a clear takes one away, and a waiter passes while the value is not zero. Waiting never
// changes the value.
//
//     operation           value under the default logic   wakes
//     SetCondition        + 1                             one waiter, always
//     ClearCondition      - 1; refused when negative      nobody
//     SetConditionApp     + 1                             one waiter if the logic says so
//     WaitForCondition    unchanged                       -
//
// Who may call: any operation of a POSIXCondition, any thread. Its mutex is not recursive: between
// Lock, or a WaitForCondition that keeps the lock, and Unlock, the thread calls no other operation
// of the same condition but GetInfo. The base class Condition locks nothing and is for one thread
// at a time. A condition is destroyed when nobody uses it any more.
//
// In a forked child. Who waits in the parent does not wait there: a child may destroy any
// condition, and use those whose lock no other thread held when it was forked. fork() is not called
// from a logic's operation.
//
// On top of conditions: resource watchers, counters of the users of a resource that a thread can
// wait on until there are none left; see ZoResourceWatcher below.

#ifndef KELVARA_INCLUDE_ZOCOND_H_
#define KELVARA_INCLUDE_ZOCOND_H_

#include <pthread.h>

#include <atomic>

#include "zosyncob.h"
#include "zotypes.h"
#include "zowaits.h"

class ChainLock;

// The meaning of a condition's value. Stateless: one object serves any number of conditions. Every
// operation gets the address of the value and is called with the condition's lock held.
//
// The value is also read without the lock, for status texts. A logic that shall stay free of data
// races beside those changes it with a (relaxed) atomic store.
class ZO_API ConditionLogic {
public:
    virtual void SafeSet(int* value);    // adds 1
    virtual void SafeClear(int* value);  // subtracts 1
    // 1 while a waiter must go on waiting, 0 when the wait is over; here: waits while it is 0.
    virtual int SafeTest(int* value);
    // The work of SetConditionApp; non-zero wakes a waiter. Here: SafeSet, then 1 if the value is
    // now 0, else 0.
    virtual int SafeSetApp(int* value, void* first, void* second);

protected:
    ~ConditionLogic() = default;  // slots 0 to 3 are the whole table: not deleted through this base
};

// The base: no lock at all, and a wait that polls. For an object that one thread uses.
class ZO_API ZO_CAPABILITY("condition") Condition : public ZoSynchroObj {
public:
    // A new POSIXCondition, owned by the caller and deleted through this base; null when memory ran
    // out. `name` is kept, not copied.
    static Condition* MakeCondition(char const* name);

    // With the value 0 and the default logic. `name` is kept, not copied.
    explicit Condition(char const* name);
    ~Condition() override;

    // Changes the value and wakes one waiter; returns the new value.
    virtual int SetCondition();
    // Changes the value; returns the new one. A POSIXCondition whose value is negative refuses:
    // ZoRefused, nothing changed.
    virtual int ClearCondition();
    // Waits until the logic's test passes. The test is made before the first wait, so a condition
    // that passes returns at once. `keepLocked` non-zero: returns with the lock held, also after a
    // time-out. `milliseconds` limits the wait; 4294967295 or more is no limit. Each wake-up that
    // finds the test still failing starts the full time again, so the whole may take longer.
    // Returns 0, or ZoTimedOut without a further test. A thread cancelled in the wait leaves the
    // lock free. The base class ignores both arguments and yields the processor, or sleeps
    // a little, between its tests.
    virtual int WaitForCondition(unsigned short keepLocked, unsigned long milliseconds);
    // Returns the value read after unlocking.
    virtual int Unlock() ZO_RELEASE();
    // Writes "cond-val: " and the value, at most `size` bytes, the terminating NUL included. A null
    // buffer is left alone. Takes no lock.
    virtual void GetInfo(char* buffer, int size);
    // Returns the value read under the lock.
    virtual int Lock() ZO_ACQUIRE();
    // Lets the logic work on the two pointers under the lock and decide about the wake-up. Returns
    // the logic's result; the base class returns the value.
    virtual int SetConditionApp(void* first, void* second);

    // Never null between construction and destruction; replaced by the owner right after making.
    ConditionLogic* logic;
    // 0 when new. The owner may use it directly while it holds the lock.
    int value;

protected:
    ZO_INTERNAL Condition(char const* name, ChainLock const& held);
};

// A condition over a POSIX mutex and condition variables: what MakeCondition makes.
class ZO_API POSIXCondition : public Condition {
public:
    // As Condition.
    explicit POSIXCondition(char const* name);
    ~POSIXCondition() override;

    int SetCondition() override;
    int ClearCondition() override;
    int WaitForCondition(unsigned short keepLocked, unsigned long milliseconds) override;
    int Unlock() ZO_RELEASE() override;
    int Lock() ZO_ACQUIRE() override;
    int SetConditionApp(void* first, void* second) override;

private:
    friend class Contention;
    friend class ZoGenRW_Mutex;
    friend class ZoResourceWatcher;
    friend class ZoWorkQueueImpl;
    class Sleeper;

    ZO_INTERNAL POSIXCondition(char const* name, ChainLock const& held);
    // Wakes one waiter without changing the value.
    ZO_INTERNAL void WakeWaiter();
    // With the mutex held.
    ZO_INTERNAL void SafeSignal();
    ZO_INTERNAL bool SafeMustWait();
    [[gnu::cold]] ZO_INTERNAL void SafeForgetAbsentSleepers();
    [[gnu::cold]] ZO_INTERNAL int SafeSleep(unsigned long milliseconds);

    pthread_mutex_t mutex =
        PTHREAD_MUTEX_INITIALIZER;  // guards value, what follows it here, and every call of logic
    pthread_mutexattr_t mutexAttributes{};
    pthread_cond_t condition =
        PTHREAD_COND_INITIALIZER;  // of one sleeper at a time; a further one brings its own
    pthread_condattr_t conditionAttributes{};
    bool conditionIsTaken = false;
    ZoUInt32 generation;  // of the process whose threads sleep; see src/at_fork.h
    // Of the sleepers that are not woken yet, in the order of arrival.
    Sleeper* firstSleeper = nullptr;
    Sleeper* lastSleeper = nullptr;
    ZoWaitFigures figures;
    std::atomic<ZoQueueFigures*> queueFigures{nullptr};  // of the queue whose condition this is
    ZoSynchroObj const* partOf = nullptr;                // the mutex that it is in, or null
};

// Counts the users of a resource.
//
//     watcher.IncrementCounter();      // each user, as it starts
//     watcher.DecrementCounter();      // the same user, as it ends
//     watcher.WaitForZero(0);          // the owner, before it destroys the resource
//
// Any thread may call anything; increments and decrements balance. Every thread that waits passes
// when the count reaches zero, unless it has left zero again by the time that thread looks. Nobody
// is waiting when a watcher is destroyed; a decrement does not touch the watcher once a waiter can
// have seen the zero. A watcher whose condition could not be made refuses to count, at zero. In a
// forked child the users of the parent are counted but not there: the child destroys a watcher
// without waiting for zero.
class ZO_API ZoResourceWatcher {
public:
    ZoResourceWatcher();
    ZoResourceWatcher(ZoResourceWatcher const&) = delete;
    ZoResourceWatcher& operator=(ZoResourceWatcher const&) = delete;
    virtual ~ZoResourceWatcher();

    // Returns the new count; ZoRefused, nothing changed, when the value is negative.
    virtual int IncrementCounter();
    // Returns the new value and wakes a waiting thread.
    virtual int DecrementCounter();
    // Waits, always without limit, until the count is zero; the argument is ignored. Returns 0.
    virtual int WaitForZero(unsigned long ignored);
    // Does nothing and returns 0.
    virtual int Reset();

    // The value at this moment, read without the lock.
    int Counter() const;

protected:
    POSIXCondition* condition;  // named "ResourceWatcher"; owned; null when memory ran out
};

// Can be closed, so that no new user is counted while the old ones drain away.
//
//     state     Increment             Decrement             Counter             changes by
//     open      counts                counts                the count           WaitForZero: closed
//     closed    ZoRefused, nothing    counts, result < 0    0x80000000 + count  Reset: open
//
// The count has 31 bits and wraps within them; bit 31 says closed.
class ZO_API ZoLockableResourceWatcher : public ZoResourceWatcher {
public:
    ZoLockableResourceWatcher();
    ~ZoLockableResourceWatcher() override;

    // Closes the watcher, which stays closed, and waits until the count is zero. Returns 0.
    int WaitForZero(unsigned long ignored) override;
    // Opens the watcher; the count stays. Returns 0.
    int Reset() override;
};

#endif  // KELVARA_INCLUDE_ZOCOND_H_
