// The life of a thread's record under deadlock detection (src/zotls.cpp, src/zocrits.cpp): no
// walk and no report reads a record that was released or whose making it does not see; a thread
// that ended as the owner of a section is nobody else, although later threads get the records,
// the addresses and the handles of threads that ended.
//
// check: -DTHREADS=2 -DSTALE -DANY_RECORD
// check: -DTHREADS=3
//
// fault: RELEASED_WITHOUT_PASS -DTHREADS=2  a record is released without the leaf lock
// fault: PASSED_TOO_LATE       -DTHREADS=2  the pass comes after the release
// fault: DEAD_OWNER_RELEASED   -DTHREADS=2  so is the record of a thread that ended as an owner
// fault: LEAF_HELD_SHORT       -DTHREADS=2  the walk takes the leaf lock after the owner is read
// fault: WALKED_WITHOUT_LEAF   -DTHREADS=2  the walk holds csDLD only
// fault: OWNER_RELAXED         -DTHREADS=2  owners are stored and loaded in relaxed order
// fault: OWNER_BY_HANDLE       -DTHREADS=2  the wrapped section knows its owner by handle alone
// fault: REPORT_IGNORED        -DTHREADS=3  a leave takes the free path during a report
//
// What is modelled. Detection is that of detection.pml, without the try that fails for no reason.
// A thread enters and leaves sections as it likes and ends when it likes; a thread that ends
// while it owns a section keeps its record for ever. Then another life begins in the same
// process, as a new thread with a new record: any that is free, so also the one that was just
// released. There are as many records as threads and sections, so there is always a free one,
// however many lives are lived. A report reads the records of the ring once more, while host
// code runs between its reads; that code may leave sections of the reporter's own. The library
// takes the leaf lock for each of these looks, the model does not: it proves that they need none.
//
// Weak memory. As in detection.pml a read of an owner may yield any value that is not ordered
// before the hold: here `past` is kept by record, and a pass through the leaf lock orders as a
// hold of csDLD does. A new record is filled by its thread before it notes itself as owner;
// `filled` says whether that is ordered for all: by a hold, a pass, or the note, which is stored
// with release and loaded with acquire order. The allocator orders a release before the making of
// the next record at that address, so a thread never reads its own record's address out of an
// older life.

#ifndef THREADS
#define THREADS 2
#endif
#define SECTIONS 2
#define RECORDS (THREADS + SECTIONS)

#if THREADS == 2
#define ForEachThread(action) action(1) action(2)
#define ForEachRecord(action) action(1) action(2) action(3) action(4)
#elif THREADS == 3
#define ForEachThread(action) action(1) action(2) action(3)
#define ForEachRecord(action) action(1) action(2) action(3) action(4) action(5)
#endif
#define ForEachSection(action) action(1) action(2)

#define NOBODY 0
#define NOTHING 0
#define Dead(thread) (THREADS + (thread))  // the holder of a mutex whose thread ended

byte holder[SECTIONS + 1];      // the thread that has the section's mutex
byte wants[THREADS + 1];        // the section that a thread blocks for
bool reported[THREADS + 1];     // that wait was reported, and the reported ring stands

bool valid[RECORDS + 1];        // the record is there
byte waitingFor[RECORDS + 1];   // its field
byte owner[SECTIONS + 1];       // the record that the owner field of a section names
byte graph;                     // the thread that holds csDLD
byte leaf;                      // the thread that holds the leaf lock
bool reporting;                 // a report is made, which a look at csDLD sees

#ifdef OWNER_RELAXED
bool unfilled[RECORDS + 1];     // what the record was filled with is not ordered
#define Fill(record, is) unfilled[record] = is
#define IsFilled(record) !unfilled[record]
#else
#define Fill(record, is) skip
#define IsFilled(record) true
#endif

// The walk of the thread that holds csDLD.
byte at;
byte steps;

hidden byte h;                  // within one step
hidden byte i;

#ifdef STALE

