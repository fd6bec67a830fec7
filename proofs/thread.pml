// The life of a thread object's threads (src/thrdimp.cpp, src/_zothrd.cpp, src/zothread.cpp): the
// start handshake, aborts against the end of the thread, a second start, and destruction.
//
// check: -DABORTERS=1
// large: -DABORTERS=2
//
// fault: RUNNING_UNLOCKED   an abort looks whether the thread runs, and cancels it, without the lock
// fault: END_UNSAID         a thread that ends does not say so
// fault: STARTED_UNHELD    the starter waits without a reference
// fault: RECORD_KEPT        the thread reads its start record once more after it has set the flag
// fault: TOLD_UNLOCKED      the thread wakes the starter without taking the lock
// fault: STATUS_OVERWRITTEN the thread stores the status Running over that of an abort
// fault: COUNTED_LATE       the thread is counted after the starter has gone on
// fault: RESULT_UNGUARDED   the thread stores its result without looking whether it was aborted
// fault: FINISH_UNGUARDED   the thread stores the status Finished without looking
// fault: FINISH_ABORTABLE   a thread that has stored Finished can still be aborted
// fault: REPLACED_IN_USE    a start does not wait for those who use the old system thread
// fault: FAILED_BLINDLY    an abort that failed does not look for a start since
//
// What is modelled. The owner starts the thread once or twice, and destroys the object when it may:
// with the status Finished, when the thread is gone, or while the thread stays in an operation
// until it is cancelled; a thread may not be created. The owner and other threads abort the thread,
// each once at most, at any time before the destructor. An object that deletes itself is left alone after its start. An operation
// of the host (Work stands for all three) ends, or is cancelled if the thread was aborted.
//
// What is checked: the handle is used only while its thread is there; nobody touches a destroyed
// object, a deleted system thread, a life without references, or the start record of a starter that
// has gone on; the starter goes on, with the thread counted and the status told; an abort that was
// accepted is the last that happens to the object, and one that was not leaves the thread to finish;
// everything is freed.
//
// Each life has one lock, and what a thread does with it, and nobody can look into meanwhile, is one
// step. All is sequentially consistent: the flag of the start is stored with release and loaded with
// acquire order, all else is guarded by the lock or is an atomic word in sequential order.

#ifndef ABORTERS
#define ABORTERS 1
#endif

#define LIVES 2
#define NONE 0

mtype = { NotStarted, Running, Finished, Aborted, Failed };
mtype = { Idle, Starting, Runs, Finishing, Ended };

// The object.
mtype status = NotStarted;
bool destroyed;
bool deletesItself;
byte systemThread;              // the life it belongs to, 1 and up
byte uses;                      // of the system thread,
bool replacing;                 // which is being replaced
byte watched;                   // threads that the watcher counts

// Of each life. A system thread object lives as long as `hasObject`.
mtype state[LIVES + 1] = Idle;
bool lock[LIVES + 1];
bool aborted[LIVES + 1];
bool cancelled[LIVES + 1];      // pthread_cancel has been called
byte references[LIVES + 1];
bool hasObject[LIVES + 1];
bool exists[LIVES + 1];         // the thread does: its handle is valid
bool stays[LIVES + 1];          // it is in an operation until it is cancelled
bool isDone[LIVES + 1];         // it has stored Finished
bool refused[LIVES + 1];        // an abort found nothing to abort any more
bool hasRecord[LIVES + 1];      // the start record, on the starter's stack
bool started[LIVES + 1];        // the record's flag
bool sleeps[LIVES + 1];         // the starter, until it is woken

byte aborters = ABORTERS;       // still to come or at it

#define TOUCH assert(!destroyed)
#define TouchLife(l) assert(references[l] != 0)

#define WithLock(l) !lock[l] -> TouchLife(l)
#define Release(l) atomic { TouchLife(l); references[l]-- }

// --- the system thread ---------------------------------------------------------------------------

