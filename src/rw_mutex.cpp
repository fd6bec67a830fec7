#include "rw_mutex.h"

#include <cstddef>
#include <cstdio>
#include <new>
#include <typeinfo>
#include <utility>

#include "cancellation.h"
#include "chain.h"
#include "checkers.h"
#include "deadlock_io.h"
#include "mark_policy.h"
#include "misuse.h"
#include "probes.h"
#include "read_marks.h"
#include "readers_turn.h"
#include "rw_fast.h"
#include "section_try.h"
#include "trace.h"
#include "wait_figures.h"
#include "wait_graph.h"
#include "zobase.h"
#include "zocrits.h"

// Who is counted as a reader.
//
// A thread's own record decides that, between any two operations of the thread: a thread is
// counted, once, exactly when its record has a read depth and no write depth. Every change of the
// record that turns this one way or the other changes the count with it:
//
//     operation                  record (reads, writes)   count
//     first read                 (0, 0) → (1, 0)          + 1
//     last read, not writing     (1, 0) → (0, 0)          - 1
//     write asked by a reader    (r, 0) → (r, 1)          - 1, before it waits
//     last write, still reads    (r, 1) → (r, 0)          + 1, before it leaves the section
//     anything else                                       unchanged
//
// So the levels may end in any order, and no state is needed beside the record.
//
// The count stands in the value of `readers`, together with the gate (rw_gate.h) through which a
// first reader enters and a last one leaves without a lock while no writer is about. The count
// rises only while the gate is open, or by a thread that holds the exclusive section: a first
// reader that enters through it, a writer that lowers, a writer whose wait is cancelled and that is
// a reader again. A writer that holds the section and has closed the gate therefore sees the count
// fall, and no other thread makes it rise.
//
// Every wait ends: a thread that waits for the section is not counted, so the writer that holds the
// section waits for running threads only; a counted thread runs until it ends its reads or asks to
// write, and both take it off the count.

namespace {

// A set takes a reader off the count, a clear counts one, and a writer waits until the count is 0.
// Readers also pass the open gate without the lock. A reader that finds the gate closed leaves by
// SetConditionApp, which does nothing and returns 0 when the gate is open again.
class ReaderCounter final : public ConditionLogic {
public:
    void SafeSet(int* value) override { ReaderGate(*value).LeaveLocked(); }
    void SafeClear(int* value) override { ReaderGate(*value).Enter(false); }
    int SafeTest(int* value) override { return ReaderGate(*value).Count() != 0 ? 1 : 0; }
    int SafeSetApp(int* value, void*, void*) override {
        if (!ReaderGate(*value).IsClosed()) return 0;
        SafeSet(value);
        return 1;
    }
};

// Stateless, so one serves every mutex. Complete before any code of the program runs.
constinit ReaderCounter readerLogic;

void Assert(char const* text, int line) {
    CancellationDeferred deferred;
    ZOVA_assert(text, "src/rw_mutex", line);
}

// Counts the calling thread as a waiter for a scope. Sequentially consistent for the sake of
// readers_turn.h; elsewhere the counts serve the status text only.
class CountedWaiter {
public:
    explicit CountedWaiter(std::atomic<ZoInt32>& waiters) : waiters(waiters) {
        waiters.fetch_add(1);
    }
    CountedWaiter(CountedWaiter const&) = delete;
    CountedWaiter& operator=(CountedWaiter const&) = delete;
    ~CountedWaiter() { waiters.fetch_sub(1, std::memory_order_relaxed); }

private:
    std::atomic<ZoInt32>& waiters;
};

// A writer's wait for the readers in the wait-for graph, for a scope. It is announced with the
// exclusive section held and the gate closed, and withdrawn before either changes. While it stands
// no thread begins to read the mutex.
class AnnouncedWrite {
public:
    AnnouncedWrite() = default;
    AnnouncedWrite(AnnouncedWrite const&) = delete;
    AnnouncedWrite& operator=(AnnouncedWrite const&) = delete;
    ~AnnouncedWrite() { Withdraw(); }

