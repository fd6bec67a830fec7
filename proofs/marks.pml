// Marked reads of reader/writer mutexes (src/read_marks.h): a reader writes into its own record
// only, and a writer has all threads pass a barrier, looks through the records, and sleeps until no
// mark of its mutex is left.
//
// check: -DTHREADS=2 -DOPERATIONS=2 -DAHEAD
// check: -DTHREADS=3 -DMUTEXES=2
// check: -DTHREADS=3
// large: -DTHREADS=3 -DAHEAD
//
// fault: NO_BARRIER         the writer looks for marks without a barrier
// fault: BARRIER_FIRST      the barrier comes before the gate is closed
// fault: BARRIER_UNTOLD     the barrier comes before the writer is announced
// fault: LOOKED_FIRST       an end looks whether a writer is announced before it takes the mark back
// fault: END_TOUCHES        an end looks at the mutex after it has taken the mark back
// fault: REFUSAL_SILENT     a refused reader takes its mark back and wakes nobody
// fault: UPGRADE_SILENT     a marked reader that asks to write takes its mark back and wakes nobody
// fault: UPGRADE_MARKED     a marked reader that asks to write keeps its mark
// fault: MARKED_LATE        a reader does not look at the gate again after it has set its mark
// fault: CANCEL_FORGETS     a cancelled writer leaves a gate that does not tell of marks
// fault: SLEPT_UNLOCKED     the writer lets the lock go between its look and its sleep
// fault: WOKEN_UNLOCKED     a reader signals a writer after it has let the lock go
// fault: RECORD_UNLOCKED    a record leaves the list, and is freed, without the lock
// fault: RECORD_FREED_FIRST a record is freed before it leaves the list
// fault: LAST_TELLS -DTHREADS=3 -DMUTEXES=2   `announced` names the last writer only
// fault: END_CLEARS -DTHREADS=3 -DMUTEXES=2   who ends its wait clears `announced`
// fault: WAKES_ANY -DTHREADS=3 -DMUTEXES=2    an end wakes a writer of any mutex
//
// What is modelled. Each thread makes its record, which joins the list, does some operations and
// ends; an operation is a read, a write, or a read that asks to write. A writer may be cancelled in
// each of its waits. A reader's mutex may accept marks or not, as it likes. The gate is simpler
// than in gate.pml, which proves it: a counted reader leaves in one step, and a writer sees that
// without a wake-up. A thread that writes and finds that all others are done with the mutex
// destroys it; whatever touches it afterwards violates an assertion. What a thread does with the
// marks' lock held, and nobody can look into meanwhile, is one step.
//
// What is checked: nobody reads beside a writer; nobody touches a destroyed mutex, a writer that is
// not announced any more, or a freed record; nobody waits for ever (an invalid end state).
//
// Memory. A mark is a plain store, so each thread has a buffer of stores that others do not see
// yet. They leave it at any later time, at the latest when the thread gives a lock back; neither
// the taking of a lock nor an atomic update of another word empties it, as on the weakest
// processors that we build for. With AHEAD the look at `announced` may be carried out before the
// whole read. All else is guarded by a lock, or is an atomic word by itself.
//
// The barrier is what membarrier promises and no more: one after the other, in any order, each
// other thread passes a moment at which all that it did before can be seen, and nothing that comes
// after has been carried out. The moments are apart, and threads go on between them.

#ifndef THREADS
#define THREADS 3
#endif
#ifndef MUTEXES
#define MUTEXES 1
#endif
#ifndef OPERATIONS
#define OPERATIONS 1
#endif

#if THREADS == 2
#define ForEachThread(action) action(0) action(1)
#elif THREADS == 3
#define ForEachThread(action) action(0) action(1) action(2)
#endif

#define NONE 0
#define SEVERAL 255

// Of each mutex, 1 and up.
bool section[MUTEXES + 1];          // "RW_Exclusive" is held
bool closed[MUTEXES + 1];           // the word of the gate: bit 30;
bool marks[MUTEXES + 1] = true;     // bit 28: marks are accepted if it is open, and may be out;
byte count[MUTEXES + 1];            // and the counted readers
bool destroyed[MUTEXES + 1];
byte reading[MUTEXES + 1];          // threads inside
byte writing[MUTEXES + 1];
byte users[MUTEXES + 1] = THREADS - MUTEXES + 1;  // threads that may still ask for it

// Of each thread: its record, and its processor.
byte mark[THREADS];                 // what other threads see
bool listed[THREADS];
bool freed[THREADS];
chan buffer[THREADS] = [3] of { byte };  // stores to the mark that nobody else sees yet
#ifdef AHEAD
bool looked[THREADS];               // the next look at `announced` has been carried out already,
byte saw[THREADS];                  // and this is what it saw
#endif

// Of the process.
byte announced;                     // the mutex whose marks a writer waits for, or SEVERAL
bool lock;                          // the marks' lock: guards the list of records, and
bool waits[MUTEXES + 1];            // the list of writers, at most one for each mutex
bool signalled[MUTEXES + 1];

#define TOUCH(m) assert(!destroyed[m])