// ~PosixThread
inline DeleteSystemThread(l) {
    if
    :: l != NONE ->
        atomic {
            assert(hasObject[l]);
            if
            :: status != NotStarted && status != Failed ->
                WithLock(l);
                if
                :: state[l] == Runs || state[l] == Finishing -> assert(exists[l])  // pthread_detach
                :: else
                fi
            :: else
            fi;
            hasObject[l] = false
        }
        Release(l)
    :: else
    fi
}

inline ReplaceSystemThread(replacement) {
    atomic { TOUCH; replacing = true };
#ifndef REPLACED_IN_USE
    uses == 0;
#endif
    atomic { old = systemThread; systemThread = replacement; replacing = false };
    DeleteSystemThread(old);
    old = NONE
}

inline Abort() {
    atomic { !replacing -> TOUCH; uses++ };
    used = systemThread;
    if
    :: used != NONE ->
        // Cancel
#ifndef RUNNING_UNLOCKED
        atomic { assert(hasObject[used]); WithLock(used); lock[used] = true };
#endif
        atomic { TOUCH; wasStarted = (state[used] != Idle); status = Aborted };
        if
        :: atomic {
               state[used] == Runs || state[used] == Starting ->
               canCancel = (state[used] == Runs)
           };
           atomic {
               if
               :: canCancel -> assert(exists[used]); cancelled[used] = true; canCancel = false
               :: else
               fi;
               assert(!isDone[used]);
               aborted[used] = true;
               lock[used] = false
           }
        :: atomic {
               state[used] != Runs && state[used] != Starting ->
               refused[used] = wasStarted;
               lock[used] = false
           };
           // MarkAbortFailed
           atomic {
               WithLock(used);
               TOUCH;
               if
#ifdef FAILED_BLINDLY
               :: status == Aborted -> status = Failed
#else
               :: status == Aborted && wasStarted == (state[used] != Idle) -> status = Failed
#endif
               :: else
               fi
           }
        fi
    :: else
    fi;
    atomic { TOUCH; uses--; used = NONE; wasStarted = false }
}

// --- the running thread --------------------------------------------------------------------------

// UnlessAborted
#define UnlessAborted(step) \
    atomic { \
        WithLock(me); \
        if \
        :: aborted[me] -> goto End \
        :: else -> TOUCH; step \
        fi \
    }

proctype Thread(byte me) {
    byte old;

    // RunningThread; CplusplusTrampoline
    atomic { WithLock(me); state[me] = Runs }
    atomic { TOUCH; assert(hasRecord[me]) }
#ifndef COUNTED_LATE
    atomic { TOUCH; watched++ }
#endif
    atomic {
        TOUCH;
#ifdef STATUS_OVERWRITTEN
        status = Running
#else
        if
        :: status == NotStarted -> status = Running
        :: else
        fi
#endif
    }
    atomic { assert(hasRecord[me]); started[me] = true }
#ifdef RECORD_KEPT
    assert(hasRecord[me]);
#endif
#ifdef TOLD_UNLOCKED
    atomic { TouchLife(me); sleeps[me] = false }
#else
    atomic { WithLock(me) }
    atomic { TouchLife(me); sleeps[me] = false }
#endif
#ifdef COUNTED_LATE
    atomic { TOUCH; watched++ }
#endif
    UnlessAborted(skip)
    // Work. It need not look at the object afterwards.
    atomic {
        if
        :: !deletesItself -> stays[me] = true; TOUCH
        :: TOUCH
        fi
    }
    if
    :: atomic { cancelled[me] -> goto End }
    :: !stays[me] || cancelled[me]  // it returns, cancelled or not
    fi;
#ifdef RESULT_UNGUARDED
    TOUCH;
#else
    UnlessAborted(skip)
#endif
#ifdef FINISH_UNGUARDED
    atomic { WithLock(me); TOUCH; state[me] = Finishing; isDone[me] = true; status = Finished }
#elif defined(FINISH_ABORTABLE)
    UnlessAborted(isDone[me] = true; status = Finished)
#else
    UnlessAborted(state[me] = Finishing; isDone[me] = true; status = Finished)
#endif
    if
    :: deletesItself -> ReplaceSystemThread(NONE); destroyed = true  // ~ZoThread
    :: else
    fi;
    watched--;
End:
    // ~RunningThread
#ifndef END_UNSAID
    atomic { WithLock(me); state[me] = Ended }
#endif
    exists[me] = false;
    Release(me)
}