byte past[SECTIONS + 1];        // records, one bit each, whose clearing of the owner is not ordered
bool unseen[SECTIONS + 1];      // the owner's note is not ordered
byte field;                     // the section whose owner field is read

#define Bit(record) (1 << (record))

#define NoteOwner(section) owner[section] = mine; unseen[section] = true
#define ClearOwner(section) \
    owner[section] = NOBODY; \
    unseen[section] = false; \
    past[section] = past[section] | Bit(mine)

// What the thread did comes before all later holds of csDLD, or of the leaf lock.
#define OrderIn(section) \
    if \
    :: owner[section] == mine -> past[section] = 0; unseen[section] = false \
    :: else -> past[section] = past[section] & ~Bit(mine) \
    fi;
#define Order() ForEachSection(OrderIn) Fill(mine, false)
// The same for a thread that owns nothing.
#define OrderClearing(section) past[section] = past[section] & ~Bit(mine);
#define Pass() ForEachSection(OrderClearing) Fill(mine, false)

#define OrPast(record) \
    :: owner[field] != mine && record != mine && (past[field] & Bit(record)) != 0 -> at = record
#define ReadOwner(section) \
    field = section; \
    if \
    :: at = owner[field] \
    :: unseen[field] && owner[field] != mine -> at = NOBODY \
    ForEachRecord(OrPast) \
    fi; \
    field = NOTHING

#else

#define NoteOwner(section) owner[section] = mine
#define ClearOwner(section) owner[section] = NOBODY
#define Order() Fill(mine, false)
#define Pass() Fill(mine, false)
#define ReadOwner(section) at = owner[section]

#endif

#define CheckRecord(record) assert(record == NOBODY || (valid[record] && IsFilled(record)))

#define Take(lock) lock == NOBODY -> lock = me
#define LetGo() Order(); graph = NOBODY

// Follows the true chain of waits from `section` to its end, or to the caller: h is that thread.
#define FollowTruth(section) \
    d_step { \
        h = holder[section]; \
        i = 0; \
        do \
        :: h != NOBODY && h != me && h <= THREADS && wants[h] != NOTHING && i < THREADS -> \
            h = holder[wants[h]]; \
            i++ \
        :: else -> break \
        od \
    }

#define Return() s = NOTHING; goto Idle

#define OrRecord(record) \
    :: !valid[record] -> mine = record

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

#define DieHolding(section) \
    if \
    :: holder[section] == me -> holder[section] = Dead(me) \
    :: else \
    fi;
#define Holds(section) || holder[section] == me

