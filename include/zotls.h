// Per-thread storage: one record for each thread that uses the library.
//
//     ZoTLS* mine = ZoTLS::GetThreadLocalStorage();    // made on first use
//
// Life of a record:
//
//     event                           attach count     record
//     first use by a thread           1                made
//     ZoThreadAttach                  + 1              made if there was none
//     ZoThreadDetach(record)          - 1              freed at 0
//     end of the thread               - 1              freed at 0
//
// So a record that was made on first use, or attached once, lives exactly as long as its thread.
// But the record of a thread that still owns deadlock-detecting sections at that moment is kept for
// ever: those sections stay taken, and their owner must be nobody else. A thread whose record goes,
// at its end or before, while it still reads or writes reader/writer mutexes leaves them read or
// written for ever; a line of the system log at level 4 then gives their addresses and depths.
//
// Who may call: every function acts on the calling thread's own record. Other threads touch only
// what deadlock detection needs, under csDLD (zocrits.h): `threadIdentity`, what the thread waits
// for and, while it waits, what it reads. A record that is freed waits for a moment until nobody
// reads it. A thread that frees its record while it owns deadlock-detecting sections, and lives on,
// is not known as their owner any more.
//
// When no record can be made, the functions report an assertion and answer as each says.

#ifndef KELVARA_INCLUDE_ZOTLS_H_
#define KELVARA_INCLUDE_ZOTLS_H_

#include <atomic>
#include <cstdint>

#include "zolist.h"
#include "zotypes.h"

class Condition;
class ZoDLDCritSect;
class ZoExtendedBase;
class ZoRW_Mutex;
class ZoResult;
class ZoTLS;
class smp_io;
struct ZoTLSItem;

// Says that a thread reads a reader/writer mutex without being in the mutex's count
// (src/read_marks.h). Changed by its own thread; read by threads that are to write.
struct ZoReadMark {
    std::atomic<std::uintptr_t> mutex{0};  // the mutex's address; its lowest bit is set while read
    std::atomic<ZoUInt32> reads{0};        // how often that mutex was read with this mark
};

// The marks of one thread, in lines of the processor's cache that no other thread's data share.
struct ZoReadMarks {
    ZoReadMark marks[4];     // one for each mutex that is read so
    ZoInt32 untilLook = 64;  // counted reads until the thread next asks whether marks would pay
    // In the list of all threads' marks; guarded by the marks' lock.
    ZoReadMarks* next = nullptr;
    ZoReadMarks** link = nullptr;  // what points at this; null: in no list
    bool isAbandoned = false;      // the thread has ended and left a mark set
    char apart[64];                // keeps the next block of the heap out of these lines
};

// What decides whether a mutex accepts marked reads (src/mark_policy.h).
struct ZoMarkHistory {
    // Counted reads since the last write, in units of what a thread reads between two looks.
    std::atomic<ZoUInt32> looks{0};
    // The rest belongs to the thread that holds the exclusive section.
    ZoUInt32 markedReads = 0;  // as the marks' numbers of reads added up when a writer last looked
    ZoUInt32 credit = 0;       // what marks have saved beyond their cost, in nanoseconds
};

// What a thread holds of one reader/writer mutex. A thread has at most one for each mutex.
struct ZoRWRecord : ZoSimpleLinkedListItem {
    ZoRW_Mutex const* mutex = nullptr;  // whose levels these are
    ZoUInt32 holdings = 0;              // read depth in the low 16 bits, write depth in the high 16
    ZoInt32 admissions = 0;             // under way; the record is kept until they are over

    // Notes of a walk through the wait-for graph (src/wait_graph.h).
    ZoTLS* thread = nullptr;           // whose record it is
    ZoRWRecord* nextReader = nullptr;  // of another waiting thread that reads the same mutex

    ZoReadMark* mark = nullptr;  // set while the thread reads with it; null: it is counted
};

// A thread's wait for the readers of a mutex to leave.
struct ZoReadersWait {
    ZoRW_Mutex* mutex = nullptr;  // null: it waits for none; guarded by csDLD

    // Notes of a walk.
    ZoRWRecord* readers = nullptr;  // of waiting threads that are counted as readers of `mutex`
    ZoReadersWait* next = nullptr;  // in the walk's table
};

