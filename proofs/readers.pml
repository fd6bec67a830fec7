// Readers in the wait-for graph (src/wait_graph.h): sections and one reader/writer mutex, whose
// writer waits for all its readers. Every ring of waits is reported, once, by the thread that
// closes it, before it blocks; nothing else is reported.
//
// check: -DTHREADS=3 -DSECTIONS=1
// large: -DTHREADS=3 -DSECTIONS=2
//
// fault: READERS_IGNORED    a walk does not go on from a writer to its readers
// fault: OWN_READS_IGNORED  a walk does not look at the caller's own reads
// fault: ONE_READER         a walk goes on to one reader of a mutex only
// fault: SHORT_WALK         a walk goes one step from the thread that it begins at
// fault: WALKED_APART       the writer walks in one hold of csDLD and announces in the next
// fault: ANNOUNCED_OUTSIDE  the writer announces its wait after csDLD was let go
// fault: WAIT_STAYS         an admitted writer leaves its announcement standing
// fault: CANCEL_STAYS       a cancelled writer leaves its announcement standing
// fault: CANCEL_LATE        a cancelled writer opens the gate before it withdraws
// fault: READ_NOT_NOTED     a counted reader's record does not tell that it reads
// fault: UPGRADE_NOTED      the record of a reader that asks to write goes on telling that it reads
// fault: LOWERED_UNNOTED    the record of a writer that lowers does not tell that it reads
// fault: REPORTED_TWICE     a wait that was reported is reported again before it ends
//
// What is modelled. Each thread for ever enters or leaves a section, begins or ends to read, or
// begins or ends to write, in any order: so every nesting occurs, and a reader that asks to write,
// a writer that reads and lowers, and readers that queue behind a writer. A writer may be cancelled
// in its wait for readers. Sections are entered and left as in detection.pml, "RW_Exclusive" among
// them, which is section X; the gate is simpler than in gate.pml. A report may leave any of the
// reporter's own sections, end its read and end its write, as many as it likes.
//
// What is true is not taken from the graph: `holder` and `counted` are the locks themselves,
// `wants` and `wantsReaders` are set when a thread has made up its mind to block, and cleared by
// the step that ends its wait. A cancellation may come while a ring through the wait is reported:
// a cancelled writer counts as blocked until it has withdrawn, or opened the gate.
//
// Weak memory. A walk reads nothing of a record but what its thread wrote before it announced its
// wait in a hold of csDLD, so no older value; that a walk may read an older owner of a section is
// covered by detection.pml. Here all is sequentially consistent.

#ifndef THREADS
#define THREADS 3
#endif
#ifndef SECTIONS
#define SECTIONS 1
#endif

#if THREADS == 3
#define ForEachThread(action) action(1) action(2) action(3)
#elif THREADS == 4
#define ForEachThread(action) action(1) action(2) action(3) action(4)
#endif
#if SECTIONS == 1
#define ForEachSection(action) action(1)
#elif SECTIONS == 2
#define ForEachSection(action) action(1) action(2)
#endif

#define NOBODY 0
#define NOTHING 0
#define X (SECTIONS + 1)        // "RW_Exclusive"
#define READERS (SECTIONS + 2)  // all readers of the mutex, as something that is waited for

// The locks.
byte holder[SECTIONS + 2];      // the thread that has the section's mutex
bool closed;                    // the gate
byte counted;                   // the counted readers, one bit each
byte wants[THREADS + 1];        // the section that a thread blocks for, or READERS
byte reported;                  // threads, one bit each, whose wait was reported and closes a ring

// The graph.
byte owner[SECTIONS + 2];       // the owner field of a section
byte waitingFor[THREADS + 1];   // what a thread's record says: a section, READERS, or NOTHING;
bool reads[THREADS + 1];        // a read depth,
bool writes[THREADS + 1];       // and a write depth
byte graph;                     // the thread that holds csDLD
bool reporting;                 // it makes a report, which a look at csDLD sees

// The walk of the thread that holds csDLD: threads, one bit each.
byte seen;
byte toVisit;
bool found;

hidden byte set;                // within one step
hidden byte before;

#define Bit(thread) (1 << (thread))

// --- the truth ---------------------------------------------------------------------------------

#define Keepers(wanted) (wanted == READERS -> counted : Bit(holder[wanted]))

#define AddKeepers(thread) \
    if \
    :: (set & Bit(thread)) != 0 && wants[thread] != NOTHING && thread != me -> \
        set = set | Keepers(wants[thread]) \
    :: else \
    fi;

// All threads that have to go on before `wanted` is free: `set`.
inline FollowTruth(wanted) {
    set = Keepers(wanted);
    do
    :: before = set;
       ForEachThread(AddKeepers)
       if
       :: set == before -> break
       :: else
       fi
    od
}

#define ClosesRing() ((set & Bit(me)) != 0)

// --- csDLD -------------------------------------------------------------------------------------

#define Take() graph == NOBODY -> graph = me
#define LetGo() graph = NOBODY

