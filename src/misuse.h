// The messages in the system log when a lock is used as it must not be. The texts stand in
// misuse.cpp and nowhere else.
//
//     misuse                                      then
//     a detecting section is left by a thread     the section stays as it is
//     that does not own it
//     a detecting section, or a mutex with one,   it is destroyed
//     is destroyed while it is held or waited for
//     a thread ends while it owns sections, or    they stay taken, and the mutex read or written,
//     reads or writes a mutex                     for ever
//     a bracket of a thread manager ends what     the bracket does the rest of its work
//     its thread does not hold
//     a bracket is given an index without a       it locks nothing
//     section
//
// The message about an ended thread is always logged, the others where deadlock detection is on.
// Each is one line, an error, and names the thread as deadlock reports do: by its record's
// threadIdentity, or by its handle if it has no record. The functions call the host's log, without
// a lock of the library's unless their caller holds one.

#ifndef KELVARA_SRC_MISUSE_H_
#define KELVARA_SRC_MISUSE_H_

#include <cstddef>
#include <typeinfo>

#include "current_thread.h"
#include "zocrits.h"
#include "zotypes.h"

class ZoGenRW_Mutex;
class ZoThreadMgr;

// A bracket of the thread manager.
struct Bracket {
    char const* name;
    char const* expected = "";  // for an end: the bracket that must have begun on the same thread
    bool hasFlag = false;       // it takes the argument lessExclusive
};

// Names, one after the other, as far as they fit.
class NameList {
public:
    void Add(char const* format, ...) __attribute__((format(printf, 2, 3)));
    bool IsEmpty() const { return length == 0; }
    char const* Text() const { return text; }

private:
    char text[1024] = "";
    std::size_t length = 0;
};

class Misuse {
public:
    // An Exit of a section that the calling thread does not own.
    [[gnu::cold]] static void TellLeave(ZoDLDCritSect& section);

    // Whether the calling thread does not own `section`; false for a section that does not detect.
    static bool IsLeft(ZoCritSect const& section);

    // Called by the destructors: for a section when it is owned or waited for, for a mutex always.
    // Nothing is logged if the owner has ended, which was logged then; in a forked child for an
    // object of the parent, whose threads are absent; and for a section that is part of a mutex.
    [[gnu::cold]] static void TellDestruction(ZoDLDCritSect& section);
    static void TellDestruction(ZoGenRW_Mutex& mutex);

    // At the end of the calling thread, which reports name `thread`.
    static void TellOwnedAtEnd(void* thread, NameList const& sections);
    // When `record`, the calling thread's, goes. Nothing is logged if it holds nothing. The mutexes
    // may be gone: only their addresses are printed.
    static void TellHeldAtEnd(ZoTLS const* record, bool threadEnds);

    // The same for a call of EndCriticalSection, or of a bracket that ends with section `index`.
    [[gnu::cold]] static void TellLeave(ZoDLDCritSect& section, unsigned long index,
                                        Bracket const& bracket, char const* label);
    // A bracket was to end a level of `mode`, 0 a read, and the calling thread has none of it.
    [[gnu::cold]] static void TellEnd(ZoGenRW_Mutex const& mutex, int mode, Bracket const& bracket,
                                      char const* label);
    [[gnu::cold]] static void TellIndex(ZoThreadMgr const* manager, unsigned long index,
                                        Bracket const& bracket, char const* label);

private:
    static bool IsTold(ZoCritSect const& section);
    static void TellLeave(ZoDLDCritSect& section, char const* call);
};

// Only the owner finds its own record in `owner`, so the test needs no lock. A thread that does not
// find it may still be the owner.
inline bool ZoDLDCritSect::MayLeave() const {
    ZoTLS* const me = currentRecord;
    return (me != nullptr && owner.load(std::memory_order_relaxed) == me) || OwnsUnnoticed();
}

inline bool Misuse::IsLeft(ZoCritSect const& section) {
    return typeid(section) == typeid(ZoDLDCritSect) &&
           !static_cast<ZoDLDCritSect const&>(section).MayLeave();
}

#endif  // KELVARA_SRC_MISUSE_H_
