// Deadlock detection with a free path (src/zocrits.cpp): every ring of waits is reported, once,
// by the thread that closes it, before it blocks; nothing else is reported; and an entry or a
// leave that begins while a report is made waits for its end.
//
// check: -DTHREADS=3 -DSECTIONS=2 -DSTALE
// check: -DTHREADS=3 -DSECTIONS=3
// large: -DTHREADS=4 -DSECTIONS=2
//
// fault: ANNOUNCED_OUTSIDE      the wait is announced after csDLD was let go
// fault: WALKED_APART           the walk has a hold of csDLD for itself, before the try
// fault: FIRST_OWNER_OUTSIDE    the walk begins at an owner that was read before csDLD was taken
// fault: REPORTED_WITHOUT_HOLD  csDLD is let go for the time of the report
// fault: OWNER_NOT_NOTED        the free path of an entry does not note the owner
// fault: OWNER_NOTED_LATE       the free path notes it after the thread's next announcement
// fault: OWNER_NOTED_FIRST      the free path notes it before it has the mutex
// fault: NOTED_AFTER_MESSAGE    a waiter notes itself after the false-alarm message
// fault: OWNER_NOT_CLEARED      the free path of a leave does not clear the owner
// fault: UNLOCKED_FIRST         the free path of a leave unlocks before it clears the owner
// fault: WAIT_NOT_CLEARED       a waiter that has the mutex leaves its announcement standing
// fault: WAIT_CLEARED_EARLY     a waiter takes its announcement back before it has the mutex
// fault: ENTRY_IGNORES_REPORT   the free path of an entry is taken although a report is made
// fault: LEAVE_IGNORES_REPORT   the free path of a leave is taken although a report is made
// fault: LOOKED_BEFORE_SLEEP    a leave looks at csDLD before the configured sleep, not after it
// fault: SHORT_WALK             the walk finds rings of two threads only
// fault: ANY_RING_REPORTED      the walk takes a ring without the caller for one with it
// fault: ENDLESS_WALK           the walk does not notice a ring without the caller
//
// What is modelled. Each thread for ever enters a section that it does not own or leaves one that
// it owns, in any order, so every nesting occurs. One statement is one access to shared memory,
// except what nobody can look into: `waitingFor` is read and written with csDLD held, so an
// access to it joins the step before it. A try may fail although the mutex is free: the library
// cannot try a wrapped section of a kind that it does not know. A report may leave any of the
// reporter's own sections, as many as it likes. The look at csDLD says what it likes, except that
// it never says "free" while a report is made: that covers looks that are overtaken by a hold,
// and short holds that a look does not mind. A hold of the host is like a report that leaves
// nothing.
//
// What is true is not taken from the owner fields: `holder` is the mutex itself, `wants` is set
// when a thread has made up its mind to block and cleared by the step that gives it the mutex.
//
// Weak memory. Mutexes and csDLD order what their holders do. An owner field is written without
// csDLD, so a walk may read an older value. Which one? A value can no longer be read once a later
// write happens before the read. The write that follows a thread's note is its own clearing; the
// clearing happens before every hold of csDLD that follows the thread's next own hold, and,
// through the mutex, before what the section's next owner does. With STALE the model keeps for
// each section the threads whose clearing is not yet ordered in this way, and whether the note
// itself is; a read takes any of these values. It forgets some orders (through a third mutex, and
// that a thread's reads of one field do not go back), so it allows more than the memory model of
// C++ does. A store that is delayed past the mutex step after it is a stale read of the one who
// looks. A thread never reads an old value of its own.

#ifndef THREADS
#define THREADS 3
#endif
#ifndef SECTIONS
#define SECTIONS 3
#endif

#if THREADS == 3
#define ForEachThread(action) action(1) action(2) action(3)
#elif THREADS == 4
#define ForEachThread(action) action(1) action(2) action(3) action(4)
#endif
#if SECTIONS == 2
#define ForEachSection(action) action(1) action(2)
#elif SECTIONS == 3
#define ForEachSection(action) action(1) action(2) action(3)
#endif

#define NOBODY 0
#define NOTHING 0

byte holder[SECTIONS + 1];     // the thread that has the section's mutex
byte wants[THREADS + 1];       // the section that a thread blocks for
bool reported[THREADS + 1];    // that wait was reported, and the reported ring stands

byte owner[SECTIONS + 1];      // the owner field of a section
byte waitingFor[THREADS + 1];  // the field of a thread's record
byte graph;                    // the thread that holds csDLD
bool reporting;                // it makes a report, which a look at csDLD sees

// The walk of the thread that holds csDLD.
byte at;
byte remembered;
byte steps;
byte limit;
byte reads;

