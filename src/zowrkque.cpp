#include "zowrkque.h"

#include <new>

#include "cancellation.h"
#include "zobase.h"
#include "zocond.h"
#include "zolist.h"
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

// The place of a unit in the list; deleting it leaves the unit alone.
class ZoQueueItem final : public ZoLinkedListItem {
public:
    explicit ZoQueueItem(ZoWorkUnit* unit) : unit(unit) {}

    ZoWorkUnit* const unit;
};

// Holds a condition's lock for a scope, also when a unit's operation in the scope is cancelled.
class ConditionHold {
public:
    explicit ConditionHold(Condition* condition) : condition(condition) { condition->Lock(); }
    ConditionHold(ConditionHold const&) = delete;
    ConditionHold& operator=(ConditionHold const&) = delete;
    ~ConditionHold() { condition->Unlock(); }

private:
    Condition* condition;
};

// Counts the worker threads of a queue.
class WorkersWatcher final : public ZoResourceWatcher {
public:
    bool IsMade() const { return condition != nullptr; }
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

    // False when memory ran out; the queue is then good for deletion only.
    bool IsMade() const { return condition != nullptr && workers.IsMade(); }

    // With the lock held.
    int SafeAppend(ZoWorkUnit* unit);
    bool SafeHasNews() const { return items.GetFirst() != nullptr || IsTerminated(); }

private:
    int _IncreaseThreadCount();
    void SafeStartWorker();
    ZoWorkUnit* SafeTakeFirst();
    bool IsTerminated() const { return terminated.load(std::memory_order_relaxed) != 0; }
    void BeginTermination();

    ZoWorkQueueImplLogic logic;
    ZoLinkedList items;  // of ZoQueueItem, first in, first out; guarded by condition
    Condition* condition;
    // Goes from 0 to 1 without the lock, by itself, so a relaxed order is enough: whoever sets it
    // takes the lock afterwards, to signal, and nobody waits without having tested it under the
    // lock. So a waiter has either seen it, or is signalled and then sees it.
    std::atomic<int> terminated;
    WorkersWatcher workers;
    void* const context;
};

int ZoWorkQueueImplLogic::SafeTest(int*) {
    return queue->SafeHasNews() ? 0 : 1;
}

int ZoWorkQueueImplLogic::SafeSetApp(int*, void* unit, void* result) {
    *static_cast<int*>(result) = queue->SafeAppend(static_cast<ZoWorkUnit*>(unit));
    return queue->SafeHasNews() ? 1 : 0;
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
    if (!IsMade()) return;
    condition->logic = &logic;
    for (int i = 0; i < threadCount; ++i) _IncreaseThreadCount();
}

// The last worker counts itself down when it is done with everything else, and that wakes this
// thread, which then destroys the very mutex the worker is about to unlock. That is sound: the
// worker signals before it unlocks and touches nothing of the watcher afterwards, and this thread
// sees the zero, also when it need not wait, with that mutex locked, that is, after the worker has
// released it. A mutex may be destroyed as soon as the destroyer has had it after everybody else
// who uses it: what an unlock does after the release is no access to the mutex.
ZoWorkQueueImpl::~ZoWorkQueueImpl() {
    CancellationDeferred deferred;
    if (!IsMade()) {
        delete condition;
        return;
    }
    BeginTermination();
    workers.WaitForZero(ZoNoLimit);
    delete condition;
}

void ZoWorkQueueImpl::Destroy() {
    CancellationDeferred deferred;
    Terminate();
    delete this;
}

int ZoWorkQueueImpl::Append(ZoWorkUnit* unit) {
    int result = ZoSuccess;
    condition->SetConditionApp(unit, &result);
    return result;
}

// Once the unit is in the list, or handled, it is not the queue's to touch.
int ZoWorkQueueImpl::SafeAppend(ZoWorkUnit* unit) {
    if (IsTerminated()) return ZoRefused;
    if (workers.Counter() < 1) {
        unit->Handle(this);
        return ZoSuccess;
    }
    ZoQueueItem* const item = new (std::nothrow) ZoQueueItem(unit);
    if (item == nullptr) return ZoOutOfMemory;
    unit->HandledParallel();
    items.InsertLast(item);
    return ZoSuccess;
}

// Each append signals one waiter, and a waiter that leaves news behind signals the next. So no
// worker sleeps while units are waiting, and all wake up after termination.
ZoWorkUnit* ZoWorkQueueImpl::Next() {
    ZoWorkUnit* unit = nullptr;
    bool more = false;
    while (unit == nullptr && !IsTerminated()) {
        condition->WaitForCondition(1, ZoNoLimit);
        unit = SafeTakeFirst();
        more = SafeHasNews();
        condition->Unlock();
    }
    if (more) condition->SetCondition();
    return unit;
}

ZoWorkUnit* ZoWorkQueueImpl::SafeTakeFirst() {
    if (IsTerminated() || items.GetFirst() == nullptr) return nullptr;
    auto* const item = static_cast<ZoQueueItem*>(items.RemoveFirst());
    ZoWorkUnit* const unit = item->unit;
    delete item;
    return unit;
}

int ZoWorkQueueImpl::Length() {
    ConditionHold const hold(condition);
    if (IsTerminated()) return ZoRefused;
    int length = 0;
    for (auto* item = items.GetFirst(); item != nullptr; item = item->GetNext()) ++length;
    return length;
}

void ZoWorkQueueImpl::BeginTermination() {
    terminated.store(1, std::memory_order_relaxed);
    condition->SetCondition();
}

int ZoWorkQueueImpl::Terminate() {
    BeginTermination();
    ConditionHold const hold(condition);
    while (auto* const item = static_cast<ZoQueueItem*>(items.RemoveFirst())) {
        ZoWorkUnit* const unit = item->unit;
        delete item;
        unit->Aborted(this);
    }
    return ZoSuccess;
}

int ZoWorkQueueImpl::IncreaseThreadCount() {
    return _IncreaseThreadCount();
}

// The lock keeps the new worker, and whoever asks how many there are before it appends, waiting.
int ZoWorkQueueImpl::_IncreaseThreadCount() {
    CancellationDeferred deferred;
    condition->Lock();
    SafeStartWorker();
    return condition->Unlock();
}

// A worker that has been started is its own and may be gone already. One that has not is of no use
// to anybody.
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
    for (;;) {
        ZoWorkUnit* const unit = queue->Next();
        if (unit == nullptr || unit == decreaseThreadCount) return 0;
        unit->Handle(queue);
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