// --- the owner -----------------------------------------------------------------------------------

inline Start(l) {
    if
    :: atomic { status == NotStarted || status == Finished || status == Aborted ->
           TOUCH; references[l] = 1; hasObject[l] = true };
       ReplaceSystemThread(l);
       // PosixThread::Start
       atomic { WithLock(l); TOUCH; status = NotStarted; state[l] = Starting; hasRecord[l] = true };
       if
       :: atomic {
              TouchLife(l);
#ifdef STARTED_UNHELD
              references[l]++;
#else
              references[l] = references[l] + 2;
#endif
              exists[l] = true;
              run Thread(l)
          };
          // AwaitStarted
          if
          :: started[l]
          :: atomic { !started[l] -> TouchLife(l) };
             atomic { WithLock(l); lock[l] = true; mustSleep = !started[l] };
             atomic { lock[l] = false; sleeps[l] = mustSleep; mustSleep = false };
             atomic { !sleeps[l] -> TouchLife(l); assert(started[l]) }
          fi;
          assert(watched != 0 || isDone[l]);
          assert(destroyed || status != NotStarted);
          hasRecord[l] = false;
#ifndef STARTED_UNHELD
          Release(l)
#endif
       :: atomic { WithLock(l); state[l] = Idle; aborted[l] = false };  // it was not created
          atomic { TOUCH; status = Failed; failed = true }
       fi
    :: status != NotStarted && status != Finished && status != Aborted
    fi
}

proctype Aborter() {
    byte used;
    bool wasStarted;
    bool canCancel;

    Abort();
    aborters--
}

#define IsGone(l) (state[l] == Idle || !exists[l])
#define MayDestroy(l) (IsGone(l) || isDone[l] || stays[l])

// With nobody at it: of one who was aborted the status says so, whatever came between.
#define CheckStatus(l) \
    assert(!aborted[l] || status == Aborted || (status == Failed && refused[l])); \
    assert(!isDone[l] || status == Finished || (status == Failed && refused[l]))

proctype Owner() {
    byte old;
    byte used;
    bool wasStarted;
    bool canCancel;
    byte life = 1;
    bool mustSleep;
    bool failed;
    bool mayAbort = true;
    bool destroys;

Starts:
    Start(life);
    life++;
    if
    :: deletesItself && !failed -> goto End
    :: else
    fi;
    do
    :: !destroys && !deletesItself && life <= LIVES -> goto Starts
    :: atomic {  // ~ZoThread
           !destroys && aborters == 0 && MayDestroy(1) && MayDestroy(2) ->
           CheckStatus(systemThread);
           destroys = true
       }
    :: atomic { mayAbort && !destroys && !deletesItself -> mayAbort = false }
Aborts:
       Abort()
    :: atomic { destroys && status == Running && systemThread != NONE -> TOUCH; goto Aborts }
    :: atomic { destroys && !(status == Running && systemThread != NONE) -> TOUCH; break }
    od;
    ReplaceSystemThread(NONE);
    destroyed = true;
End:
    skip
}

init {
    atomic {
        if
        :: run Aborter();
#if ABORTERS > 1
           run Aborter();
#endif
        :: deletesItself = true; aborters = 0
        fi;
        run Owner()
    }
}

// At the end.
active proctype Standstill() {
    timeout ->
    d_step {
        assert(destroyed && references[1] == 0 && references[2] == 0)
    }
}
