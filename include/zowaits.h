// Contention: how often threads had to wait for each synchronisation object, how long in all and at
// the most.
//
//     ZoContention figures[256];
//     int const alive = ZoCopyContention(figures, 256);    // may be more than were copied
//     …
//     ZoResetContention();                                  // from here on they count anew
//
// Only a thread that blocks counts, so a lock that is free when it is wanted, or becomes so while a
// thread tries a few times more, costs nothing and counts nothing. What is counted, by kind:
//
//     kind                  a wait is
//     Section, Detecting    a thread that blocks until another one has left
//     Mutex                 a reader or writer that blocks until a writer has ended, and a writer
//                           that blocks until the readers have: one that does both counts twice
//     Condition             a thread that sleeps until the condition's test passes or its time is
//                           over; that is no contention, but tells where threads spend their time
//     Queue                 a worker that sleeps until there is a unit; and what became of units
//     Other                 nothing: a class of the host's, or one that does not lock
//
// Who may call: any thread, while the library context is set up. Both functions hold the chain's
// lock, "CS chain" (zosyncob.h), for a time in proportion to the objects alive, and take no other
// that is held for long. Neither allocates.

#ifndef KELVARA_INCLUDE_ZOWAITS_H_
#define KELVARA_INCLUDE_ZOWAITS_H_

#include <atomic>

#include "zotypes.h"

class ZoSynchroObj;

// What an object is. A detecting section is Detecting, a plain one Section.
enum class ZoSynchroKind { Other, Section, Detecting, Mutex, Condition, Queue };

struct ZoContention {
    ZoSynchroObj const* object;  // may be gone by the time the figures are looked at
    ZoSynchroKind kind;          // what it is
    char name[64];               // cut to 63 bytes
    // Of the thread that has the section or writes, at that moment; null: none has. The identity of
    // its record (zotls.h), or of a plain section's owner the handle (pthread_t).
    void* owner;
    unsigned long long waits;
    unsigned long long nanoseconds;  // of all waits that are over
    unsigned long long longest;      // of them, in nanoseconds
    // Of a queue.
    unsigned long long refused;         // units, because the queue was terminated
    unsigned long long aborted;         // units, by its termination
    unsigned long long greatestLength;  // 0: below 32
};

// Copies the figures of up to `room` objects, the newest first. Returns how many objects are alive;
// 0 while the library context is not set up.
ZO_API int ZoCopyContention(ZoContention* to, int room);
// Sets the figures of all objects alive to 0. A wait that is under way counts whole when it ends.
ZO_API void ZoResetContention();

// Kept by each object that threads wait for. Changed by the library only.
struct ZoWaitFigures {
    // As in ZoContention.
    std::atomic<unsigned long long> waits{0};
    std::atomic<unsigned long long> nanoseconds{0};
    std::atomic<unsigned long long> longest{0};
};

// Kept by each queue. Changed by the library only.
struct ZoQueueFigures {
    // As in ZoContention.
    std::atomic<unsigned long long> refused{0};
    std::atomic<unsigned long long> aborted{0};
    std::atomic<unsigned long long> greatestLength{0};
};

#endif  // KELVARA_INCLUDE_ZOWAITS_H_