hidden byte h;                 // within one step
hidden byte i;

#ifdef STALE

byte past[SECTIONS + 1];       // threads, one bit each, whose clearing of the owner is not ordered
bool unseen[SECTIONS + 1];     // the owner's note is not ordered

#define Bit(thread) (1 << (thread))

#define NoteOwner(section) owner[section] = me; unseen[section] = true
#define ClearOwner(section) \
    owner[section] = NOBODY; \
    unseen[section] = false; \
    past[section] = past[section] | Bit(me)

// What the thread did to owner fields comes before all later holds of csDLD.
#define OrderIn(section) \
    if \
    :: owner[section] == me -> past[section] = 0; unseen[section] = false \
    :: else -> past[section] = past[section] & ~Bit(me) \
    fi;
#define Order() ForEachSection(OrderIn) skip

byte field;                    // the section whose owner field is read

#define OrPast(thread) \
    :: owner[field] != me && thread != me && (past[field] & Bit(thread)) != 0 -> at = thread
#define ReadOwner(section) \
    field = section; \
    if \
    :: at = owner[field] \
    :: unseen[field] && owner[field] != me -> at = NOBODY \
    ForEachThread(OrPast) \
    fi; \
    field = NOTHING; \
    reads++

#else

#define NoteOwner(section) owner[section] = me
#define ClearOwner(section) owner[section] = NOBODY
#define Order() skip
#define ReadOwner(section) \
    d_step { \
        h = section; \
        at = owner[h]; \
        assert(at == NOBODY || holder[h] == at);  /* the field never lies */ \
        reads++ \
    }

#endif

#define ForgetWalk() at = NOBODY; remembered = NOBODY; steps = 0; limit = 0; reads = 0

// A hold of csDLD.
#define Take() graph == NOBODY -> graph = me
#define LetGo() Order(); graph = NOBODY

// Follows the true chain of waits from `section` to its end, or to the caller: h is that thread.
#define FollowTruth(section) \
    d_step { \
        h = holder[section]; \
        i = 0; \
        do \
        :: h != NOBODY && h != me && wants[h] != NOTHING && i < THREADS -> \
            h = holder[wants[h]]; \
            i++ \
        :: else -> break \
        od \
    }

#define Return() s = NOTHING; goto Idle

#define OrLeaveInReport(section) \
    :: atomic { \
        holder[section] == me -> \
        ClearOwner(section); \
        holder[section] = NOBODY; \
        FollowTruth(s); \
        if \
        :: h != me -> reported[me] = false \
        :: else \
        fi \
    }