    // In one hold of csDLD: looks for a ring, unless the last reader has just gone. Whether a
    // deadlock was reported.
    bool Announce(ZoRW_Mutex& mutex, ReaderGate const& gate, MarksWithdrawal const& marks) {
        GraphLock lock;
        if (gate.Count() == 0 && !marks.MarksAreOut()) return false;
        bool const reported = AnnounceWait(currentRecord, {.readersOf = &mutex});
        announced = true;
        return reported;
    }
    void Withdraw() {
        if (!announced) return;
        GraphLock lock;
        WaitForGraph::Withdraw(currentRecord);
        announced = false;
    }

private:
    bool announced = false;
};

// A writer's wait for the readers, with the exclusive section held and the gate closed. A thread
// that is cancelled in it opens the gate and leaves the section. If it gave up reads for the write,
// they are in its record again and it is a counted reader.
class PendingWrite {
public:
    PendingWrite(ZoRW_Mutex& mutex, ZoCritSect& exclusive, Condition& readers,
                 ZoWaitFigures& figures, ZoUInt32& holdings, ZoUInt32 reads)
        : mutex(mutex),
          exclusive(exclusive),
          readers(readers),
          figures(figures),
          holdings(holdings),
          reads(reads) {}
    PendingWrite(PendingWrite const&) = delete;
    PendingWrite& operator=(PendingWrite const&) = delete;
    ~PendingWrite() {
        if (admitted) return;
        holdings = reads;
        if (reads != 0) checkers::ReadBegins(&mutex, checkers::NeverWaits);
        readers.Lock();
        Gate().GiveUp(reads != 0);
        readers.Unlock();
        exclusive.Exit();
    }

    void WaitForReaders(ZoMarkHistory& history) {
        MarksWithdrawal marks(&mutex, Gate().MarksMayBeOut(), history);
        Sleep(marks);
    }
    // The same, seen by deadlock detection. Whether a deadlock was reported.
    bool WaitSeenForReaders(ZoMarkHistory& history) {
        MarksWithdrawal marks(&mutex, Gate().MarksMayBeOut(), history);
        AnnouncedWrite announced;
        bool const reported = announced.Announce(mutex, Gate(), marks);
        Sleep(marks);
        return reported;
    }

private:
    ReaderGate Gate() const { return ReaderGate(readers.value); }

    // New readers of either kind stay out, so the two waits may come one after the other.
    void Sleep(MarksWithdrawal& marks) {
        marks.WaitForNone(figures, mutex);
        readers.WaitForCondition(0, ZoNoLimit);
        admitted = true;
    }

