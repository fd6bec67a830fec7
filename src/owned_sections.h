// The calling thread's identity as an owner of sections, and the sections that it still owns when
// it ends.
//
// A section that is owned by a thread that has ended stays taken for ever. No later thread may be
// mistaken for the owner, although the system uses thread handles again and an allocator uses
// addresses again: a plain section therefore stores a number beside the handle, which no other
// thread of the process ever gets, and the record of a thread that still owns detecting sections is
// kept instead of freed.

#ifndef KELVARA_SRC_OWNED_SECTIONS_H_
#define KELVARA_SRC_OWNED_SECTIONS_H_

#include <pthread.h>

#include "zotypes.h"

class ZoTLS;

// The owner of a free POSIX section.
constexpr pthread_t NoThread = 0;

// Neither a thread's handle nor the owner of a free section.
constexpr pthread_t UnknownThread = ~NoThread;

// The calling thread's identity, kept in words of its own because every entry asks for it and
// pthread_self() is a call into the system library. The initial-exec model makes each word one load
// at a fixed distance from the thread's base, for some bytes of static thread-local storage.
struct SectionOwner {
    pthread_t handle = UnknownThread;  // until the thread first owns a section
    unsigned long number = 0;          // from 1 on
    ZoInt32 owned = 0;                 // how many POSIX sections it owns, wrapped ones included
    bool endIsNoticed = false;
};
[[gnu::tls_model("initial-exec")]] extern constinit thread_local SectionOwner self;

class OwnedSections {
public:
    // Gives the calling thread its identity and registers for its end. Once a thread, before it
    // first owns a section.
    [[gnu::cold]] static void Introduce();

    // Stores the identity that reports use for the calling thread, for its end without the record.
    static void RememberName(ZoTLS const* record);

    // The identity of the calling thread in reports: its record's, or the one that RememberName
    // stored; its handle if it has never had a record.
    static void* Identity();

    // By a thread whose record has no attach left. True: the record may be freed. False: the thread
    // still owns detecting sections, and the record is now in the list of those kept for ever.
    static bool LetGo(ZoTLS* record);

    // Whether `record`, which may be null, is kept for ever: its thread has ended.
    static bool IsKept(ZoTLS const* record);

    // Whether TellAtEnd is still to run for the calling thread, which is ending.
    static bool AreToBeTold() { return self.owned != 0 && self.endIsNoticed; }

    // The destructor of a key: logs which sections the thread still owns.
    static void TellAtEnd(void* round);

private:
    static void Tell();
};

#endif  // KELVARA_SRC_OWNED_SECTIONS_H_