proctype Thread(byte me) {
    byte s;      // the section in hand
    bool began;  // a report was made when the operation in hand began
#if defined(OWNER_NOTED_LATE) || defined(NOTED_AFTER_MESSAGE)
    byte late;   // a section whose owner is still to be noted
#endif
#ifdef FIRST_OWNER_OUTSIDE
    byte first;
#endif
#ifdef WALKED_APART
    bool walked;
#endif

Idle:
    atomic {
        select (s : 1 .. SECTIONS);
        if
        :: holder[s] == me -> goto BeginLeave
        :: else
        fi;
        assert(owner[s] != me);  // else the thread would take itself for the owner
        began = reporting;
        if
#ifndef ENTRY_IGNORES_REPORT
        :: !reporting
#else
        :: true
#endif
            -> goto FreeEntry
        :: began = false; goto Entry
        fi;
BeginLeave:
#if defined(OWNER_NOTED_LATE) || defined(NOTED_AFTER_MESSAGE)
        if
        :: late == s -> NoteOwner(late); late = NOTHING
        :: else
        fi;
#endif
        began = reporting;
        if
#ifndef LEAVE_IGNORES_REPORT
        :: !reporting
#else
        :: true
#endif
            -> goto FreeLeave
        :: began = false; goto Leave
        fi
    }

FreeEntry:
#ifdef OWNER_NOTED_FIRST
    NoteOwner(s);
#endif
    atomic {
        assert(!began || !reporting);
        began = false;
        if
        :: holder[s] == NOBODY -> holder[s] = me
        :: goto Entry
        fi
    }
    atomic {
#ifdef OWNER_NOTED_LATE
        if
        :: late != NOTHING -> NoteOwner(late)
        :: else
        fi;
        late = s;
#elif !defined(OWNER_NOT_NOTED)
        NoteOwner(s);
#endif
        Return()
    }

Entry:
#ifdef FIRST_OWNER_OUTSIDE
    first = owner[s];
#endif
    atomic { Take() }
#ifdef WALKED_APART
    goto Walk;
Try:
#endif
    atomic {
        if
        :: holder[s] == NOBODY -> holder[s] = me
        :: wants[me] = s; goto Walk
        fi
    }
    atomic { NoteOwner(s); LetGo(); Return() }

Walk:
    atomic {
#ifdef FIRST_OWNER_OUTSIDE
        at = first;
        first = NOBODY;
#elif defined(WALKED_APART)
        if
        :: walked -> walked = false; goto Announce
        :: else -> walked = true
        fi;
        ReadOwner(s);
#else
        ReadOwner(s);
#endif
        remembered = at;
        limit = 1
    }
    do
    :: atomic {
        at == NOBODY || waitingFor[at] == NOTHING -> goto Walked
    }
    :: atomic {
        at != NOBODY && waitingFor[at] != NOTHING ->
        ReadOwner(waitingFor[at]);
        assert(reads <= 3 * THREADS);  // the walk ends
        if
        :: at == me -> reported[me] = true; goto Walked
#ifdef ANY_RING_REPORTED
        :: at != me && at == remembered -> reported[me] = true; goto Walked
#elif !defined(ENDLESS_WALK)
        :: at != me && at == remembered -> goto Walked
#endif
        :: else
        fi;
#ifdef SHORT_WALK
        goto Walked;
#endif
        steps++;
        if
        :: steps == limit -> remembered = at; steps = 0; limit = limit * 2
        :: else -> skip
        fi
    }
    od;

Walked:
    atomic {
        ForgetWalk();
        if
#ifdef WALKED_APART
        :: !reported[me] -> LetGo(); goto TakeAgain
#else
        :: !reported[me] -> goto Announce
#endif
        :: else
        fi;
        FollowTruth(s);
        assert(h == me);  // what is reported is a ring
#ifdef REPORTED_WITHOUT_HOLD
        LetGo()
#else
        reporting = true
#endif
    }
    do
    ForEachSection(OrLeaveInReport)
    :: break
    od;
#ifdef REPORTED_WITHOUT_HOLD
    atomic { Take() }
#elif defined(WALKED_APART)
    atomic { reporting = false; LetGo() }
TakeAgain:
    atomic { Take(); goto Try }
#else
    reporting = false;
#endif

Announce:
    atomic {
        FollowTruth(s);
        assert(reported[me] || h != me);  // a ring is reported before it is closed
#ifdef ANNOUNCED_OUTSIDE
        LetGo()
    }
    atomic {
        waitingFor[me] = s
#else
        waitingFor[me] = s;
        LetGo()
#endif
    }
#ifdef OWNER_NOTED_LATE
    atomic {
        if
        :: late != NOTHING -> NoteOwner(late); late = NOTHING
        :: else
        fi
    }
#endif
#ifdef WAIT_CLEARED_EARLY
    atomic { graph == NOBODY -> waitingFor[me] = NOTHING }
#endif

end_Blocked:
    atomic { holder[s] == NOBODY -> holder[s] = me; wants[me] = NOTHING; reported[me] = false }
#ifdef NOTED_AFTER_MESSAGE
    atomic {
        if
        :: late == NOTHING -> late = s; Return()
        :: else
        fi
    }
#endif
    atomic {
        graph == NOBODY ->
#ifndef WAIT_NOT_CLEARED
        waitingFor[me] = NOTHING;
#endif
        NoteOwner(s);
        Order();
        Return()
    }

FreeLeave:
#ifdef LOOKED_BEFORE_SLEEP
    began = reporting;
#endif
#ifdef UNLOCKED_FIRST
    holder[s] = NOBODY;
#endif
    atomic {
        assert(!began || !reporting);
        began = false;
#ifndef OWNER_NOT_CLEARED
        ClearOwner(s)
#endif
    }
    atomic {
#ifndef UNLOCKED_FIRST
        holder[s] = NOBODY;
#endif
        Return()
    }

Leave:
    atomic { Take() }
    atomic { ClearOwner(s) }
    atomic { holder[s] = NOBODY; LetGo(); Return() }
}

// Once no thread can go on, each blocks on a ring that was reported, or on one who does.
#define CheckEnd(thread) \
    h = thread; \
    i = 0; \
    do \
    :: i < THREADS -> assert(wants[h] != NOTHING); h = holder[wants[h]]; i++ \
    :: else -> break \
    od; \
    do \
    :: i < 2 * THREADS && !reported[h] -> h = holder[wants[h]]; i++ \
    :: else -> break \
    od; \
    assert(reported[h]);

active proctype Standstill() {
    timeout ->
    d_step {
        assert(graph == NOBODY);
        ForEachThread(CheckEnd)
        skip
    }
}

#define Run(thread) run Thread(thread);

init { atomic { ForEachThread(Run) skip } }