// By a thread that is inside, or has the section: whether that was the last time.
#define IsDone() if :: operations == 0 -> users[m]-- :: else fi

// --- memory ------------------------------------------------------------------------------------

#define SetMark(value) buffer[me]!value
#define Drain(t) do :: buffer[t]?mark[t] :: empty(buffer[t]) -> break od

#define OrStore(t) :: buffer[t]?mark[t]

active proctype Memory() {
end:
    do
    ForEachThread(OrStore)
    od
}

#ifdef AHEAD
#define Repeat(t) looked[t] = false;
inline MayLookAhead() {
    if
    :: atomic { looked[me] = true; saw[me] = announced }
    :: true
    fi
}
#define OrSeen :: looked[me] -> waited = saw[me]
#else
#define Repeat(t)
#define MayLookAhead() skip
#define OrSeen
#endif

inline LookForWriters() {
    atomic {
        if
        :: waited = announced
        OrSeen
        fi;
        Repeat(me)
    }
}

#define Pass(t) :: atomic { t != me && !passed[t] -> Drain(t); Repeat(t) passed[t] = true }
#define AndPassed(t) && (t == me || passed[t])
#define Forget(t) passed[t] = false;

// PassBarrierInAllThreads
inline Barrier() {
#ifdef NO_BARRIER
    skip
#else
    do
    ForEachThread(Pass)
    :: atomic { true ForEachThread(AndPassed) -> ForEachThread(Forget) break }
    od
#endif
}

// The marks' lock.
#define Lock() !lock -> lock = true
#define Unlock() Drain(me); lock = false

// --- the mutex ---------------------------------------------------------------------------------

#define EnterSection() !section[m] -> TOUCH(m); section[m] = true
#define ExitSection() atomic { TOUCH(m); section[m] = false }

#define Accepts(m) (marks[m] && !closed[m])

// Assumes that nobody writes.
#define IsReader() reading[m]++; assert(writing[m] == 0)

// --- reads -------------------------------------------------------------------------------------

// Finds the writer by the mutex's address: the mutex may be gone.
inline WakeWriters() {
    if
#if defined(WAKES_ANY)
    :: waited == NONE
    :: atomic { waited != NONE && !lock ->
           if
           :: waits[1] -> signalled[1] = true
           :: !waits[1] && waits[MUTEXES] -> signalled[MUTEXES] = true
           :: else
           fi;
           Drain(me) }
#elif defined(WOKEN_UNLOCKED)
    :: waited == NONE
    :: atomic { waited != NONE && !lock -> found = waits[m]; Drain(me) };
       atomic { assert(!found || waits[m]); signalled[m] = found; found = false }
#else
    :: waited != m && waited != SEVERAL
    :: atomic { (waited == m || waited == SEVERAL) && !lock -> signalled[m] = waits[m]; Drain(me) }
#endif
    fi;
    waited = NONE
}

inline TakeBack() {
#ifdef LOOKED_FIRST
    LookForWriters();
    SetMark(NONE);
#else
    SetMark(NONE);
    LookForWriters();
#endif
    WakeWriters()
}

// TryAdmitReader, QueueToRead
inline StartRead() {
    MayLookAhead();
    if
    :: atomic { Accepts(m) -> TOUCH(m) }  // ReadMarks::TrySet
       SetMark(m);
       if
#ifdef MARKED_LATE
       :: atomic { marked = true; IsReader() }
#else
       :: atomic { Accepts(m) -> TOUCH(m); marked = true; IsReader() }
       :: atomic { !Accepts(m) -> TOUCH(m) };
#ifdef REFUSAL_SILENT
          SetMark(NONE)
#else
          TakeBack()
#endif
#endif
       fi
    :: true  // it has accepted none, or the thread's marks are used up
    fi;
    if
    :: marked
    // ReaderGate::TryEnter, and MarkPolicy::ReadWasCounted as it likes
    :: atomic {
           !marked && !closed[m] ->
           TOUCH(m);
           count[m]++;
           IsReader();
           if :: marks[m] = true :: true fi
       }
    :: atomic { !marked && closed[m] -> TOUCH(m) };
       atomic {
           EnterSection();
           count[m]++;  // ReaderGate::Enter
           IsReader();
           if
           :: closed[m] -> closed[m] = false; if :: marks[m] = true :: true fi
           :: else
           fi
       }
       ExitSection()
    fi
}

// The mutex may be gone afterwards.
inline LeaveReaders() {
    reading[m]--;
    if
    :: marked ->
#if defined(UPGRADE_MARKED)
       if :: upgrades :: else -> TakeBack() fi;
#elif defined(UPGRADE_SILENT)
       if :: upgrades -> SetMark(NONE) :: else -> TakeBack() fi;
#else
       TakeBack();
#endif
#ifdef END_TOUCHES
       TOUCH(m);
#endif
       marked = false
    :: else -> atomic { TOUCH(m); count[m]-- }
    fi
}

// --- writes ------------------------------------------------------------------------------------

