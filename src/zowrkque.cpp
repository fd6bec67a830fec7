#include "zowrkque.h"

#include <mutex>
#include <new>

#include "at_fork.h"
#include "cancellation.h"
#include "checkers.h"
#include "condition_value.h"
#include "mutex.h"
#include "patience.h"
#include "probes.h"
#include "wait_figures.h"
#include "zobase.h"
#include "zocond.h"
#include "zolist.h"
#include "zosleep.h"
#include "zotls.h"

// --- units -------------------------------------------------------------------------------------

ZoWorkUnit::~ZoWorkUnit() {
    resultObject = nullptr;
}

void ZoWorkUnit::HandledParallel() {
    // Relaxed: the thread that reads the flag is the one that appended, or reads what it already
    // saw as 1.
    if (resultObject != nullptr) resultObject->parallel.store(1, std::memory_order_relaxed);
}

namespace {

// Tells the worker that takes it to end; known by its address.
class ZoDecreaseThreadCount final : public ZoWorkUnit {
public:
    void Handle(ZoWorkQueue*) override {}
    void Aborted(ZoWorkQueue*) override {}
};

// Ready before any other static object can make a queue.
constinit ZoDecreaseThreadCount _dec;
constexpr ZoWorkUnit* decreaseThreadCount = &_dec;

// How often a worker looks for a unit, yielding in between, before it sleeps. A unit that comes
// meanwhile saves the worker a sleep and the appender a wake-up.
constexpr int Looks = 8;

// A block of the list with places for many units, in order, so that there is one allocation and one
// change of the list for all of them. Deleting it leaves the units alone.
class ZoQueueItem final : public ZoLinkedListItem {
public:
    static constexpr int Places = 256;

    ZoQueueItem() { checkers::AreAtomic(used); }

    bool IsFull() const { return used.load(std::memory_order_relaxed) == Places; }
    // How many places have got a unit; those can be read. They never change afterwards.
    int Used() const {
        int const places = used.load(std::memory_order_acquire);
        checkers::Acquire(&used);
        return places;
    }
    // By one thread at a time, while the item is not full.
    void Add(ZoWorkUnit* unit) {
        int const place = used.load(std::memory_order_relaxed);
        units[place] = unit;
        checkers::Release(&used);
        used.store(place + 1, std::memory_order_release);
    }
    // While nobody adds or reads.
    void Clear() { used.store(0, std::memory_order_relaxed); }
    ZoWorkUnit* At(int place) const { return units[place]; }

private:
    std::atomic<int> used{0};
    ZoWorkUnit* units[Places];
};

// Of ZoQueueItem, first in, first out. The owner decides whether it is destroyed: not if a thread
// may have been changing it.
union ItemList {
    ItemList() : list() {}
    ~ItemList() {}
    ZoLinkedList list;
};

// A lock that is held for a few instructions. The holder passes no cancellation point.
class ZO_CAPABILITY("brief lock") BriefLock {
public:
    BriefLock() { checkers::AreAtomic(held); }
    void lock() ZO_ACQUIRE() {
        for (Patience patience; held.exchange(true, std::memory_order_acquire);) patience.Wait();
        checkers::Acquire(&held);
    }
    void unlock() ZO_RELEASE() {
        checkers::Release(&held);
        held.store(false, std::memory_order_release);
    }

private:
    std::atomic<bool> held{false};
};

using BriefHold = LockHold<BriefLock>;

// Holds a condition's lock for a scope, also when a unit's operation in the scope is cancelled.
class ZO_SCOPED_CAPABILITY ConditionHold {
public:
    explicit ConditionHold(Condition* condition) ZO_ACQUIRE(condition) : condition(condition) {
        condition->Lock();
    }
    ConditionHold(ConditionHold const&) = delete;
    ConditionHold& operator=(ConditionHold const&) = delete;
    ~ConditionHold() ZO_RELEASE() { condition->Unlock(); }

private:
    Condition* condition;
};

// Counts the worker threads of a queue.
class WorkersWatcher final : public ZoResourceWatcher {
public:
    bool IsMade() const { return condition != nullptr; }
    // Whether there is no worker. If so, the caller sees everything that the workers did before
    // they took the count down.
    bool AreGone() const {
        if (Counter() >= 1) return false;
        int const count = condition->Lock();
        condition->Unlock();
        return count < 1;
    }
};

}  // namespace

// --- the queue ---------------------------------------------------------------------------------

