// A work queue (src/zowrkque.cpp): append, take, grow, shrink, terminate and destroy.
//
// check: -DWORKERS=2 -DUNITS=3
// large: -DWORKERS=2 -DUNITS=4
// large: -DWORKERS=3 -DUNITS=2
//
// fault: NOT_PASSED_ON -DWORKERS=3 -DUNITS=1   a worker that was woken does not tell the next of what it leaves behind
// fault: SLEPT_UNLOCKED     a worker lets the lock go between its test and its sleep
// fault: APPENDED_SILENTLY  an append wakes nobody
// fault: TERMINATED_SILENTLY  a termination wakes nobody
// fault: TAKES_LAST         a worker takes the last place of an item without the queue's lock
// fault: TURNED_UNLOCKED    and turns the item over, with the lock for taking only
// fault: COUNTED_FIRST      an append counts a place as used before the unit is in it
// fault: READY_KEPT         who turns an item over keeps the number of ready places
// fault: UNCOUNTED_EARLY    a worker takes itself off the count before it leaves the queue
// fault: DESTROYED_EARLY    the destruction does not wait for the workers
// fault: ABORTS_ONE         a termination aborts the first unit only
// fault: STARTED_UNCOUNTED  a worker is counted some time after its start
//
// What is modelled. Two threads append units, one of them the last unit only. A third adds a
// worker, takes one off, and terminates the queue, each once at most and in any order. A fourth destroys the queue when
// these three are done with it; before, it may wait until all units are handled, if a worker is
// left to do that. A worker looks for units without the queue's lock as often as it likes, then
// waits for one. A signal wakes any one of those who sleep. Items have two places, and what is done
// under the lock for taking is one step; that lock is never held for longer.
//
// What is checked. Each unit is handled, aborted, or left to the caller, once; a worker takes the
// units in the order of appending; a place is read only with a unit in it; nobody touches an item
// that was deleted, or the queue after its destruction; nobody waits for ever (an invalid end
// state): a unit that no worker is woken for, a worker that is not told of the end, a destruction
// that waits for a worker.
//
// Weak memory. All is guarded by the two locks, but `terminated`, which the code argues, and the
// number of used places: it is stored with release and loaded with acquire order, so the unit is in
// its place. Here all is sequentially consistent.

#ifndef WORKERS
#define WORKERS 2
#endif
#ifndef UNITS
#define UNITS 3
#endif

#define PLACES 2
#define ITEMS (UNITS / PLACES + 1)
#define END (UNITS + 1)            // DecreaseThreadCount's unit

#define NOBODY 255
#define NONE 0

// Of the units.
bool isDecided[UNITS + 2];         // handled, aborted, or left to the caller
byte undecided = UNITS;            // one more for DecreaseThreadCount
byte nextNumber;                   // of the units in the list, in the order of appending
byte nextTaken;

// The queue.
bool lock;                         // the mutex of its condition
chan sleepers = [WORKERS] of { byte };  // workers that sleep on the condition, in this order
byte woken;                        // those that were woken and do not run yet, one bit each
hidden byte sleeper;               // within one step
bool terminated;
bool destroyed;
byte counted;                      // the watcher's count of workers

// The list. Its items are `head` to `tail`; none while the two are equal. An item is made once.
byte head;
byte tail;
byte used[ITEMS];
byte place[ITEMS * PLACES];        // the unit,
byte number[ITEMS * PLACES];       // and which it is in the order of appending

// Guarded by the lock for taking.
bool isKnown;                      // `first` is set
byte taken;
byte ready;

// Threads.
byte running;                      // workers
byte ends;                         // DecreaseThreadCounts that a worker will take
byte users = 3;                    // threads that may still call the queue

#define Bit(thread) (1 << (thread))
#define TOUCH assert(!destroyed)

#define Decide(unit) assert(!isDecided[unit]); isDecided[unit] = true; undecided--

// --- the condition -----------------------------------------------------------------------------

// What a thread does first with the lock, it does as it takes it, and what it does last as it gives
// it back.
#define Lock() !lock -> TOUCH; lock = true
#define Unlock() TOUCH; lock = false

#define Signal() \
    if \
    :: sleepers?sleeper -> woken = woken | Bit(sleeper) \
    :: empty(sleepers) \
    fi

// --- the list, under the lock for taking ---------------------------------------------------------

// SafeIsReady
#define LookForReady() \
    assert(head < tail); \
    if \
    :: taken == ready -> ready = used[head] \
    :: else \
    fi
#define IsReady() (taken != ready)

inline SafeTake() {
    got = place[head * PLACES + taken];
    assert(got != NONE && number[head * PLACES + taken] == nextTaken);
    nextTaken++;
    place[head * PLACES + taken] = NONE;
    taken++
}

inline SafeTurnOver() {
    taken = 0;
#ifndef READY_KEPT
    ready = 0;
#endif
    if
    :: head + 1 == tail -> used[head] = 0
    :: else -> head++
    fi
}

inline TakeReady() {
    atomic {
        TOUCH;
        later = false;
        if
        :: terminated || !isKnown
        :: else ->
            LookForReady();
            if
            :: !IsReady() -> later = true
#if !defined(TAKES_LAST) && !defined(TURNED_UNLOCKED)
            :: IsReady() && taken == PLACES - 1
            :: IsReady() && taken != PLACES - 1 -> SafeTake()
#else
            :: IsReady() -> SafeTake()
#endif
            fi;
#ifdef TURNED_UNLOCKED
            if
            :: taken == PLACES -> SafeTurnOver()
            :: else
            fi
#endif
        fi
    }
}