    ZoRW_Mutex& mutex;
    ZoCritSect& exclusive;
    Condition& readers;
    ZoWaitFigures& figures;  // of the readers' condition
    ZoUInt32& holdings;
    ZoUInt32 const reads;
    bool admitted = false;
};

// The depths that a record states. Without a record they are 0.

ZoUInt32 DepthOf(ZoRWRecord const* record, int mode) {
    if (record == nullptr) return 0;
    return mode == 0 ? ReadDepth(record->holdings) : WriteDepth(record->holdings);
}

bool OnlyReads(ZoRWRecord const* record) {
    return DepthOf(record, 0) != 0 && DepthOf(record, 1) == 0;
}

bool WritesLastAndReads(ZoRWRecord const* record) {
    return DepthOf(record, 0) != 0 && DepthOf(record, 1) == 1;
}

[[gnu::cold]] int WithoutRecord(int line) {
    Assert("holdings != 0", line);
    return ZoOutOfMemory;
}

[[gnu::cold]] int TooDeep() {
    Assert("depth < 65535", 241);
    return ZoRefused;
}

[[gnu::cold]] int NothingHeld() {
    Assert("depth != 0", 291);
    return ZoRefused;
}

// --- the reports -------------------------------------------------------------------------------

void ReportPropagation() {
    CancellationDeferred deferred;
    static constexpr char text[] = "Implicit propagation reader -> writer.";
    ZoSystemLog()->Printf(ZoLogError, text);
    unsigned int const answer =
        ZoMessage()->Show(0, ZoStyleQuestion, "%s\n(CANCEL to debug)", text);
    if (answer == ZoAnswerDebug || answer == ZoAnswerAbort) {
        Assert(
            "\"Kelvara RW_Mutex: IMPLICIT PROPAGATION READER->WRITER! Please call technical "
            "support. Save the stack trace.\" && 0",
            259);
    }
}

void ReportLowering() {
    CancellationDeferred deferred;
    unsigned int const answer =
        ZoMessage()->Show(0, ZoStyleNotice, "Implicit lowering writer -> reader.");
    if (answer == ZoAnswerAbort) {
        Trace(TraceArea::ImplicitLowering, "Kelvara RW_Mutex: IMPLICIT LOWERING WRITER->READER");
    }
}

// --- making ------------------------------------------------------------------------------------

// The parts leave the chain at once: a walk of the chain reaches them through the mutex only.
ZoCritSect* MakeExclusive() {
    ZoCritSect* const section = ZoCritSect::Make("RW_Exclusive");
    if (section != nullptr) UnchainSection(section);
    return section;
}

Condition* MakeReaders() {
    Condition* const condition = Condition::MakeCondition("RW_Readers");
    if (condition == nullptr) return nullptr;
    HandleChaining(condition, 0);
    condition->logic = &readerLogic;
    condition->value = ReaderGate::FirstWord(MarkPolicy::CurrentMode() == MarkPolicy::Always);
    return condition;
}

}  // namespace

ZoRW_Mutex* ZoRW_Mutex::Make(int* result) {
    ZoGenRW_Mutex* mutex = new (std::nothrow) ZoGenRW_Mutex;
    if (mutex != nullptr && !mutex->IsComplete()) {
        delete mutex;
        mutex = nullptr;
    }
    if (result != nullptr) *result = mutex != nullptr ? ZoSuccess : ZoRefused;
    return mutex;
}

// --- the mutex that locks nothing --------------------------------------------------------------

ZoRW_Mutex::ZoRW_Mutex() : ZoRW_Mutex(ChainLock()) {}

ZoRW_Mutex::ZoRW_Mutex(ChainLock const&) : ZoSynchroObj("RW_Mutex") {}

ZoRW_Mutex::~ZoRW_Mutex() {
    LeaveChain(this);
}

void ZoRW_Mutex::ForceRelease() {}

int ZoRW_Mutex::StartRW(int, unsigned long) {
    return ZoSuccess;
}

int ZoRW_Mutex::EndRW(int) {
    return ZoSuccess;
}

void ZoRW_Mutex::GetInfo(char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return;
    std::snprintf(buffer, static_cast<std::size_t>(size), "Owner:??; Wx:??; Rx:??");
}

// --- the mutex that locks ----------------------------------------------------------------------

// The braces evaluate from left to right: the parts are made before the chain is locked, because
// making a section may ask the host's configuration.
ZoGenRW_Mutex::ZoGenRW_Mutex() : ZoGenRW_Mutex{MakeExclusive(), MakeReaders(), ChainLock()} {}

ZoGenRW_Mutex::ZoGenRW_Mutex(ZoCritSect* exclusive, Condition* readers, ChainLock const& held)
    : ZoRW_Mutex(held),
      readers(readers),
      exclusive(exclusive),
      WriterLevel(0),
      owner(nullptr),
      waitingReaders(0),
      waitingWriters(0),
      dueReaders(0),
      isDetecting(exclusive != nullptr && typeid(*exclusive) == typeid(ZoDLDCritSect)) {
    checkers::AreAtomic(WriterLevel, owner, waitingReaders, waitingWriters, dueReaders);
    checkers::LockIsMade(this);
    SetWhole(exclusive, this);
    if (readers != nullptr) static_cast<POSIXCondition*>(readers)->partOf = this;
}