// --- the walk ----------------------------------------------------------------------------------

#define Reach(thread) \
    if \
    :: thread == me -> found = true \
    :: thread != me && waitingFor[thread] != NOTHING && (seen & Bit(thread)) == 0 -> \
        seen = seen | Bit(thread); \
        toVisit = toVisit | Bit(thread) \
    :: else \
    fi

#define IsCountedReader(thread) (reads[thread] && !writes[thread])

#ifdef OWN_READS_IGNORED
#define StandsStill(thread) (waitingFor[thread] != NOTHING)
#else
#define StandsStill(thread) (waitingFor[thread] != NOTHING || thread == me)
#endif

#ifdef ONE_READER
#define ReachReader(thread) \
    if \
    :: set == 0 && StandsStill(thread) && IsCountedReader(thread) -> set = 1; Reach(thread) \
    :: else \
    fi;
#else
#define ReachReader(thread) \
    if \
    :: StandsStill(thread) && IsCountedReader(thread) -> Reach(thread) \
    :: else \
    fi;
#endif

// Goes on to those who keep `wanted` from being had. An owner may be about to change.
inline GoOnFrom(wanted) {
    if
    :: wanted == READERS ->
        set = 0;
#ifndef READERS_IGNORED
        ForEachThread(ReachReader)
#endif
        skip
    :: else ->
        set = owner[wanted];
        assert(set == NOBODY || holder[wanted] == set);  // the field never lies
        if
        :: set != NOBODY -> Reach(set)
        :: else
        fi
    fi;
    set = 0
}

#define OrVisit(thread) \
    :: d_step { \
        !found && (toVisit & Bit(thread)) != 0 -> \
        toVisit = toVisit & ~Bit(thread); \
        GoOnFrom(waitingFor[thread]) \
    }

// --- threads -----------------------------------------------------------------------------------

#define Return() s = NOTHING; plan = NOTHING; goto Idle

#define GoesOn() \
    FollowTruth(s); \
    if \
    :: !ClosesRing() -> reported = reported & ~Bit(me) \
    :: else \
    fi

#define OrLeaveInReport(section) \
    :: d_step { \
        holder[section] == me -> \
        owner[section] = NOBODY; \
        holder[section] = NOBODY; \
        GoesOn() \
    }

// What is to be done once the section in hand is entered or left.
#define READ 1
#define WRITE 2
#define END_WRITE 3
#define CANCEL 4