// Looks at the queue itself; the condition's value only counts sets, and nothing reads it.
class ZoWorkQueueImplLogic final : public ConditionLogic {
public:
    explicit ZoWorkQueueImplLogic(ZoWorkQueueImpl* queue) : queue(queue) {}

    int SafeTest(int* value) override;
    // Appends the ZoWorkUnit `unit`; the result goes to the int `result`.
    int SafeSetApp(int* value, void* unit, void* result) override;

private:
    ZoWorkQueueImpl* queue;
};

class ZoWorkQueueImpl final : public ZoWorkQueue {
public:
    ZoWorkQueueImpl(int threadCount, void* context);
    ~ZoWorkQueueImpl() override;

    void Destroy() override;
    int Append(ZoWorkUnit* unit) override;
    int Length() override;
    int Terminate() override;
    int IncreaseThreadCount() override;
    int DecreaseThreadCount() override;
    int ThreadCount() override;
    void* Context() override;
    // Takes the first unit off the list, waiting for one as long as needed; null when the queue is
    // terminated.
    virtual ZoWorkUnit* Next();
    // By the thread whose record `me` is.
    void Handle(ZoWorkUnit* unit, ZoTLS const* me);

    // False when memory ran out; the queue is then good for deletion only.
    bool IsMade() const { return condition != nullptr && workers.IsMade(); }

    // Returns SafeHasWorkOrEnd; the result of the append goes to `result`.
    bool SafeAppend(ZoWorkUnit* unit, int& result) ZO_REQUIRES(condition);
    // Whether a waiter has a unit to take, or the queue is terminated.
    bool SafeHasWorkOrEnd() ZO_REQUIRES(condition);

private:
    struct Taken {
        ZoWorkUnit* unit;  // null: there was none to take
        bool mayRetry;     // a unit may come soon: look again
    };

    int _IncreaseThreadCount();
    void SafeStartWorker() ZO_REQUIRES(condition);
    bool SafeIsReady() ZO_REQUIRES(taking);
    void SafeTurnOver() ZO_REQUIRES(condition, taking);
    Taken TakeReady();
    // Returns with the lock held, once SafeHasWorkOrEnd.
    void AwaitWork() ZO_ACQUIRE(condition) ZO_NOT_ANALYSED {
        condition->WaitForCondition(1, ZoNoLimit);
    }
    ZoWorkUnit* AwaitAndTake();
    ZoWorkUnit* SafeTakeFirst() ZO_REQUIRES(condition);
    ZoWorkUnit* SafeTake() ZO_REQUIRES(taking);
    int SafeLength() ZO_REQUIRES(condition);
    void SafeCountLeftBehind() ZO_REQUIRES(condition);
    void SafeNoteLength() ZO_REQUIRES(condition);
    bool IsTerminated() const { return terminated.load(std::memory_order_relaxed) != 0; }
    void BeginTermination();

    ZoWorkQueueImplLogic logic;
    ItemList items ZO_GUARDED_BY(condition);
    Condition* condition;
    // Set to 1 without the lock. Relaxed order is enough: the setter takes the lock afterwards, to
    // signal, and a waiter tests it under the lock before it sleeps. So a waiter has either seen
    // it, or is signalled and then sees it.
    std::atomic<int> terminated;
    WorkersWatcher workers;
    void* const context;

    ZoQueueFigures figures;

    // For SafeNoteLength. The numbers of units wrap, and so does what is compared with them.
    unsigned long appended ZO_GUARDED_BY(condition) = 0;
    unsigned long takenSeen ZO_GUARDED_BY(condition) = 0;  // what `takenInAll` was the last time
    unsigned long lengthToNote ZO_GUARDED_BY(condition) = 32;  // from which on it looks again

    // Appenders and workers do not wait for each other. An appender holds the queue's lock and adds
    // to the last item. A worker holds `taking` and takes from the first item, up to its last used
    // place. Removing the first item, or finding out which item is the first, takes both locks, the
    // queue's first. The two sides write to different cache lines; the padding also separates them
    // from the next allocation, usually the condition.
    [[maybe_unused]] char apart[64];
    BriefLock taking;
    ZoQueueItem* first ZO_GUARDED_BY(taking) = nullptr;  // in items; null: no worker has looked
    int taken ZO_GUARDED_BY(taking) = 0;                 // of the first item's places, never all
    int ready ZO_GUARDED_BY(taking) = 0;       // how many of those had a unit the last time
    int leftBehind ZO_GUARDED_BY(taking) = 0;  // times a worker left units, not yet in the value
    std::atomic<unsigned long> takenInAll{0};  // written with taking held
    [[maybe_unused]] char apartFromTheNext[64];
    ProcessOfOrigin const process;
};