// With the queue's lock held as well.
inline SafeTakeFirst() {
    atomic {
        TOUCH;
        if
        :: !isKnown && head < tail -> isKnown = true
        :: else
        fi;
        if
        :: !isKnown
        :: else ->
            LookForReady();
            if
            :: IsReady() ->
                SafeTake();
                if
                :: taken == PLACES -> SafeTurnOver()
                :: else
                fi
            :: else
            fi
        fi
    }
}

inline SafeHasNews() {
    atomic {
        TOUCH;
        if
        :: terminated -> news = true
        :: !terminated && !isKnown -> news = (head < tail)
        :: !terminated && isKnown -> LookForReady(); news = IsReady()
        fi
    }
}

// --- appending ---------------------------------------------------------------------------------

inline Append(unit) {
    atomic { Lock(); nobody = (counted == 0) };
    if
    :: atomic { terminated || nobody -> Decide(unit) }  // left to the caller, or handled here
    :: !terminated && !nobody ->
        atomic { isFull = (head == tail || used[tail - 1] == PLACES) };
        atomic {
            if
            :: isFull -> tail++
            :: else
            fi;
            where = (tail - 1) * PLACES + used[tail - 1]
        }
#ifdef COUNTED_FIRST
        used[tail - 1]++;
#endif
        atomic {  // Add
            place[where] = unit;
            number[where] = nextNumber;
            nextNumber++;
            if :: unit == END -> ends++ :: else fi
        }
#ifndef COUNTED_FIRST
        used[tail - 1] = where % PLACES + 1
#endif
    fi;
    atomic {
#ifndef APPENDED_SILENTLY
        Signal();
#endif
        Unlock()
    }
}

inline BeginTermination() {
    atomic { TOUCH; terminated = true };
#ifndef TERMINATED_SILENTLY
    atomic { Lock(); Signal(); Unlock() }
#endif
}

inline Terminate() {
    BeginTermination();
    atomic { Lock() };
    do
    :: SafeTakeFirst();
       if
       :: atomic { got != NONE -> Decide(got); got = NONE }
#ifdef ABORTS_ONE
          atomic { Unlock(); break }
#endif
       :: atomic { got == NONE -> Unlock(); break }
       fi
    od
}

// --- threads -----------------------------------------------------------------------------------

proctype Worker(byte me) {
    byte got;
    bool later;
    bool news;

#ifdef STARTED_UNCOUNTED
    atomic { TOUCH; counted++ }
#endif
Next:
    do
    :: atomic { terminated -> TOUCH; break }
    :: atomic { !terminated -> TOUCH }
Look:  TakeReady();
       if
       :: got != NONE -> goto Handle
       :: got == NONE && later -> later = false; goto Look
       :: got == NONE -> later = false
       fi;
       atomic { Lock() }  // AwaitAndTake
       do
       :: SafeHasNews();
          if
          :: news -> break
          :: else ->
#ifdef SLEPT_UNLOCKED
             atomic { Unlock() }
             sleepers!me;
#else
             atomic { sleepers!me; Unlock() }
#endif
             atomic { (woken & Bit(me)) != 0 && !lock -> TOUCH; woken = woken & ~Bit(me); lock = true }
          fi
       od;
       if
       :: terminated
       :: else -> SafeTakeFirst()
       fi;
       SafeHasNews();
       atomic { Unlock() }
#ifndef NOT_PASSED_ON
       if
       :: atomic { news && !lock -> TOUCH; Signal() }
       :: !news
       fi;
#endif
       news = false;
       if
       :: got != NONE -> goto Handle
       :: else
       fi
    od;
    goto End;
Handle:
    atomic {
        Decide(got);
        if
        :: got == END -> got = NONE; goto End
        :: else -> got = NONE; goto Next
        fi
    }
End:
#ifdef UNCOUNTED_EARLY
    counted--;
    TOUCH;
#else
    atomic { TOUCH; counted-- }
#endif
    running--
}

// With the queue's lock held: the starter waits until the thread is counted.
inline SafeStartWorker(worker) {
    atomic {
        TOUCH;
        running++;
#ifndef STARTED_UNCOUNTED
        counted++;
#endif
        run Worker(worker)
    }
}

proctype Appender(byte unit; byte last) {
    bool nobody;
    bool isFull;
    byte where;

    do
    :: unit <= last -> Append(unit); unit++
    :: else -> break
    od;
    users--
}

proctype Manager() {
    bool mayEnd = true;
    bool mayStart = true;
    bool mayTerminate = true;
    bool nobody;
    bool isFull;
    byte where;
    byte got;

    do
    :: atomic { mayEnd -> mayEnd = false; undecided++ };
       Append(END)
    :: atomic { mayStart -> mayStart = false; Lock(); SafeStartWorker(WORKERS - 1); Unlock() }
    :: atomic { mayTerminate -> mayTerminate = false };
       Terminate()
    :: break
    od;
    users--
}

proctype Owner() {
    byte got;

    users == 0;
    if
    // A worker is left for what is waiting.
    :: atomic { !terminated && running > ends -> undecided == 0 }
    :: true
    fi;
    Terminate();  // Destroy
    BeginTermination();
#ifndef DESTROYED_EARLY
    atomic { counted == 0 -> TOUCH }
#endif
    atomic { destroyed = true; assert(undecided == 0) }
}

init {
    atomic {
        SafeStartWorker(0);
#if WORKERS > 2
        SafeStartWorker(1);
#endif
        run Appender(1, UNITS - 1);
        run Appender(UNITS, UNITS);
        run Manager();
        run Owner()
    }
}
