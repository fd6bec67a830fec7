// The gate of a reader/writer mutex (src/rw_gate.h), with cancelled writers and its destruction.
//
// check: -DREADERS=2 -DWRITERS=2
// large: -DREADERS=3 -DWRITERS=2
//
// fault: NO_SECOND_LOOK    a reader leaves with the lock although the gate was opened meanwhile
// fault: NO_LOCK           a cancelled writer opens the gate without the condition's lock
// fault: STAYS_CLOSED      a cancelled writer leaves the gate closed
// fault: MADE_QUIET        a cancelled writer makes the gate quiet
// fault: NOT_SIGNALLED     a reader that leaves with the lock does not wake the writer
//
// Threads read or ask to write; a writer may be cancelled in its wait for the readers. A writer
// that finds all the others done destroys the mutex at once: a thread that touches it afterwards
// violates an assertion. Every atomic step of the code is one step here, in sequentially consistent
// order; why weaker orders are enough is argued in src/rw_gate.h.
//
// What is checked: no reader is inside beside a writer, nobody touches a destroyed mutex, the count
// never falls below 0, a quiet gate means that its holder is alone, the gate is not left closed by a
// cancelled writer, and no thread waits for ever (a deadlock is an invalid end state).

#ifndef READERS
#define READERS 2
#endif
#ifndef WRITERS
#define WRITERS 2
#endif

int count = 0;           // bits 0-28 of the word
bool closed = false;     // bit 30
bool quiet = false;      // bit 29
bool section = false;    // "RW_Exclusive" is held
bool lock = false;       // the condition's mutex is held
bool sleeping = false;   // a writer sleeps on the condition
bool signalled = false;  // and has been woken
bool destroyed = false;
byte reading = 0;        // threads inside
byte writing = 0;
byte users = READERS + WRITERS;  // threads that may still ask for the mutex

#define TOUCH assert(!destroyed)

inline EnterSection() { atomic { !section -> TOUCH; section = true } }
// Without its holder the gate is open, or quiet, which nobody but a writer at its end makes it.
inline ExitSection() { atomic { TOUCH; assert(!closed || quiet); section = false } }
inline Lock() { atomic { !lock -> TOUCH; lock = true } }
inline Unlock() { atomic { TOUCH; lock = false } }

// With the section held.
inline Enter() {
    atomic {
        TOUCH;
        if
        :: quiet -> assert(closed && count == 0); closed = false; quiet = false; count = 1
        :: else -> count++
        fi
    }
}

// A first read: through the open gate, or through the section.
inline StartRead() {
    if
    :: atomic { !closed -> TOUCH; count++ }
    :: atomic { closed -> TOUCH }; EnterSection(); Enter(); ExitSection()
    fi;
    d_step { reading++; assert(writing == 0) }
}

// The end of a last read. `left` says that the thread is off the count.
inline EndRead() {
    d_step { reading--; left = false }
    do
    :: left -> break
    :: atomic { !left && !closed -> TOUCH; assert(count > 0); count--; left = true }
    :: atomic { !left && closed -> TOUCH };
       Lock();
#ifdef NO_SECOND_LOOK
       atomic { TOUCH; assert(count > 0); count--; left = true };
#else
       if
       :: atomic { closed -> TOUCH; }; atomic { TOUCH; assert(count > 0); count--; left = true }
       :: atomic { !closed -> TOUCH }
       fi;
#endif
#ifndef NOT_SIGNALLED
       atomic { TOUCH; if :: left && sleeping -> signalled = true :: else fi };
#endif
       Unlock()
    od
}

// A thread tells that it is done while it is inside; whoever writes after that may believe it.
active [READERS] proctype Reader() {
    bool left;
    StartRead();
    users--;
    EndRead()
}

active [WRITERS] proctype Writer() {
    bool left;
    bool last = false;
    bool admitted = false;
    bool gaveUp = false;
    bool cancelled;         // in its wait, if there is one
    if :: cancelled = true :: cancelled = false fi;
    if
    :: StartRead(); EndRead(); gaveUp = true  // a reader that asks to write
    :: true
    fi;
    EnterSection();
    if
    :: ExitSection(); EnterSection()  // TryStartWrite finds readers: it leaves the gate as it is
    :: true
    fi;
    if
    :: atomic { quiet -> TOUCH; assert(count == 0); admitted = true }
    :: atomic { !quiet -> TOUCH; admitted = (!closed && count == 0); closed = true }
    fi;
    if
    :: admitted
    :: else ->
        Lock();
        do
        :: atomic { count == 0 -> TOUCH; admitted = true }; break
        :: atomic { count != 0 -> TOUCH; sleeping = true; signalled = false; lock = false };
           if
           :: atomic { signalled && !lock -> TOUCH; lock = true; sleeping = false }
           :: atomic { cancelled && !lock -> TOUCH; lock = true; sleeping = false }; break
           fi
        od;
        Unlock()
    fi;
    if
    :: admitted ->
        d_step { writing++; assert(writing == 1 && reading == 0) };
        d_step { writing--; users--; last = (users == 0) };
        atomic { TOUCH; assert(count == 0); closed = true; quiet = true };
        ExitSection();
        if :: last -> destroyed = true :: else fi
    :: else ->
#ifndef NO_LOCK
        Lock();
#endif
        atomic {
            TOUCH;
#ifndef STAYS_CLOSED
            closed = false;
#endif
#ifdef MADE_QUIET
            closed = true; quiet = true;
#endif
            if :: gaveUp -> count++ :: else fi
        }
#ifndef NO_LOCK
        Unlock();
#endif
        ExitSection();
        if
        :: gaveUp -> d_step { reading++; assert(writing == 0) }; users--; EndRead()
        :: else -> users--
        fi
    fi
}