// Both are called by the condition with its lock held, which the compiler cannot see.
int ZoWorkQueueImplLogic::SafeTest(int*) ZO_NOT_ANALYSED {
    return queue->SafeHasWorkOrEnd() ? 0 : 1;
}

int ZoWorkQueueImplLogic::SafeSetApp(int*, void* unit, void* result) ZO_NOT_ANALYSED {
    return queue->SafeAppend(static_cast<ZoWorkUnit*>(unit), *static_cast<int*>(result)) ? 1 : 0;
}

ZoWorkQueue::~ZoWorkQueue() = default;

ZoWorkQueue* ZoWorkQueue::Create(int threadCount, void* context) {
    auto* const made = new (std::nothrow) ZoWorkQueueImpl(threadCount, context);
    if (made == nullptr || made->IsMade()) return made;
    delete made;
    return nullptr;
}

ZoWorkQueueImpl::ZoWorkQueueImpl(int threadCount, void* context)
    : logic(this),
      condition(Condition::MakeCondition("WorkQueue")),
      terminated(0),
      context(context) {
    checkers::AreAtomic(terminated, takenInAll, figures.refused, figures.aborted,
                        figures.greatestLength);
    if (!IsMade()) return;
    condition->logic = &logic;
    if (auto* const posix = dynamic_cast<POSIXCondition*>(condition)) {
        posix->queueFigures.store(&figures, std::memory_order_release);
    }
    for (int i = 0; i < threadCount; ++i) _IncreaseThreadCount();
}

// The last worker counts itself down when it is done with everything else, and that wakes this
// thread, which then destroys the very mutex the worker is about to unlock. That is sound: the
// worker signals before it unlocks and touches nothing of the watcher afterwards, and this thread
// sees the zero, also when it need not wait, with that mutex locked, that is, after the worker has
// released it. A mutex may be destroyed as soon as the destroyer has had it after everybody else
// who uses it: what an unlock does after the release is no access to the mutex.
//
// In a child that was forked since there are no workers, but they may have left every lock taken
// and the list half changed: neither is touched.
ZoWorkQueueImpl::~ZoWorkQueueImpl() {
    CancellationDeferred deferred;
    if (process.IsThis()) {
        if (IsMade()) {
            BeginTermination();
            workers.WaitForZero(ZoNoLimit);
        }
        items.list.~ZoLinkedList();
    }
    delete condition;
}

void ZoWorkQueueImpl::Destroy() {
    CancellationDeferred deferred;
    if (process.IsThis()) Terminate();
    delete this;
}

int ZoWorkQueueImpl::Append(ZoWorkUnit* unit) {
    int result = ZoSuccess;
    condition->SetConditionApp(unit, &result);
    return result;
}

// The unit must not be touched once it is in the list or has been handled: it may be gone.
bool ZoWorkQueueImpl::SafeAppend(ZoWorkUnit* unit, int& result) {
    // The order matters. The workers of a terminated queue leave it, and then the unit is refused:
    // the caller handles it only if there were no workers before.
    bool const nobody = workers.AreGone();
    if (IsTerminated()) {
        AddTo(figures.refused, 1);
        result = ZoRefused;
        return true;
    }
    if (nobody) {
        Handle(unit, currentRecord);
        return SafeHasWorkOrEnd();
    }
    auto* item = static_cast<ZoQueueItem*>(items.list.GetLast());
    if (item == nullptr || item->IsFull()) {
        item = new (std::nothrow) ZoQueueItem;
        if (item == nullptr) {
            result = ZoOutOfMemory;
            return SafeHasWorkOrEnd();
        }
        items.list.InsertLast(item);
    }
    unit->HandledParallel();
    probes::UnitAppended(this, *condition, unit);
    item->Add(unit);
    ++appended;
    if (appended - takenSeen >= lengthToNote) [[unlikely]]
        SafeNoteLength();
    return true;
}

// What workers take they count on their own cache line, which appending leaves alone. So the length
// is looked at only when it may be greater than ever, and never while it is short.
void ZoWorkQueueImpl::SafeNoteLength() {
    takenSeen = takenInAll.load(std::memory_order_relaxed);
    unsigned long const length = appended - takenSeen;
    if (length < lengthToNote) return;
    lengthToNote = length + 1;
    RaiseTo(figures.greatestLength, length);
}

