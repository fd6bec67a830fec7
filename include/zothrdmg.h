// The thread manager: the locking plan of one database.
//
//     ZoThreadMgr* plan = new ZoThreadMgr(base, ZoThreadMgr::AllCS);
//     plan->BeginWriter("commit", 0);
//     plan->BeginCriticalSection(9, "commit");      // ZoCSObjMgr
//     …
//     plan->EndCriticalSection(9, "commit");
//     plan->EndWriter("commit", 0);
//
// The concurrency level turns the whole plan down without a change in the calling code:
//
//     level                      named sections   readers, writers     ZoCSServerWriter
//     0      NoneCS              none             nothing              -
//     1-3                        26               nothing              -
//     4      OneCS               one for all      nothing              -
//     5-11   (9 AllCS)           26               reader/writer mutex  -
//     12 up  (LessExclusiveCommit) 26             reader/writer mutex  entered by writers
//
// From LessExclusiveCommit on a writer enters ZoCSServerWriter first, so it may hold the mutex for
// reading only (less exclusive) while it prepares, let readers go on beside it, and upgrade later:
//
//     plan->BeginWriter(label, 1);      // ZoCSServerWriter, then a read
//     plan->UpgradeWriter(label);       // ends the read, then a write: readers may come between
//     plan->EndWriter(label, 0);        // what it holds by now is a write
//
// The named sections, by the index that callers pass:
//
//      0 ZoCSRootObject    7 ZoCSLBucketIndex   14 ZoCSDefaults        21 ZoCSAccessPaths
//      1 ZoCSLoadCD        8 ZoCSBufferColl     15 -                   22 ZoCSBaseInternals
//      2 ZoCSCallbackMgr   9 ZoCSObjMgr         16 -                   23 ZoCSCallbackID
//      3 ZoCSCrypt        10 ZoCSOnDemand       17 ZoCSBucketMap       24 ZoCSZoBaseLists
//      4 ZoCSBuildQTree   11 ZoCSZoMgr          18 ZoCSCompareObject   25 ZoCSServerWriter
//      5 ZoCSLBucketLists 12 ZoCSZoObject       19 ZoCSOql
//      6 ZoCSReg          13 ZoCSAdmin          20 ZoCSTransIDX
//
// A set bit i in the disable mask makes section i one that locks nothing. The order in which
// callers take named sections is their affair.
//
// Who may call: brackets, queries and PrintStatus, any thread; an end on the thread of its begin.
// A manager is made and destroyed while no other thread uses it. Second indices are not used.
//
// Labels name the calling site, for the reader of the code and of the system log: where deadlock
// detection was on when the manager was made, an end of what the calling thread does not hold, an
// end with a `lessExclusive` that does not fit, and an index without a section are reported there
// in a line of level 4, with the bracket, its label, what the thread holds and what was expected.
// The labels of a begin and its end may differ. What is not held stays as it is, and the bracket
// does the rest of its work: EndWriter leaves ZoCSServerWriter, UpgradeWriter begins its write.
//
// No operation reports an error. One that needs a section which is not there (an index without a
// section, or memory ran out when the manager was made) raises an assertion and locks nothing; so
// it is with the mutex. A begin that the mutex refuses (rw_mutex.h: nested too deep, or no memory
// for the thread's record) raises the mutex's assertion and enters no level of it, but
// ZoCSServerWriter where that comes first; its end then ends a level of an outer begin. A thread
// that is cancelled while it waits in BeginWriter or BeginAdmin holds nothing of the bracket; one
// cancelled in UpgradeWriter still holds ZoCSServerWriter.

#ifndef KELVARA_INCLUDE_ZOTHRDMG_H_
#define KELVARA_INCLUDE_ZOTHRDMG_H_

#include "zotypes.h"

class ZoBase;  // the engine's
class ZoCritSect;
class ZoRW_Mutex;
struct Bracket;

class ZO_API ZO_CAPABILITY("thread manager") ZO_REENTRANT ZoThreadMgr {
public:
    // The levels that have names.
    static ZoUInt32 const NoneCS = 0;
    static ZoUInt32 const OneCS = 4;
    static ZoUInt32 const AllCS = 9;
    static ZoUInt32 const LessExclusiveCommit = 12;

    // Level AllCS, no database, nothing disabled.
    ZoThreadMgr();
    // Keeps `base` and does nothing with it. Levels and masks are 32-bit values.
    ZoThreadMgr(ZoBase* base, unsigned long level);
    ZoThreadMgr(ZoBase* base, unsigned long level, unsigned long disableMask);
    ZoThreadMgr(ZoThreadMgr const&) = delete;
    ZoThreadMgr& operator=(ZoThreadMgr const&) = delete;
    // Nobody may be in any bracket. The main manager's end leaves the process without one, until
    // the next manager is made.
    virtual ~ZoThreadMgr();

