// Reader/writer mutex: many threads read at once, one writes alone, and every thread may take it
// again and again in either mode.
//
//     ZoRW_Mutex* plan = ZoRW_Mutex::Make(nullptr);
//     plan->StartRW(0, 4294967295);     // 0 reads, anything else writes
//     …                                 // may start again, in either mode
//     plan->EndRW(0);                   // one end for each start, same mode, same thread
//     delete plan;
//
// States of a mutex:
//
//     state           exclusive section   reading threads   a first read   a first write
//     free            free                0                 enters         enters
//     read            free                n ≥ 1             enters         makes it write pending
//     write pending   the writer's        n ≥ 1, falling    waits          waits
//     written         the writer's        0                 waits          waits
//
// Writers are preferred: while one waits for the readers to leave, nobody begins to read. A thread
// that holds the mutex already never waits for another read, even then. Readers that wait when a
// write ends go before a writer that comes later; it waits for them for 10 ms at the most.
//
// No read takes a lock while no writer is about. A nested read changes the thread's own record
// only. A first read and the end of a last one do so too in a mutex that is read much more often
// than it is written: there the thread sets a mark in its record (src/read_marks.h), of which it
// has four. Otherwise they are one atomic update each of a word that the readers share. A write
// takes the exclusive section and, unless a write went before it, one update of that word; if marks
// may be set it also looks through the records of all threads. The first read after a write passes
// the section.
//
// What a thread holds stands in its own record (zotls.h): the read depth and the write depth, each
// at most 65,535; a deeper level is refused. A thread may end its levels in any order, but two
// orders are reported, because they are seldom meant:
//
//     implicit propagation   a thread that only reads asks to write
//     implicit lowering      a thread ends its last write and still reads
//
// A thread that asks to write gives its read up while it waits: two readers that both ask are
// admitted one after the other, and what a thread has read before it must read again, since another
// writer may have been there first. A thread that lowers is a reader like any other from then on,
// without a moment in which a writer could come between.
//
// Deadlock detection (zocrits.h), if it was on when the mutex was made, sees the mutex's section
// and its readers. A writer that waits for the readers waits for all of them; a ring of waits
// through any one of them is reported, like a ring of sections, by the thread that would close it
// and before that blocks. Who is waited for:
//
//     a thread that reads, or reads again and again    yes, from its first read to its last end
//     a thread that reads and asks to write            no: it has given its reads up, and waits
//                                                      for the readers or for the section; of two
//                                                      that ask, the second waits for the first
//     a writer that lowers                             yes, from its last end of a write on
//     a writer that reads as well                      not as a reader: it owns the section
//     a first read that queues behind a writer         not yet: it waits for the section
//
// One wait may close several rings, because a writer waits for all readers. A report describes one
// of them; the next one is reported when the thread has left what the last line of that report
// names.
//
// While the message of a report is shown, the thread may end reads and writes and leave sections,
// which dissolves the ring. But a writer that waits for readers may be in the ring only through
// threads that queue behind it: it has nothing to leave then, and the ring stays unless the thread
// ends in the message (pthread_exit), which gives up the wait. A false alarm of a writer is
// reported when it holds its write.
//
// Who may call: any operation, any thread. The mutex is destroyed when nobody holds or waits for
// it; if it is destroyed otherwise and deadlock detection was on when it was made, a line of the
// system log at level 4 names the thread that destroys it and the writer, and counts the threads
// that read and wait. A thread that ended without ending its reads counts as a reader; one that
// ended without ending its write is not named. In a child made by fork() no line is written about a
// mutex of the parent's. The reports call the base library's log, message and assertion services
// and the debug listeners on the calling thread, before anything of the level is entered or ended:
// that of a propagation with the reads held, that of a lowering with the write held as well. These
// may start and end levels of the same mutex; what is held afterwards decides how the operation
// goes on. A write that is given up in its lowering report, as by ForceRelease, has been ended. A
// thread that is cancelled during a report is cancelled only after it; one that is cancelled while
// it waits to write holds afterwards what it held before it asked, so its clean-up handlers end the
// levels it had. Only the wait for readers is cut short by a cancellation, not that for another
// writer; one that ends there all the same, in the message of a deadlock report, has lost the reads
// it gave up.

#ifndef KELVARA_INCLUDE_RW_MUTEX_H_
#define KELVARA_INCLUDE_RW_MUTEX_H_

#include <atomic>

#include "zosyncob.h"
#include "zotls.h"
#include "zotypes.h"

class ChainLock;
class Condition;
class ReaderGate;
class ZoCritSect;
class ZoTLS;
struct ZoRWRecord;
struct ZoWaitFigures;

// The interface, with harmless defaults: it accepts every call and locks nothing.
class ZO_API ZoRW_Mutex : public ZoSynchroObj {
public:
    // A new ZoGenRW_Mutex, owned by the caller and deleted through this base; null when memory for
    // it or one of its parts ran out. A `result` that is not null receives 0, or -1 with null.
    static ZoRW_Mutex* Make(int* result);

    ZoRW_Mutex();
    ~ZoRW_Mutex() override;

    void ForceRelease() override;
    // One level more or less, `mode` 0 reading and anything else writing; here: nothing, returns 0.
    virtual int StartRW(int mode, unsigned long timeout);
    virtual int EndRW(int mode);
    // Writes one line, at most `size` bytes, the terminating NUL included. A null buffer is left
    // alone. The numbers are a snapshot.
    virtual void GetInfo(char* buffer, int size);

protected:
    ZO_INTERNAL explicit ZoRW_Mutex(ChainLock const& held);
};

