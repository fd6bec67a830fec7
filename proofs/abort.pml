// The abort facility (src/zoabort.cpp) and fork() (src/at_fork.cpp): references, its set-up and
// tear-down, threads that ask its handlers, handlers that release it or fork, and the child.
//
// check: -DTHREADS=2
//
// fault: UNPINNED         a thread enters the section of a facility that it has not pinned
// fault: TORN_UNSEEN      a thread that enters late does not look whether the facility is torn down
// fault: REFERENCE_DELETES  the last reference deletes the facility, not the last pin
// fault: SET_UP_TWICE     a set-up does not look whether another thread was first
// fault: LEFT_ONE_LEVEL   a thread that has asked handlers leaves one level of the section only
// fault: NOT_REENTERED    a thread does not enter the section anew after a handler
// fault: FORK_UNENTERED   fork() does not enter the section
// fault: FORK_UNLOCKED    fork() does not take the facility's lock
// fault: FORK_LOOKS_ONCE  fork() does not look for a facility that was set up since it found none
// fault: FORK_FORGETS_OUTER  fork() in a handler does not enter the section of the asked facility
// fault: FORK_LOCKS_FIRST fork() takes the facility's lock before it enters the section
// fault: CHILD_KEEPS      the child does not give back what its thread took for fork()
//
// What is modelled. Each thread takes a reference, asks the handlers, forks, and releases the
// reference, each of the middle two or not. A handler may release a reference, fork, or make its
// thread leave all its sections. After the fork the model goes on as the parent, or as the child:
// then all other threads vanish where they stand, and what they held stays held.
//
// What is checked: nobody touches a deleted facility; what a thread finds and enters is the
// facility of the day; a section that is left was held; a torn-down facility is deleted, in the
// parent; no thread waits for ever, in the child neither (an invalid end state).
//
// All is guarded by the facility's lock and the section, so it is sequentially consistent. A step
// under the facility's lock is one step, but for fork(), which holds it for longer. The locks that
// fork() takes after that one guard other things; nobody takes anything under them.

#ifndef THREADS
#define THREADS 2
#endif

#define NONE 0
#define FACILITIES (2 * THREADS)

// Of each facility, 1 and up.
byte pins[FACILITIES + 1];
byte inited[FACILITIES + 1];      // the references, abortInited
bool tornDown[FACILITIES + 1];
byte holder[FACILITIES + 1];      // of the section "AbortionHandler"
byte level[FACILITIES + 1];
bool deleted[FACILITIES + 1];

byte facility;
byte made;
bool lock;                        // facilityLock
bool isChild;
byte forker;

mtype = { Take, Ask, Fork, Release, Nothing };

#define TOUCH(f) assert(!deleted[f])
#define IsMine(f) (holder[f] == me)

// --- finding a facility --------------------------------------------------------------------------

#ifdef UNPINNED
#define AddPin(f)
#else
#define AddPin(f) pins[f]++
#endif

inline Pin() {
    atomic {
        !lock ->
        found = facility;
        if
        :: found != NONE -> TOUCH(found); AddPin(found)
        :: else
        fi
    }
}

// SetUp
inline PinOrSetUp() {
    do
    :: Pin();
       if
       :: found != NONE -> break
       :: else
       fi;
       atomic { made++; fresh = made; pins[fresh] = 1 };
       atomic {
           !lock ->
           if
#ifdef SET_UP_TWICE
           :: true ->
#else
           :: facility == NONE ->
#endif
               facility = fresh;
               AddPin(fresh);
               found = fresh
           :: facility != NONE -> deleted[fresh] = true
           fi;
           fresh = NONE
       }
       if
       :: found != NONE -> break
       :: else
       fi
    od
}

inline Unpin(f) {
#ifndef UNPINNED
    atomic {
        !lock ->
        TOUCH(f);
        pins[f]--;
        last = (pins[f] == 0)
    }
    if
    :: atomic { last -> TOUCH(f); assert(holder[f] == NONE); deleted[f] = true; last = false }
    :: else
    fi
#else
    skip
#endif
}

inline EnterSection(f) {
    atomic { holder[f] == NONE || IsMine(f) -> TOUCH(f); holder[f] = me; level[f]++ }
}

#define ExitSection(f) \
    TOUCH(f); \
    assert(IsMine(f)); \
    level[f]--; \
    if \
    :: level[f] == 0 -> holder[f] = NONE \
    :: else \
    fi

#define LeaveSection(f) \
    TOUCH(f); \
    if \
    :: IsMine(f) -> level[f] = 0; holder[f] = NONE \
    :: else \
    fi

// --- threads -------------------------------------------------------------------------------------