// Where a thread stood when it last announced a wait; guarded by csDLD.
struct ZoCallStack {
    static constexpr int Most = 32;  // frames

    ZoInt32 kernelThread = 0;  // as the system numbers its threads
    ZoInt32 count = 0;         // of frames; 0: stacks are not kept (configuration key "csStacks")
    void* frames[Most];        // return addresses, the innermost first
};

class ZO_API ZoTLS {
public:
    // An empty record that belongs to no thread.
    ZoTLS();
    // Refused: reports the assertion "0" and makes an empty record.
    ZoTLS(ZoTLS const&);
    ZoTLS& operator=(ZoTLS const&) = delete;
    ~ZoTLS();

    // The calling thread's record, made if there is none; null when that fails.
    static ZoTLS* GetThreadLocalStorage();

    Condition* cond;               // made by TLSGetCondition; owned
    ZoTLSItem* itemArray;          // owned; the library never fills it
    short itemCount;               // number of elements behind itemArray
    unsigned short asyncWatcher;   // 1 when the thread has declared itself the async watcher
    ZoInt32 attachCount;           // attaches not yet matched by a detach
    ZoSimpleLinkedList rwRecords;  // of ZoRWRecord, most recently added first
    void* threadIdentity;          // names the thread in reports: the record's own address
    ZoDLDCritSect* waitingFor;     // the section the thread waits to enter; guarded by csDLD
    ZoRWRecord* spareRwRecord;     // one free record kept for reuse, or null; owned
    ZoResult* concurrencyResult;   // the open concurrent calculation, or null; not owned
    ZoExtendedBase* ownedObject;   // destroyed with the record; the library never fills it
    ZoInt32 ownedSections;         // how many detecting sections the thread owns
    ZoTLS* nextKept;               // in the list of records that are kept for ever

    // What deadlock detection needs further. Guarded by csDLD.
    ZoReadersWait readersWait;  // the mutex that the thread waits to write
    ZoTLS** waitingLink;        // what points at the record in the list of waiting threads, or null
    ZoTLS* nextWaiting;         // in that list
    // Notes of a walk.
    unsigned long long walk;  // the number of the last one that came by
    ZoTLS* nextToVisit;
    ZoTLS* firstStep;  // where the way from the walk's beginning to this record begins
    ZoCallStack callStack;

    ZoReadMarks readMarks;

private:
    friend void ZoThreadDetach(void* record);

    ZO_INTERNAL void FreeParts();
};

// What `itemArray` points at: 20 bytes on the 32-bit build.
struct ZoTLSItem {
    void* words[5];  // the host's
};

// The record that belongs to no thread; non-null marks that the library context is set up.
extern ZO_API ZoTLS* __defTLS;

// Attaches the calling thread; the argument is ignored. The result carries no meaning.
ZO_API int ZoThreadAttach(void* ignored);
// Undoes one attach of the calling thread's record; null does nothing.
ZO_API void ZoThreadDetach(void* record);

// The calling thread's async-watcher flag; 0 without a record. Nothing clears it once set.
ZO_API int ZoTLSisAsyncWatcherThread();
ZO_API void ZoTLSSetAsyncWatcherThread();

// The address of the calling thread's `cond`, made on first use with the name "TLS Cond"; the slot
// holds null when memory ran out. Null without a record.
ZO_API Condition** TLSGetCondition();

// The address of the calling thread's `holdings` for `mutex`, 0 in a new record; valid until the
// record is removed. Null when memory ran out.
ZO_API ZoUInt32* ZoTLSReaderWriterRecord(ZoRW_Mutex const* mutex);
// Drops the calling thread's record for `mutex`. 0 when it was there, 1 when there was none.
ZO_API int ZoTLSRemoveReaderWriterRecord(ZoRW_Mutex const* mutex);

// Called before, for each thread of, and after the trace section of a deadlock report, with csDLD
// held. The second writes where the thread stands, if the configuration key "csStacks" in section
// "debug" is set: its number and name in the system, and a line a frame. The others write nothing.
ZO_API void ZoTLSPrepareStackTrace(smp_io* console);
ZO_API void ZoTLSStackTrace(ZoTLS* thread, smp_io* console);
ZO_API void ZoTLSTerminateStackTrace();

#endif  // KELVARA_INCLUDE_ZOTLS_H_