ZoGenRW_Mutex::~ZoGenRW_Mutex() {
    LeaveChain(this);
    Misuse::TellDestruction(*this);
    if (readers != nullptr && Gate().MarksMayBeOut()) ReadMarks::Forget(this);
    checkers::LockIsGone(this);
    delete exclusive;
    delete readers;
    WriterLevel.store(0, std::memory_order_relaxed);
    owner.store(nullptr, std::memory_order_relaxed);
}

int ZoGenRW_Mutex::StartRW(int mode, unsigned long) {
    if (mode == 0 ? TryStartRead() : TryStartWrite()) [[likely]]
        return ZoSuccess;
    return Start(mode);
}

int ZoGenRW_Mutex::EndRW(int mode) {
    if (mode == 0 ? TryEndRead() : TryEndWrite()) [[likely]]
        return ZoSuccess;
    return End(mode);
}

ZoWaitFigures& ZoGenRW_Mutex::ReadersFigures() {
    return static_cast<POSIXCondition*>(readers)->figures;
}

// TryStartWrite and TryEndWrite begin and end a write of a thread that holds nothing else of the
// mutex, if neither has to wait. They run no code of the host, so the record needs no
// AdmissionUnderWay. False: nothing has been done, and Start or End must do it.

bool ZoGenRW_Mutex::TryStartWrite() {
    ZoTLS* const me = currentRecord;
    if (me == nullptr || me->spareRwRecord == nullptr) return false;
    if (FindRwRecord(me, this) != nullptr) return false;
    if (WriterLevel.load(std::memory_order_relaxed) != 0 || ReadersTurn(dueReaders).IsNow() ||
        !Gate().IsFreeOrQuiet()) {
        return false;
    }
    if (!(isDetecting ? static_cast<ZoDLDCritSect*>(exclusive)->TakeBesideGraph(me)
                      : static_cast<PosixCritSect*>(exclusive)->TakeIfFree())) {
        return false;
    }
    if (!Gate().TryClose()) [[unlikely]] {
        exclusive->Exit();
        return false;
    }
    checkers::WriteBegins(this, checkers::MayWait);
    owner.store(me->threadIdentity, std::memory_order_relaxed);
    probes::WriterAdmitted(*this, me->threadIdentity);
    WriterLevel.store(1, std::memory_order_relaxed);
    AddSpareRwRecord(me, this, OneWrite, nullptr);
    return true;
}

bool ZoGenRW_Mutex::TryEndWrite() {
    ZoTLS* const me = currentRecord;
    if (me == nullptr) return false;
    ZoRWRecord* const record = FindRwRecord(me, this);
    if (record == nullptr || record->holdings != OneWrite) return false;
    if (WriterLevel.load(std::memory_order_relaxed) != 1) return false;  // End reports that
    WriterLevel.store(0, std::memory_order_relaxed);
    LeaveWriting(false);
    DropRwRecord(me, record);
    return true;
}

// The reports come first, while the record still describes the thread: they call the host, which
// may start and end levels of this mutex. So the record is looked up again after them.
int ZoGenRW_Mutex::Start(int mode) {
    ZoTLS* const me = CurrentThread();
    if (me == nullptr) return WithoutRecord(236);
    if (mode != 0 && OnlyReads(FindRwRecord(me, this))) ReportPropagation();
    ZoRWRecord* const record = FindOrMakeRwRecord(me, this);
    if (record == nullptr) return WithoutRecord(236);
    if (DepthOf(record, mode) == DeepestNesting) return TooDeep();
    AdmissionUnderWay const admission(me, record);
    if (mode == 0) {
        StartRead(me, *record);
    } else {
        StartWrite(*record, me->threadIdentity);
    }
    return ZoSuccess;
}

int ZoGenRW_Mutex::End(int mode) {
    ZoTLS* const me = CurrentThread();
    if (me == nullptr) return WithoutRecord(286);
    ZoRWRecord* record = FindRwRecord(me, this);
    if (DepthOf(record, mode) == 0) return NothingHeld();
    if (mode != 0 && WritesLastAndReads(record)) {
        ReportLowering();
        record = FindRwRecord(me, this);
        if (DepthOf(record, mode) == 0) return ZoSuccess;  // given up in the report
    }
    // From here on the mutex may be left to another thread, which may destroy it.
    if (mode == 0) {
        EndRead(*record);
    } else {
        EndWrite(record->holdings);
    }
    if (record->holdings == 0) DropRwRecord(me, record);
    return ZoSuccess;
}