// No unit waits while a worker sleeps. Invariant, whenever the queue's lock is free: of the
// sleeping workers, as many as there are waiting units, or all of them, have been signalled.
//   - An append adds a unit and signals one that is asleep, in one hold of the lock.
//   - A worker falls asleep only if no unit is waiting, which it finds out in the same hold.
//   - A worker that is woken takes a unit in the hold in which it wakes up, or there is none left.
//   - TakeReady, without the lock, only makes the waiting units fewer.
// So a worker that takes a unit in TakeReady need not signal when it leaves others behind: a signal
// for each unit of a backlog, while the woken worker still waits for a processor, would make every
// append wait for the lock. AwaitAndTake signals, which also passes the end of the queue on to all.
ZoWorkUnit* ZoWorkQueueImpl::Next() {
    while (!IsTerminated()) {
        Taken got = TakeReady();
        for (int look = 1; look < Looks && got.mayRetry; ++look) {
            ZoYieldProcessor();
            got = TakeReady();
        }
        if (got.unit == nullptr) got.unit = AwaitAndTake();
        if (got.unit != nullptr) return got.unit;
    }
    return nullptr;
}

// Afterwards the unit may be gone.
void ZoWorkQueueImpl::Handle(ZoWorkUnit* unit, ZoTLS const* me) {
    probes::UnitTaken(this, *condition, me, unit);
    unit->Handle(this);
    probes::UnitDone(this, *condition, me, unit);
}

// Leaves the last place of an item to AwaitAndTake, which may remove the item. So an item from
// which a unit is taken here still has units in it whenever it is full.
ZoWorkQueueImpl::Taken ZoWorkQueueImpl::TakeReady() {
    BriefHold const hold(taking);
    if (IsTerminated() || first == nullptr) return {nullptr, false};
    if (!SafeIsReady()) return {nullptr, true};
    if (taken == ZoQueueItem::Places - 1) return {nullptr, false};
    ZoWorkUnit* const unit = SafeTake();
    if (SafeIsReady()) ++leftBehind;
    return {unit, false};
}