proctype Thread(byte me) {
    byte mine;   // the thread's record
    byte s;      // the section in hand

Life:
    atomic {
#ifdef ANY_RECORD
        if
        ForEachRecord(OrRecord)
        fi;
#else
        mine = 1;
        do
        :: valid[mine] -> mine++
        :: else -> break
        od;
#endif
        valid[mine] = true;
        waitingFor[mine] = NOTHING;
        Fill(mine, true)
    }

Idle:
    atomic {
        if
        :: goto End
        :: true
        fi;
        select (s : 1 .. SECTIONS);
        if
        :: holder[s] == me -> goto BeginLeave
        :: else
        fi;
        assert(owner[s] != mine);  // else the thread would take itself for the owner
        if
        :: !reporting -> goto FreeEntry
        :: true -> goto Entry
        fi;
BeginLeave:
        assert(owner[s] == mine);
        if
#ifndef REPORT_IGNORED
        :: !reporting -> goto FreeLeave
#else
        :: true -> goto FreeLeave
#endif
        :: true -> goto Leave
        fi
    }

FreeEntry:
    atomic {
        if
        :: holder[s] == NOBODY -> holder[s] = me
        :: else -> goto Entry
        fi
    }
    atomic { NoteOwner(s); Return() }

Entry:
    atomic { Take(graph) }
    atomic {
        if
        :: holder[s] == NOBODY -> holder[s] = me
        :: else -> wants[me] = s; goto Walk
        fi
    }
    atomic { NoteOwner(s); LetGo(); Return() }

Walk:
#ifdef LEAF_HELD_SHORT
    atomic { ReadOwner(s) }
    atomic { Take(leaf) }
#else
#ifndef WALKED_WITHOUT_LEAF
    atomic { Take(leaf) }
#endif
    atomic { ReadOwner(s) }
#endif
    do
    :: atomic {
        CheckRecord(at);
        if
        :: at == NOBODY || waitingFor[at] == NOTHING -> break
        :: else
        fi;
        ReadOwner(waitingFor[at]);
        steps++;
        if
        :: at == mine -> reported[me] = true; break
        :: at != mine && steps == THREADS -> break  // a ring without the caller
        :: else
        fi
    }
    od;
    atomic {
        at = NOBODY;
        steps = 0;
#ifndef WALKED_WITHOUT_LEAF
        Order();
        leaf = NOBODY;
#endif
        if
        :: !reported[me] -> goto Announce
        :: else
        fi;
        FollowTruth(s);
        assert(h == me);  // what is reported is a ring
        reporting = true
    }

    // The text: from owner to owner, while host code runs.
    do
    ForEachSection(OrLeaveInReport)
    :: break
    od;
    atomic { ReadOwner(s) }
    do
    ForEachSection(OrLeaveInReport)
    :: atomic {
        CheckRecord(at);
        if
        :: at == NOBODY || at == mine || waitingFor[at] == NOTHING -> break
        :: else
        fi;
        ReadOwner(waitingFor[at])
    }
    od;
    atomic { at = NOBODY; reporting = false }

Announce:
    atomic {
        FollowTruth(s);
        assert(reported[me] || h != me);  // a ring is reported before it is closed
        waitingFor[mine] = s;
        LetGo()
    }

end_Blocked:
    atomic {
#ifdef OWNER_BY_HANDLE
        holder[s] == NOBODY || holder[s] == Dead(me) ->
#else
        holder[s] == NOBODY ->
#endif
        assert(holder[s] == NOBODY);
        holder[s] = me;
        wants[me] = NOTHING;
        reported[me] = false
    }
    atomic { graph == NOBODY -> waitingFor[mine] = NOTHING; NoteOwner(s); Order(); Return() }

FreeLeave:
    atomic { ClearOwner(s) }
    atomic { holder[s] = NOBODY; Return() }

Leave:
    atomic { Take(graph) }
    atomic { ClearOwner(s) }
    atomic { holder[s] = NOBODY; LetGo(); Return() }

End:
    atomic {
        if
        :: false ForEachSection(Holds) ->
            ForEachSection(DieHolding)
#ifdef DEAD_OWNER_RELEASED
            goto Release
#else
            mine = NOBODY;
            goto Life
#endif
        :: else
        fi
    }
Release:
#ifdef PASSED_TOO_LATE
    valid[mine] = false;
    atomic { leaf == NOBODY -> Pass(); mine = NOBODY; goto Life }
#else
#ifndef RELEASED_WITHOUT_PASS
    atomic { leaf == NOBODY -> Pass() }
#endif
    atomic { valid[mine] = false; mine = NOBODY; goto Life }
#endif
}

// Once no thread can go on, each blocks on a ring that was reported, on the section of a thread
// that ended, or on one who does.
#define CheckEnd(thread) \
    h = thread; \
    i = 0; \
    do \
    :: i < 2 * THREADS && h <= THREADS && (i < THREADS || !reported[h]) -> \
        assert(wants[h] != NOTHING); \
        h = holder[wants[h]]; \
        i++ \
    :: else -> break \
    od; \
    assert(h > THREADS || reported[h]);

active proctype Standstill() {
    timeout ->
    d_step {
        assert(graph == NOBODY && leaf == NOBODY);
        ForEachThread(CheckEnd)
        skip
    }
}

#define Run(thread) run Thread(thread);

init { atomic { ForEachThread(Run) skip } }