bool ZoGenRW_Mutex::TryEnterCounted(ZoTLS* me) {
    ReaderGate const gate = Gate();
    if (!gate.TryEnter()) return false;
    MarkPolicy::ReadWasCounted(*me, markHistory, gate);
    return true;
}

bool ZoGenRW_Mutex::TryLeaveCounted() {
    return Gate().TryLeave();
}

void ZoGenRW_Mutex::StartRead(ZoTLS* me, ZoRWRecord& record) {
    if (record.holdings == 0) {
        if (!TryAdmitReader(me, record)) QueueToRead();
        checkers::ReadBegins(this, checkers::MayWait);
        probes::ReaderAdmitted(*this, me);
    }
    record.holdings += OneRead;
}

// Admits a reader with a mark, by the open gate, or through the exclusive section if that is free.
bool ZoGenRW_Mutex::TryAdmitReader(ZoTLS* me, ZoRWRecord& record) {
    record.mark = ReadMarks::TrySet(me->readMarks, this, Gate());
    if (record.mark != nullptr || TryEnterCounted(me)) return true;
    if (!TryBegin(*exclusive)) return false;
    EnterQueued();
    return true;
}

void ZoGenRW_Mutex::QueueToRead() {
    bool wasLastDue = false;
    {
        CountedWaiter const waiting(waitingReaders);
        exclusive->Begin();
        wasLastDue = ReadersTurn(dueReaders).Pass();
    }
    EnterQueued();
    if (wasLastDue) ReadersTurn(dueReaders).WakeWriters(waitingWriters);
}

void ZoGenRW_Mutex::EnterQueued() {
    Gate().Enter(MarkPolicy::AcceptsAtOnce(markHistory));
    exclusive->Exit();
}

void ZoGenRW_Mutex::StartWrite(ZoRWRecord& record, void* identity) {
    ZoUInt32 const before = record.holdings;
    bool falseAlarm = false;
    if (WriteDepth(before) == 0) {
        falseAlarm = AdmitWriter(record);
        checkers::WriteBegins(this, checkers::MayWait);
    }
    BeginWrite(record, before, identity);
    // The report runs the host's code, which must find the thread as the writer.
    if (falseAlarm) ReportFalseAlarm();
}

void ZoGenRW_Mutex::BeginWrite(ZoRWRecord& record, ZoUInt32 before, void* identity) {
    if (WriteDepth(before) == 0) {
        owner.store(identity, std::memory_order_relaxed);
        probes::WriterAdmitted(*this, identity);
    }
    CheckWriterLevel(WriteDepth(before), 271);
    record.holdings = before + OneWrite;
    AddToWriterLevel(1);
}

// A reader gives up its reads before it waits for the section, because the section's holder may
// wait for these reads. It is not counted any more, so its record must state no reads: no writer
// waits for it, and a deadlock report in the wait may make it leave all that it holds.
//
// The thread is counted as a waiting writer only if it must wait.
bool ZoGenRW_Mutex::AdmitWriter(ZoRWRecord& record) {
    ZoUInt32 const reads = std::exchange(record.holdings, 0);
    if (reads != 0) LeaveReaders(record);
    if (ReadersTurn(dueReaders).IsNow()) LetReadersPass();
    bool const entered = TryBegin(*exclusive);
    if (entered && Gate().Close()) return false;
    CountedWaiter const waiting(waitingWriters);
    if (!entered) {
        exclusive->Begin();
        if (Gate().Close()) return false;
    }
    PendingWrite pending(*this, *exclusive, *readers, ReadersFigures(), record.holdings, reads);
    if (isDetecting) return pending.WaitSeenForReaders(markHistory);
    pending.WaitForReaders(markHistory);
    return false;
}