proctype Thread(byte me) {
    byte s;            // what the thread wants or leaves: a section, or READERS
    byte plan;
    bool gaveUp;       // a reader that asks to write
    bool isCancelled;  // in its wait for readers

Idle:
    atomic {
        if
        :: select (s : 1 .. SECTIONS);
           if
           :: holder[s] == me -> goto Leave
           :: else -> goto Enter
           fi
        :: reads[me] && writes[me] -> reads[me] = false; goto Idle
        :: reads[me] && !writes[me] -> goto EndRead
        :: !reads[me] && writes[me] -> reads[me] = true; goto Idle
        :: !reads[me] && !writes[me] -> goto StartRead
        :: writes[me] -> goto EndWrite
        :: !writes[me] -> goto StartWrite
        fi
    }

StartRead:
    atomic {
        if
        :: closed -> s = X; plan = READ; goto Enter  // QueueToRead
        :: !closed -> counted = counted | Bit(me)
        fi
    }
Reads:
    atomic {
#ifndef READ_NOT_NOTED
        reads[me] = true;
#endif
        Return()
    }

EndRead:
    counted = counted & ~Bit(me);
    atomic { reads[me] = false; Return() }

StartWrite:  // AdmitWriter
    atomic {
        s = X;
        plan = WRITE;
        if
        :: reads[me] ->
            gaveUp = true;
#ifndef UPGRADE_NOTED
            reads[me] = false
#endif
        :: else -> goto Enter
        fi
    }
    atomic { counted = counted & ~Bit(me); goto Enter }

EndWrite:
    atomic {
        if
        :: reads[me] -> counted = counted | Bit(me); closed = false
        :: else
        fi;
        s = X;
        plan = END_WRITE;
        goto Leave
    }

    // A section, "RW_Exclusive" included.
Enter:
    atomic {
        if
        :: !reporting && holder[s] == NOBODY -> holder[s] = me
        :: goto EnterThroughGraph
        fi
    }
    atomic { owner[s] = me; goto Entered }

EnterThroughGraph:
    atomic { Take() }
    atomic {
        if
        :: holder[s] == NOBODY -> holder[s] = me
        :: else -> wants[me] = s; goto Walk
        fi
    }
    atomic { owner[s] = me; LetGo(); goto Entered }

    // AnnounceWait, for a section or for the readers.
Walk:
    atomic { GoOnFrom(s) }
#ifndef SHORT_WALK
    do
    ForEachThread(OrVisit)
    :: found || toVisit == 0 -> break
    od;
#endif
    atomic {
        seen = 0;
        toVisit = 0;
        if
        :: !found -> goto Announce
        :: else -> found = false
        fi;
        d_step { FollowTruth(s); assert(ClosesRing()) }  // what is reported is a ring
        assert((reported & Bit(me)) == 0);
        reported = reported | Bit(me);
        reporting = true
    }
    do
    ForEachSection(OrLeaveInReport)
    :: d_step { IsCountedReader(me) -> counted = counted & ~Bit(me); reads[me] = false; GoesOn() }
    :: d_step {
           writes[me] ->
           if
           :: reads[me] -> counted = counted | Bit(me); closed = false
           :: else
           fi;
           owner[X] = NOBODY;
           holder[X] = NOBODY;
           writes[me] = false;
           GoesOn()
       }
    :: break
    od;
    reporting = false;
#ifdef REPORTED_TWICE
    if
    :: goto Walk
    :: true
    fi;
#endif

Announce:
#ifdef WALKED_APART
    if
    :: s == READERS -> LetGo(); atomic { Take() }
    :: else
    fi;
#endif
    atomic {
        d_step { FollowTruth(s); assert((reported & Bit(me)) != 0 || !ClosesRing()) }  // no ring is missed
#ifdef ANNOUNCED_OUTSIDE
        if
        :: s == READERS -> LetGo(); goto AnnounceLate
        :: else
        fi;
#endif
        waitingFor[me] = s;
        LetGo();
        if
        :: s == READERS -> goto SleepForReaders
        :: else
        fi
    }

end_Blocked:
    atomic {
        holder[s] == NOBODY ->
        holder[s] = me;
        wants[me] = NOTHING;
        reported = reported & ~Bit(me)
    }
    atomic { graph == NOBODY -> waitingFor[me] = NOTHING; owner[s] = me }

Entered:
    atomic {
        if
        :: plan == NOTHING -> Return()
        :: plan == READ -> counted = counted | Bit(me); closed = false; goto Leave
        :: plan == WRITE ->
            closed = true;
            if
            :: counted == 0 -> goto Admitted
            :: else -> s = READERS
            fi
        fi
    }

    // PendingWrite
    atomic { Take() }
    atomic {
        if
        :: counted == 0 -> LetGo(); goto Admitted
        :: else -> wants[me] = READERS; goto Walk
        fi
    }
#ifdef ANNOUNCED_OUTSIDE
AnnounceLate:
    waitingFor[me] = s;
#endif

SleepForReaders:
    if
    :: isCancelled = true
    :: true
    fi;
end_SleepForReaders:
    atomic {
        if
        :: counted == 0 -> isCancelled = false; wants[me] = NOTHING; reported = reported & ~Bit(me)
        :: isCancelled && counted != 0
        fi
    }
#ifdef CANCEL_LATE
    atomic {
        if
        :: isCancelled -> closed = false; wants[me] = NOTHING
        :: else
        fi
    }
#endif
    atomic {
        graph == NOBODY ->
        wants[me] = NOTHING;
        reported = reported & ~Bit(me);
#if defined(CANCEL_STAYS)
        if :: !isCancelled -> waitingFor[me] = NOTHING :: else fi;
#elif defined(WAIT_STAYS)
        if :: isCancelled -> waitingFor[me] = NOTHING :: else fi;
#else
        waitingFor[me] = NOTHING;
#endif
        if
        :: isCancelled -> isCancelled = false
        :: else -> goto Admitted
        fi
    }
    reads[me] = gaveUp;
    atomic {
        closed = false;
        if
        :: gaveUp -> counted = counted | Bit(me); gaveUp = false
        :: else
        fi;
        s = X;
        plan = CANCEL;
        goto Leave
    }

Admitted:
    atomic { reads[me] = gaveUp; writes[me] = true; gaveUp = false; Return() }

    // A section, "RW_Exclusive" included.
Leave:
    atomic {
        if
        :: !reporting
        :: goto LeaveThroughGraph
        fi;
        owner[s] = NOBODY
    }
    atomic { holder[s] = NOBODY; goto Left }

LeaveThroughGraph:
    atomic { Take() }
    owner[s] = NOBODY;
    atomic { holder[s] = NOBODY; LetGo() }

Left:
    atomic {
        if
        :: plan == READ -> goto Reads
        :: plan == END_WRITE ->
            writes[me] = false;
#ifdef LOWERED_UNNOTED
            reads[me] = false;
#endif
            Return()
        :: else -> Return()
        fi
    }
}

// Once no thread can go on, each blocks on a ring that was reported, or on one who does.
#define CheckEnd(thread) \
    assert(wants[thread] != NOTHING); \
    FollowTruth(wants[thread]); \
    assert((reported & (set | Bit(thread))) != 0);

active proctype Standstill() {
    byte me = NOBODY;
    timeout ->
    d_step {
        assert(graph == NOBODY);
        ForEachThread(CheckEnd)
        skip
    }
}

#define Run(thread) run Thread(thread);

init { atomic { ForEachThread(Run) skip } }