inline Thread() {
    do
    :: done == 0 -> operation = Take; done++; goto Begin
    :: done == 1 -> done++; if :: operation = Ask; goto Begin :: true fi
    :: done == 2 -> done++; if :: me == 1 -> operation = Fork; goto Begin :: true fi
    :: done == 3 -> operation = Release; done++; goto Begin
    :: done == 4 -> break

Begin:
       // BeforeFork, AbortionAtFork::Begin
#ifndef FORK_FORGETS_OUTER
       if
       :: operation == Fork && outer != NONE -> EnterSection(outer)
       :: else
       fi;
#endif
Again:
#ifdef FORK_LOCKS_FIRST
       if
       :: operation == Fork -> atomic { !lock -> found = facility; lock = true; forker = me;
                                        if :: found != NONE -> pins[found]++ :: else fi }
          if
          :: found != NONE -> EnterSection(found)
          :: else
          fi;
          goto Forks
       :: else
       fi;
#endif
       // EnterFacility
       do
       :: if
          :: operation == Take -> PinOrSetUp()
          :: else -> Pin()
          fi;
          if
          :: found == NONE -> break
          :: else
          fi;
#ifdef FORK_UNENTERED
          if
          :: operation == Fork -> break
          :: else
          fi;
#endif
          EnterSection(found);
#ifdef TORN_UNSEEN
          break
#else
          if
          :: atomic { !tornDown[found] -> assert(facility == found); break }
          :: atomic { tornDown[found] -> ExitSection(found) };
             Unpin(found)
          fi
#endif
       od;
       if
       :: operation == Fork -> goto Locks
       :: operation != Fork && found == NONE -> goto Left
       :: operation == Take && found != NONE ->
           atomic { assert(IsMine(found) && !tornDown[found]); inited[found]++ }
       :: operation == Ask && found != NONE ->
           // AskHandlers; a handler that calls the facility comes to Begin with `outer` set.
           atomic {
               assert(IsMine(found));
               outer = found;
               found = NONE;
               if
               :: LeaveSection(outer)  // ForceRelease
               :: true
               fi;
               if
               :: operation = Release; goto Begin
               :: me == 1 -> operation = Fork; goto Begin
               :: operation = Nothing; goto Handled
               fi
           }
       :: operation == Release && found != NONE ->
           // ReleaseReference
           atomic {
               assert(IsMine(found));
               if
               :: inited[found] == 0
               :: inited[found] > 1 -> inited[found]--
               :: inited[found] == 1 -> inited[found]--; tornDown[found] = true
               fi
           }
           if
           :: atomic {
                  tornDown[found] && facility == found && !lock ->
                  facility = NONE;
                  pins[found]--
#ifdef REFERENCE_DELETES
                  ; deleted[found] = true
#endif
              }
           :: !tornDown[found]
           fi
       fi;
       goto Leaves;

       // AbortionAtFork::Lock
Locks:
#ifdef FORK_UNLOCKED
       forker = me;
#else
       if
#ifdef FORK_LOOKS_ONCE
       :: atomic { !lock -> lock = true; forker = me }
#else
       :: atomic { !lock && facility == found -> lock = true; forker = me }
       :: atomic { !lock && facility != found -> assert(found == NONE); goto Again }
#endif
       fi;
#endif
Forks:
       if
       :: !isChild -> isChild = true
       :: true
       fi;
       // AfterFork
#ifdef CHILD_KEEPS
       if
       :: isChild -> goto Left
       :: else
       fi;
#endif
#ifndef FORK_UNLOCKED
       lock = false;
#endif
       if
       :: found == NONE -> goto Left
       :: else
       fi;
#ifdef FORK_UNENTERED
       goto Unpins;
#endif

Leaves:
       // LeaveFacility
       atomic {
           if
#ifndef LEFT_ONE_LEVEL
           :: outer == NONE -> LeaveSection(found)
           :: outer != NONE -> ExitSection(found)
#else
           :: ExitSection(found)
#endif
           fi
       }
Unpins:
       Unpin(found);
Left:
       found = NONE;
       if
       :: outer == NONE -> goto Next
       :: else
       fi;
#ifndef FORK_FORGETS_OUTER
       // AbortionAtFork::Leave
       if
       :: atomic { operation == Fork -> ExitSection(outer) }
       :: operation != Fork
       fi;
#endif
Handled:
       // after the handler
#ifndef NOT_REENTERED
       EnterSection(outer);
#endif
       atomic { TOUCH(outer); assert(IsMine(outer)); found = outer; outer = NONE; goto Leaves };
Next:
       operation = Nothing
    od
}

active [THREADS] proctype User() {
    byte me = _pid + 1;
    mtype operation = Nothing;
    byte done;
    byte found;
    byte outer;      // the facility whose handler is running
    byte fresh;
    bool last;

    { Thread() } unless { isChild && forker != me }
}

active proctype Standstill() {
    byte f = 1;

    timeout ->
    assert(!lock);
    do
    :: atomic {
           f <= made ->
           assert(isChild || holder[f] == NONE);
           assert(isChild || deleted[f] || (facility == f && pins[f] == 1));
           f++
       }
    :: f > made -> break
    od
}