// MarksWithdrawal::Announce, with the marks' lock held: brings the word up to date.
#if MUTEXES == 1
#define Both 1
#define Other NONE
#else
#define Both SEVERAL
#define Other (waits[2] -> 2 : NONE)
#endif
#ifdef LAST_TELLS
#define Tell(last) announced = last
#else
#define Tell(last) announced = (waits[1] && waits[MUTEXES] -> Both : (waits[1] -> 1 : Other))
#endif

inline JoinWriters() { atomic { !lock -> waits[m] = true; Tell(m); Drain(me) } }

// SafeLook, with the marks' lock held: through the list, record by record.
inline Look() {
    do
    :: at < THREADS && listed[at] ->
       atomic { assert(!freed[at]); found = found || mark[at] == m; at++ }
    :: atomic { at < THREADS && !listed[at] -> at++ }
    :: atomic { at == THREADS -> at = 0; break }
    od
}

// MarksWithdrawal: ends with the marks gone, or with the writer cancelled, as `admitted` tells. The
// code lets the lock go once more after the first look; the second begins anew.
inline WithdrawMarks() {
#ifdef BARRIER_UNTOLD
    Barrier();
    JoinWriters();
#elif defined(BARRIER_FIRST)
    JoinWriters();
#else
    JoinWriters();
    Barrier();
#endif
    atomic { Lock() }
    do
    :: Look();
#ifdef SLEPT_UNLOCKED
       atomic { Unlock() }
       atomic { Lock() }
#endif
       if
       :: atomic { !found -> admitted = true; break }
       :: atomic { found -> found = false; signalled[m] = false; lock = false };
          if
          :: atomic { signalled[m] && !lock -> lock = true }
          :: atomic { isCancelled && !lock -> lock = true; break }
          fi
       fi
    od;
    atomic {  // SafeLeave
        waits[m] = false;
        signalled[m] = false;
#ifdef END_CLEARS
        announced = NONE;
#else
        Tell(announced);
#endif
        Unlock()
    }
}

// AdmitWriter, EndWrite
inline Write() {
#ifdef BARRIER_FIRST
    atomic { EnterSection() }
    Barrier();
    closed[m] = true;
#else
    atomic { EnterSection(); closed[m] = true };
#endif
    if
    :: atomic { !marks[m] -> TOUCH(m); admitted = true }
    :: atomic { marks[m] -> TOUCH(m) }; WithdrawMarks()
    fi;
    if
    :: atomic { admitted && count[m] == 0 -> TOUCH(m); writing[m]++ };
       assert(writing[m] == 1 && reading[m] == 0);
       atomic {
           writing[m]--;
           marks[m] = false;  // ReaderGate::EndWrite
           IsDone();
           mayDestroy = (users[m] == 0)
       }
       ExitSection();
       if
       :: atomic { mayDestroy -> destroyed[m] = true; mayDestroy = false }
       :: else
       fi
    :: atomic {
           isCancelled && (!admitted || count[m] != 0) ->
           TOUCH(m);
           closed[m] = false;  // ReaderGate::GiveUp
#ifdef CANCEL_FORGETS
           marks[m] = false;
#endif
           if :: upgrades -> count[m]++; IsReader() :: else fi;
           IsDone()
       }
       ExitSection();
       if
       :: upgrades -> atomic { reading[m]--; TOUCH(m); count[m]-- }
       :: else
       fi
    fi;
    admitted = false;
    isCancelled = false
}

// --- threads -----------------------------------------------------------------------------------

#if MUTEXES == 1
#define ChooseMutex() m = 1
#define MayRead true
#else
// The first two threads have a mutex each, and the second of them writes; the third is free.
#define ChooseMutex() \
    if \
    :: me < 2 -> m = me + 1; operations = 0 \
    :: me == 2 -> select (m : 1 .. 2); if :: operations == 0 -> users[3 - m]-- :: else fi \
    fi
#define MayRead me != 1
#endif

active [THREADS] proctype Thread() {
    byte me = _pid - 1;
    byte m;                        // the mutex in hand
    byte operations = OPERATIONS;  // still to be done
    bool marked;                   // the read in hand is marked
    bool upgrades;                 // a reader that asks to write
    bool isCancelled;              // in a wait for readers, if there is one
    byte waited;                   // what the look at `announced` saw
    bool found;                    // a mark, in a look through the records
    byte at;
    bool passed[THREADS];          // in a barrier
    bool admitted;
    bool mayDestroy;

    atomic { !lock -> listed[me] = true; Drain(me) }
    do
    :: atomic {
           operations > 0 ->
           operations--;
           ChooseMutex()
       }
       if
       :: MayRead -> StartRead();
          if
          :: IsDone()
          :: upgrades = true
          fi;
          LeaveReaders();
          if
          :: upgrades -> goto Writes
          :: else
          fi
       :: true ->
Writes:
          if :: isCancelled = true :: true fi;
          Write()
       fi;
       upgrades = false
    :: operations == 0 -> break
    od;
#ifdef RECORD_FREED_FIRST
    freed[me] = true;
#endif
#ifdef RECORD_UNLOCKED
    atomic { listed[me] = false; Drain(me) }
#else
    atomic { !lock -> listed[me] = false; Drain(me) }
#endif
    freed[me] = true
}