    // Writes the state of the mutex and of every section to the console; nothing at level NoneCS.
    virtual void PrintStatus();

    // As given to the constructor, 32 bits.
    unsigned long GetConcurrencyLevel();
    unsigned long GetDisableMask();

    // 1 when the level is exactly this one, else 0.
    int HasNoneCS();
    int HasOneCS();
    int HasAllCS();
    int HasLessExclusiveCommit();
    static unsigned long GetNoneCS();
    static unsigned long GetOneCS();
    static unsigned long GetAllCS();
    static unsigned long GetLessExclusiveCommit();

    // The section that stands for `index`, owned by the manager; one that locks nothing when there
    // is none. Never null.
    ZoCritSect* GetCriticalSection(unsigned long index, unsigned long ignored);
    // A new section, owned by the caller, null when memory ran out: one that locks nothing when
    // `bits` meets the disable mask; else by ZoCritSect::MakeLight when `light` is non-zero, else
    // by ZoCritSect::Make.
    ZoCritSect* MakeTheCritSect(unsigned long bits, char const* name, unsigned short light);

    // Takes and ends a read of the mutex.
    void BeginReader(char const* label) ZO_ACQUIRE_SHARED();
    void EndReader(char const* label) ZO_RELEASE_SHARED();
    // `lessExclusive` counts from LessExclusiveCommit on: non-zero takes, or ends, a read only. An
    // end passes what fits the hold at that moment: 0 after an upgrade, non-zero after a downgrade.
    void BeginWriter(char const* label, unsigned short lessExclusive) ZO_ACQUIRE();
    void EndWriter(char const* label, unsigned short lessExclusive) ZO_RELEASE();
    // From LessExclusiveCommit on: exchanges a writer's read for a write, and back. Between the two
    // readers may come in, other writers not.
    void UpgradeWriter(char const* label) ZO_REQUIRES(this);
    void DowngradeWriter(char const* label) ZO_REQUIRES(this);
    void BeginAdmin(char const* label) ZO_ACQUIRE();
    void EndAdmin(char const* label) ZO_RELEASE();

    // Enters and leaves the section of that index.
    void BeginCriticalSection(unsigned long index, char const* label);
    void BeginCriticalSection(unsigned long index, unsigned long ignored, char const* label);
    void EndCriticalSection(unsigned long index, char const* label);
    void EndCriticalSection(unsigned long index, unsigned long ignored, char const* label);

private:
    void Init();
    ZO_INTERNAL bool MakeSlots(ZoInt32 count);
    ZO_INTERNAL void MakeNamedSections();
    ZO_INTERNAL bool UsesMutex() const { return concurrencyLevel > OneCS; }
    ZO_INTERNAL bool SerialisesWriters() const { return concurrencyLevel >= LessExclusiveCommit; }
    ZO_INTERNAL ZoRW_Mutex& Mutex() const;
    ZO_INTERNAL ZoUInt32 SlotOf(unsigned long index) const;
    ZO_INTERNAL bool HasSection(ZoUInt32 slot) const;
    ZO_INTERNAL ZoCritSect& Section(unsigned long index, Bracket const& bracket,
                                    char const* label) const;
    ZO_INTERNAL ZoCritSect& NoSection(unsigned long index, Bracket const& bracket,
                                      char const* label) const;
    ZO_INTERNAL void Leave(unsigned long index, Bracket const& bracket, char const* label) const;
    ZO_INTERNAL int ModeOf(unsigned short lessExclusive) const;
    ZO_INTERNAL void BeginWrite(int mode, Bracket const& bracket, char const* label);
    ZO_INTERNAL void EndWrite(int mode, Bracket const& bracket, char const* label);
    ZO_INTERNAL void End(int mode, Bracket const& bracket, char const* label) const;

    ZoRW_Mutex* rwMutex;    // owned; made at every level, by ZoRW_Mutex::Make
    ZoCritSect** sections;  // owned, as are the sections; a slot without a section holds null
    ZoBase* base;           // not owned
    ZoUInt32 concurrencyLevel;
    ZoInt32 numberOfSections;
    ZoUInt32 disableMask;
    ZoUInt32 detecting = 0;  // bit i: slot i has a detecting section
};

// The first manager made since there was none; null before that. It outlives every user.
ZO_API ZoThreadMgr* MainThreadMgr();

#endif  // KELVARA_INCLUDE_ZOTHRDMG_H_
