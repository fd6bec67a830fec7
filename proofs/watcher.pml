// Resource watchers (src/zocond.cpp): users count themselves in and out, and every thread that
// waits for zero passes; and the sleepers of a condition beneath.
//
// check: -DUSERS=2 -DWAITERS=3 -DLOCKABLE
// check: -DUSERS=2 -DWAITERS=3
// large: -DUSERS=3 -DWAITERS=3 -DLOCKABLE
//
// fault: NOT_PASSED_ON  a waiter that passes does not wake the next
// fault: CANCEL_SILENT  a waiter that was woken and is cancelled does not wake the next
// fault: CANCEL_LISTED  a waiter that is cancelled stays in the list of sleepers
// fault: SLEPT_UNLOCKED a waiter lets the mutex go between its test and its sleep
// fault: WOKEN_LATE     a decrement signals after it has unlocked
// fault: NOT_WOKEN      a decrement wakes nobody
// fault: COUNTED_CLOSED -DUSERS=2 -DWAITERS=3 -DLOCKABLE  a closed watcher counts a new user
// fault: OPENED_BY_END -DUSERS=2 -DWAITERS=3 -DLOCKABLE   a decrement opens a closed watcher
// fault: CLOSED_LATE -DUSERS=2 -DWAITERS=3 -DLOCKABLE     a waiter closes the watcher after its wait
//
// What is modelled. Users are counted from the start; with LOCKABLE, a ZoLockableResourceWatcher,
// each counts itself in at any time, or is refused. Waiters wait for zero; each may be cancelled
// in its sleep. The last one that returns destroys the resource: of a plain watcher, the watcher
// itself. Each step is one under the condition's mutex, as POSIXCondition takes it.
//
// What is checked: nobody uses a destroyed resource, nobody touches a destroyed watcher, and every
// waiter that is not cancelled returns (else an invalid end state).

#ifndef USERS
#define USERS 2
#endif
#ifndef WAITERS
#define WAITERS 2
#endif

#ifdef LOCKABLE
#define FIRST_COUNT 0
#else
#define FIRST_COUNT USERS
#endif

byte count = FIRST_COUNT;
bool closed;
bool lock;                              // the condition's mutex
chan sleepers = [WAITERS] of { byte };  // those whom nobody has woken yet
bool woken[WAITERS];
byte waiting = WAITERS;                 // threads that have not returned
bool destroyed;
hidden byte sleeper;

#ifdef LOCKABLE
#define TOUCH skip
#else
#define TOUCH assert(!destroyed)
#endif

#define Lock() !lock -> TOUCH; lock = true
#define Unlock() TOUCH; lock = false

// SafeSignal
#define Signal() \
    if \
    :: sleepers?sleeper -> woken[sleeper] = true \
    :: empty(sleepers) \
    fi

active [USERS] proctype User() {
#ifdef LOCKABLE
    // IncrementCounter
    if
#ifdef COUNTED_CLOSED
    :: atomic { !lock -> count++ }
#else
    :: atomic { !lock && !closed -> count++ }
    :: atomic { !lock && closed -> goto Refused }
#endif
    fi;
#endif
    assert(!destroyed);  // it uses the resource
    // DecrementCounter
    atomic {
        Lock();
        assert(count != 0);
        count--
#ifdef OPENED_BY_END
        ; closed = false
#endif
    }
#ifdef WOKEN_LATE
    atomic { Unlock() }
    atomic { TOUCH; Signal() }
#elif defined(NOT_WOKEN)
    atomic { Unlock() }
#else
    atomic { Signal(); Unlock() }
#endif
#ifdef LOCKABLE
Refused:
    skip
#endif
}

active [WAITERS] proctype Waiter() {
    byte me = _pid - USERS;
    bool isCancelled;  // in its sleep, if there is one

    if
    :: isCancelled = true
    :: true
    fi;
#if defined(LOCKABLE) && !defined(CLOSED_LATE)
    atomic { !lock -> closed = true }
#endif
    // WaitForCondition
    atomic { Lock() }
    do
    :: atomic { count == 0 -> Unlock(); break }
    :: atomic {
           count != 0 ->
#ifdef SLEPT_UNLOCKED
           Unlock()
       }
       atomic {
           sleepers!me
#else
           sleepers!me;
           Unlock()
#endif
       }
       if
       :: atomic { woken[me] && !lock -> TOUCH; woken[me] = false; lock = true }
       :: atomic { isCancelled && !lock -> TOUCH; lock = true };  // ~Sleeper
          atomic {
              if
              :: woken[me] ->
                  woken[me] = false;
#ifndef CANCEL_SILENT
                  Signal()
#endif
              :: else ->
#ifdef CANCEL_LISTED
                  skip
#else
                  sleepers??eval(me)
#endif
              fi;
              Unlock()
          }
          goto Returns
       fi
    od;
#if defined(LOCKABLE) && defined(CLOSED_LATE)
    atomic { !lock -> closed = true }
#endif
#ifndef NOT_PASSED_ON
    atomic { Lock(); Signal() }  // WakeWaiter
    atomic { Unlock() }
#endif
    isCancelled = false;
Returns:
    atomic {
        waiting--;
        if
        :: waiting == 0 && !isCancelled -> destroyed = true
        :: else
        fi
    }
}