// The next unit of the first item, which has one.
ZoWorkUnit* ZoWorkQueueImpl::SafeTake() {
    takenInAll.store(takenInAll.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return first->At(taken++);
}

// Whether the first item has a unit to take. Looks at the appenders' side only when it has taken
// all that it saw there the last time.
bool ZoWorkQueueImpl::SafeIsReady() {
    if (taken == ready) ready = first->Used();
    return taken != ready;
}

ZoWorkUnit* ZoWorkQueueImpl::AwaitAndTake() {
    AwaitWork();
    ZoWorkUnit* const unit = IsTerminated() ? nullptr : SafeTakeFirst();
    SafeCountLeftBehind();
    bool const more = SafeHasWorkOrEnd();
    condition->Unlock();
    if (more) condition->SetCondition();
    return unit;
}

ZoWorkUnit* ZoWorkQueueImpl::SafeTakeFirst() {
    BriefHold const hold(taking);
    if (first == nullptr) first = static_cast<ZoQueueItem*>(items.list.GetFirst());
    if (first == nullptr || !SafeIsReady()) return nullptr;
    ZoWorkUnit* const unit = SafeTake();
    if (taken == ZoQueueItem::Places) SafeTurnOver();
    return unit;
}

// Goes on to the next item when all units of the first are taken. The only item is used again.
void ZoWorkQueueImpl::SafeTurnOver() {
    taken = ready = 0;
    if (first == items.list.GetLast()) {
        first->Clear();
    } else {
        items.list.DeleteItem(first);
        first = static_cast<ZoQueueItem*>(items.list.GetFirst());
    }
}

bool ZoWorkQueueImpl::SafeHasWorkOrEnd() {
    if (IsTerminated()) return true;
    BriefHold const hold(taking);
    if (first == nullptr)
        return items.list.GetFirst() != nullptr;  // no unit of that one is taken yet
    return SafeIsReady();
}

int ZoWorkQueueImpl::SafeLength() {
    BriefHold const hold(taking);
    int length = -taken;
    for (auto* item = items.list.GetFirst(); item != nullptr; item = item->GetNext()) {
        length += static_cast<ZoQueueItem*>(item)->Used();
    }
    return length;
}

// The condition's value counts how often a worker left units behind, whether or not a sleeping
// worker had to be woken for them.
void ZoWorkQueueImpl::SafeCountLeftBehind() {
    BriefHold const hold(taking);
    AddToValue(&condition->value, leftBehind);
    leftBehind = 0;
}

int ZoWorkQueueImpl::Length() {
    ConditionHold const hold(condition);
    return IsTerminated() ? ZoRefused : SafeLength();
}

void ZoWorkQueueImpl::BeginTermination() {
    terminated.store(1, std::memory_order_relaxed);
    condition->SetCondition();
}

int ZoWorkQueueImpl::Terminate() {
    BeginTermination();
    ConditionHold const hold(condition);
    while (ZoWorkUnit* const unit = SafeTakeFirst()) {
        AddTo(figures.aborted, 1);
        unit->Aborted(this);
    }
    return ZoSuccess;
}

int ZoWorkQueueImpl::IncreaseThreadCount() {
    return _IncreaseThreadCount();
}

// The worker is started under the lock: an appender that checks the count of workers must wait for
// it.
int ZoWorkQueueImpl::_IncreaseThreadCount() {
    CancellationDeferred deferred;
    condition->Lock();
    SafeStartWorker();
    SafeCountLeftBehind();
    return condition->Unlock();
}

// A worker that has been started deletes itself and may be gone already. One that could not be
// started is deleted here.
void ZoWorkQueueImpl::SafeStartWorker() {
    ZoQueueWorker* const worker = new (std::nothrow) ZoQueueWorker(this);
    if (worker == nullptr) return;
    worker->SetResourceWatcher(&workers);
    if (worker->Start(nullptr) != ZoSuccess) delete worker;
}

int ZoWorkQueueImpl::DecreaseThreadCount() {
    return Append(decreaseThreadCount);
}

int ZoWorkQueueImpl::ThreadCount() {
    return workers.Counter();
}

void* ZoWorkQueueImpl::Context() {
    return context;
}

// --- the worker --------------------------------------------------------------------------------

ZoQueueWorker::ZoQueueWorker(ZoWorkQueueImpl* queue)
    : ZoThread("QueueWorker", nullptr, 1), queue(queue) {}

ZoQueueWorker::~ZoQueueWorker() = default;

int ZoQueueWorker::Work(void*) {
    ZoTLS const* const me = currentRecord;
    for (;;) {
        ZoWorkUnit* const unit = queue->Next();
        if (unit == nullptr || unit == decreaseThreadCount) return 0;
        queue->Handle(unit, me);
    }
}

// --- concurrent calculations -------------------------------------------------------------------

namespace {

void Discard(ZoResult* result) {
    delete result->condition;
    delete result;
}

ZoResult* MakeResult() {
    Condition* const condition = Condition::MakeCondition("ConcurrencyHelper");
    ZoResult* const made = new (std::nothrow) ZoResult{condition, ZoNoResult, {0}};
    if (made != nullptr) checkers::AreAtomic(made->parallel);
    if (made != nullptr && condition != nullptr) return made;
    delete condition;
    delete made;
    return nullptr;
}

}  // namespace

void ZoConcurrencyHelper::CalculateConcurrently() {
    ZoTLS* const record = ZoTLS::GetThreadLocalStorage();
    if (record == nullptr) return;
    if (record->concurrencyResult != nullptr) ZOVA_assert("res == 0", "src/zowrkque", 86);
    ZoResult* const made = MakeResult();
    if (made != nullptr) record->concurrencyResult = made;
}

int ZoConcurrencyHelper::IsConcurrent() {
    return GetResultObject() != nullptr ? 1 : 0;
}

ZoResult* ZoConcurrencyHelper::GetResultObject() {
    ZoTLS* const record = ZoTLS::GetThreadLocalStorage();
    return record != nullptr ? record->concurrencyResult : nullptr;
}

// The setting of the condition is the last access: see CalculateResult.
void ZoConcurrencyHelper::SetResult(ZoResult* result, int value) {
    if (result == nullptr) return;
    result->result = value;
    result->condition->SetCondition();
}

// The result is destroyed although SetResult, on another thread, may not have returned yet. That is
// sound: the wait ends when this thread has the condition's mutex locked and sees that it was set.
// SetResult set it under the same mutex, so it has released it by then; it had signalled before
// that, and touches nothing afterwards. (What is left of its unlock is no access to the mutex; the
// destructor of a work queue relies on the same.)
int ZoConcurrencyHelper::CalculateResult(int value) {
    ZoResult* const open = GetResultObject();
    if (open == nullptr) return value;
    if (open->parallel.load(std::memory_order_relaxed) != 0) {
        open->condition->WaitForCondition(0, ZoNoLimit);
    }
    int const result = open->result;
    Discard(open);
    ZoTLS::GetThreadLocalStorage()->concurrencyResult = nullptr;
    return result != 0 ? result : value;
}