// The mutex that locks.
class ZO_API ZoGenRW_Mutex : public ZoRW_Mutex {
public:
    // For Make, which also checks that both parts were made; a mutex without one can only be
    // destroyed.
    ZoGenRW_Mutex();
    ~ZoGenRW_Mutex() override;

    // Ends every level that the calling thread holds, reads first, so nothing is reported. Called
    // from a deadlock report, about a wait for this very mutex, it leaves the wait alone: the
    // thread holds what it asked for once it is admitted, with the reads it had.
    void ForceRelease() override;
    // Enters one level; waits until admitted, without limit, whatever `timeout` says. Returns 0.
    // With an assertion and nothing entered: ZoRefused ("depth < 65535", line 241) when the thread
    // holds 65,535 levels of that mode; ZoOutOfMemory when its record could not be made.
    int StartRW(int mode, unsigned long timeout) override;
    // Leaves one level. Returns 0; ZoRefused with an assertion and nothing changed when the thread
    // holds no level of that mode; ZoOutOfMemory with an assertion when the thread's record could
    // not be made.
    int EndRW(int mode) override;
    void GetInfo(char* buffer, int size) override;

private:
    friend class Contention;
    friend class ZoRW_Mutex;
    friend class ZoThreadMgr;
    friend class Misuse;
    friend ZO_API int ZoTryStartRW(ZoRW_Mutex* mutex, int mode);

    ZO_INTERNAL ZoGenRW_Mutex(ZoCritSect* exclusive, Condition* readers, ChainLock const& held);

    ZO_INTERNAL bool IsComplete() const { return exclusive != nullptr && readers != nullptr; }

    ZO_INTERNAL ReaderGate Gate() const;
    ZO_INTERNAL bool TryStartRead(bool mayWait = true);
    ZO_INTERNAL bool TryEndRead();
    ZO_INTERNAL bool TryStartWrite();
    ZO_INTERNAL bool TryEndWrite();
    ZO_INTERNAL void LeaveWriting(bool goesOnReading);
    ZO_INTERNAL ZoWaitFigures& ReadersFigures();
    ZO_INTERNAL void LetReadersPass();
    ZO_INTERNAL int Start(int mode);
    ZO_INTERNAL int End(int mode);
    ZO_INTERNAL bool TryEnterCounted(ZoTLS* me);
    ZO_INTERNAL bool TryLeaveCounted();
    ZO_INTERNAL void StartRead(ZoTLS* me, ZoRWRecord& record);
    ZO_INTERNAL void StartWrite(ZoRWRecord& record, void* identity);
    ZO_INTERNAL void BeginWrite(ZoRWRecord& record, ZoUInt32 before, void* identity);
    ZO_INTERNAL void EndRead(ZoRWRecord& record);
    ZO_INTERNAL void EndWrite(ZoUInt32& holdings);
    ZO_INTERNAL void QueueToRead();
    ZO_INTERNAL void EnterQueued();
    ZO_INTERNAL bool TryStart(int mode);
    ZO_INTERNAL bool TryAdmitReader(ZoTLS* me, ZoRWRecord& record);
    ZO_INTERNAL bool TryAdmitWriter();
    ZO_INTERNAL bool NoReaderIsLeft();
    ZO_INTERNAL bool AdmitWriter(ZoRWRecord& record);
    ZO_INTERNAL void LeaveReaders(ZoRWRecord& record);
    ZO_INTERNAL int CountReaders() const;
    ZO_INTERNAL void CheckWriterLevel(ZoUInt32 writeDepth, int line) const;
    ZO_INTERNAL void AddToWriterLevel(ZoInt32 change);

    // Its value is the gate's word (src/rw_gate.h): the number of threads that are counted as
    // readers, and the gate's state; owned, never chained.
    Condition* readers;
    // The writer's, from its admission to the end of its last write; owned, never chained.
    ZoCritSect* exclusive;
    // The writer's depth and identity, 0 and null when there is none. Changed by the thread that
    // holds the exclusive section only; atomic because GetInfo reads them from any thread.
    std::atomic<ZoInt32> WriterLevel;
    std::atomic<void*> owner;
    // How many threads wait to be admitted; for GetInfo and the readers' turn.
    std::atomic<ZoInt32> waitingReaders;
    std::atomic<ZoInt32> waitingWriters;
    // How many waiting readers go before the next writer (src/readers_turn.h).
    std::atomic<ZoInt32> dueReaders;
    // Whether deadlock detection sees who waits for the readers: it was on when the mutex was made.
    bool const isDetecting;
    ZoMarkHistory markHistory;
};

// As StartRW, but only if that needs no wait. Returns 1, and the level is ended by EndRW; or 0,
// with nothing entered:
//
//     another thread writes, or waits to write; for a write, another reads
//     the calling thread reads and asks to write: it would have to give its reads up
//     the class is the host's, which cannot be tried, or memory for the record ran out
//     the thread holds 65,535 levels of that mode; this one is asserted as by StartRW
//
// 0 may also be returned for a free mutex: threads that try at the same moment may get in each
// other's way, and one that tries to write keeps other tries out for that moment. A thread that
// holds the mutex in either mode reads again, and one that writes writes again. The mutex that
// locks nothing is always free. Nothing is reported, no wait is counted or seen by deadlock
// detection, and it is no cancellation point. It may wait for csDLD as ZoTryBegin does (zocrits.h).
//
// After 1 the caller sees what StartRW would have it see: all that writers did before their ends,
// and for a write all that readers did (acquire order). 0 orders nothing.
ZO_API int ZoTryStartRW(ZoRW_Mutex* mutex, int mode);

#endif  // KELVARA_INCLUDE_RW_MUTEX_H_