// Called before the section is entered, by a thread that holds nothing of the mutex.
void ZoGenRW_Mutex::LetReadersPass() {
    CountedWaiter const waiting(waitingWriters);
    MeasuredWait const wait(ReadersFigures(), *this, true);
    ReadersTurn(dueReaders).AwaitPassage();
}

void ZoGenRW_Mutex::LeaveReaders(ZoRWRecord& record) {
    checkers::ReadEnds(this);
    if (record.mark != nullptr) {
        return ReadMarks::TakeBack(*std::exchange(record.mark, nullptr), this);
    }
    // A writer that gives up may open the gate between the two calls.
    while (!Gate().TryLeave() && readers->SetConditionApp(nullptr, nullptr) == 0) {
    }
}

void ZoGenRW_Mutex::EndRead(ZoRWRecord& record) {
    ZoUInt32 const left = record.holdings - OneRead;
    if (left == 0) LeaveReaders(record);
    record.holdings = left;
}

void ZoGenRW_Mutex::EndWrite(ZoUInt32& holdings) {
    ZoUInt32 const left = holdings - OneWrite;
    AddToWriterLevel(-1);
    CheckWriterLevel(WriteDepth(left), 307);
    if (WriteDepth(left) == 0) {
        LeaveWriting(left != 0);
    }
    holdings = left;
}

// Afterwards another thread may have destroyed the mutex, unless the caller goes on as a reader.
inline void ZoGenRW_Mutex::LeaveWriting(bool goesOnReading) {
    owner.store(nullptr, std::memory_order_relaxed);
    checkers::WriteEnds(this);
    if (goesOnReading) checkers::ReadBegins(this, checkers::NeverWaits);
    Gate().EndWrite(goesOnReading);
    ZoInt32 const waiting = waitingReaders.load(std::memory_order_relaxed);
    if (waiting != 0) ReadersTurn(dueReaders).Grant(waiting);
    exclusive->Exit();
}

// Called by the thread that holds the exclusive section, which orders all changes. So relaxed order
// is enough, and no other thread changes the value between the load and the store.
void ZoGenRW_Mutex::AddToWriterLevel(ZoInt32 change) {
    WriterLevel.store(WriterLevel.load(std::memory_order_relaxed) + change,
                      std::memory_order_relaxed);
}

void ZoGenRW_Mutex::CheckWriterLevel(ZoUInt32 writeDepth, int line) const {
    if (WriterLevel.load(std::memory_order_relaxed) == static_cast<ZoInt32>(writeDepth)) return;
    Assert("this->WriterLevel == (long)ThreadWriterRecLevel", line);
}

void ZoGenRW_Mutex::ForceRelease() {
    ZoTLS const* const me = CurrentThread();
    ZoRWRecord const* const record = me != nullptr ? FindRwRecord(me, this) : nullptr;
    // Holdings of 0 belong to an admission that is under way: a deadlock report in it has called.
    // That record stays.
    ZoUInt32 const holdings = record != nullptr ? record->holdings : 0;
    for (ZoUInt32 level = ReadDepth(holdings); level != 0; --level) EndRW(0);
    for (ZoUInt32 level = WriteDepth(holdings); level != 0; --level) EndRW(1);
}

int ZoGenRW_Mutex::CountReaders() const {
    return Gate().Count() + (Gate().MarksMayBeOut() ? ReadMarks::Count(this) : 0);
}

void ZoGenRW_Mutex::GetInfo(char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return;
    char exclusiveText[256];
    exclusive->GetInfo(exclusiveText, sizeof exclusiveText);
    std::snprintf(buffer, static_cast<std::size_t>(size),
                  "Owner:%p; Wx:#%ld; Rx:cond-val: %d; Cond:%s, wait_rd #%ld, wait_wr #%ld",
                  owner.load(std::memory_order_relaxed),
                  static_cast<long>(WriterLevel.load(std::memory_order_relaxed)), CountReaders(),
                  exclusiveText, static_cast<long>(waitingReaders.load(std::memory_order_relaxed)),
                  static_cast<long>(waitingWriters.load(std::memory_order_relaxed)));
}
