// Who may touch the database when: the thread manager of the database, and its brackets as scopes.
//
//     ReaderBracket reader(plan, "look up");              // others read beside it
//     WriterBracket writer(plan, "change");               // from level 5 on, no other writer
//     …                                                   // at level 12 still beside readers
//     writer.Upgrade();                                   // alone from here on
//     SectionHold caches(plan, ObjectManagerSection, "commit");
//
// The level (see zothrdmg.h) says what the brackets do:
//
//     level       named sections    readers and writers
//     0           none              one thread only
//     1 to 3      each its own      not kept apart; SQLite's file locks keep writers apart
//     4           one for all       as before
//     5 to 11     each its own      a writer is alone
//     12, 13      each its own      a writer is alone while it commits, else beside readers
//
// The order in which a thread takes locks. It holds none of those further down when it takes one
// further up:
//
//     0  the gate of transactions (interrupt.h), held for a few instructions, or for good once the
//        process ends
//     1  the sections of the deadlock demonstration ("records of client n"); the work queue's lock,
//        where there are no workers
//     2  the turn on a connection
//     3  a bracket: ZoCSServerWriter (level 12), then the reader/writer mutex
//     4  ZoCSObjMgr (at level 4 "ZoCSTheOnlyOne"), which guards the object cache
//     5  SQLite's mutexes
//     6  the section of the batches, and the library's own locks
//
// 2 before 3: who waits for a turn holds no bracket, so the one whose turn it is gets its write.
// 4 before 5: a commit and what it means for the cache are one step. SQLite calls nothing of ours
// with its mutexes held that takes 1 to 4. Nobody waits for 1 or 2 inside a bracket, so a writer's
// wait for the readers is part of no ring. One kind of the deadlock demonstration breaks that on
// purpose.

#ifndef KELVARA_HOST_LOCKING_PLAN_H_
#define KELVARA_HOST_LOCKING_PLAN_H_

#include "zothrdmg.h"

inline constexpr unsigned long ObjectManagerSection = 9;  // ZoCSObjMgr
inline constexpr unsigned HighestLevel = ZoThreadMgr::LessExclusiveCommit + 1;

class LockingPlan {
public:
    explicit LockingPlan(unsigned level) : manager(nullptr, level) {}

    // Whether the brackets keep writers apart from each other and from readers.
    bool SeparatesWriters() { return manager.GetConcurrencyLevel() > ZoThreadMgr::OneCS; }
    // To the console; nothing at level 0.
    void PrintStatus() { manager.PrintStatus(); }

private:
    friend class ReaderBracket;
    friend class WriterBracket;
    friend class AdminBracket;
    friend class SectionHold;

    ZoThreadMgr manager;
};

class ReaderBracket {
public:
    ReaderBracket(LockingPlan& plan, char const* label) : manager(plan.manager), label(label) {
        manager.BeginReader(label);
    }
    ReaderBracket(ReaderBracket const&) = delete;
    ReaderBracket& operator=(ReaderBracket const&) = delete;
    ~ReaderBracket() { manager.EndReader(label); }

private:
    ZoThreadMgr& manager;
    char const* label;
};

class WriterBracket {
public:
    WriterBracket(LockingPlan& plan, char const* label) : manager(plan.manager), label(label) {
        manager.BeginWriter(label, 1);
    }
    WriterBracket(WriterBracket const&) = delete;
    WriterBracket& operator=(WriterBracket const&) = delete;
    ~WriterBracket() { End(); }

    // Before the commit.
    void Upgrade() {
        manager.UpgradeWriter(label);
        lessExclusive = 0;
    }
    // Ends the bracket before its scope. A thread that has begun to read meanwhile goes on as a
    // reader, and no other writer comes in between: the library calls it an implicit lowering.
    void End() {
        if (open) manager.EndWriter(label, lessExclusive);
        open = false;
    }

private:
    ZoThreadMgr& manager;
    char const* label;
    unsigned short lessExclusive = 1;
    bool open = true;
};

// For changes of the schema.
class AdminBracket {
public:
    AdminBracket(LockingPlan& plan, char const* label) : manager(plan.manager), label(label) {
        manager.BeginAdmin(label);
    }
    AdminBracket(AdminBracket const&) = delete;
    AdminBracket& operator=(AdminBracket const&) = delete;
    ~AdminBracket() { manager.EndAdmin(label); }

private:
    ZoThreadMgr& manager;
    char const* label;
};

// Of a named section, by index.
class SectionHold {
public:
    SectionHold(LockingPlan& plan, unsigned long index, char const* label)
        : manager(plan.manager), index(index), label(label) {
        manager.BeginCriticalSection(index, label);
    }
    SectionHold(SectionHold const&) = delete;
    SectionHold& operator=(SectionHold const&) = delete;
    ~SectionHold() { manager.EndCriticalSection(index, label); }

private:
    ZoThreadMgr& manager;
    unsigned long index;
    char const* label;
};

#endif  // KELVARA_HOST_LOCKING_PLAN_H_
