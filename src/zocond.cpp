#include "zocond.h"

#include <errno.h>
#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <new>

#include "at_fork.h"
#include "chain.h"
#include "checkers.h"
#include "condition_value.h"
#include "patience.h"
#include "wait_figures.h"

namespace {

class DefaultLogic final : public ConditionLogic {};

// Every new condition's logic until its owner installs another.
DefaultLogic defaultLogic;

// Calls an operation of a condition's logic. The default logic, which nearly all conditions have,
// is called directly, so that the compiler can inline it.
template <class Operation>
auto WithLogic(ConditionLogic* logic, Operation operation) {
    return logic == &defaultLogic ? operation(defaultLogic) : operation(*logic);
}

}  // namespace

// --- the default logic -------------------------------------------------------------------------

void ConditionLogic::SafeSet(int* value) {
    AddToValue(value, 1);
}

void ConditionLogic::SafeClear(int* value) {
    AddToValue(value, -1);
}

int ConditionLogic::SafeTest(int* value) {
    return LoadValue(value) == 0 ? 1 : 0;
}

int ConditionLogic::SafeSetApp(int* value, void*, void*) {
    SafeSet(value);
    return LoadValue(value) == 0 ? 1 : 0;
}

// --- the condition without a lock --------------------------------------------------------------

Condition* Condition::MakeCondition(char const* name) {
    return new (std::nothrow) POSIXCondition(name);
}

Condition::Condition(char const* name) : Condition(name, ChainLock()) {}

Condition::Condition(char const* name, ChainLock const&)
    : ZoSynchroObj(name), logic(&defaultLogic), value(0) {
    checkers::AreAtomic(value);
}

Condition::~Condition() {
    LeaveChain(this);
    logic = nullptr;
}

int Condition::SetCondition() {
    logic->SafeSet(&value);
    return LoadValue(&value);
}

int Condition::ClearCondition() {
    logic->SafeClear(&value);
    return LoadValue(&value);
}

int Condition::SetConditionApp(void* first, void* second) {
    logic->SafeSetApp(&value, first, second);
    return LoadValue(&value);
}

int Condition::WaitForCondition(unsigned short, unsigned long) {
    for (Patience patience; logic->SafeTest(&value) != 0;) patience.Wait();
    return ZoSuccess;
}

int Condition::Lock() {
    return LoadValue(&value);
}

int Condition::Unlock() {
    return LoadValue(&value);
}

void Condition::GetInfo(char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return;
    std::snprintf(buffer, static_cast<std::size_t>(size), "cond-val: %d", LoadValue(&value));
}

// --- the condition over a POSIX mutex and condition variable -----------------------------------

namespace {

// Holds a mutex for a scope; a cancelled wait in the scope releases it.
class MutexHold {
public:
    explicit MutexHold(pthread_mutex_t& mutex) : mutex(&mutex) { pthread_mutex_lock(&mutex); }
    MutexHold(MutexHold const&) = delete;
    MutexHold& operator=(MutexHold const&) = delete;
    ~MutexHold() {
        if (mutex != nullptr) pthread_mutex_unlock(mutex);
    }
    // Leaves the mutex locked at the end of the scope.
    void Keep() { mutex = nullptr; }

private:
    pthread_mutex_t* mutex;
};

// `milliseconds` from now on the clock that condition variables use.
timespec DeadlineAfter(ZoUInt32 milliseconds) {
    timeval now{};
    gettimeofday(&now, nullptr);
    timespec deadline{};
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(milliseconds / 1000);
    deadline.tv_nsec = static_cast<long>(milliseconds % 1000) * 1'000'000L + now.tv_usec * 1000L;
    if (deadline.tv_nsec >= 1'000'000'000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1'000'000'000L;
    }
    return deadline;
}

}  // namespace

// A sleeping thread. The mutex is held when a Sleeper is made and destroyed, also when the sleep is
// cancelled.
//
// Each sleeper has a POSIX condition variable to itself. With three and more sleepers on one, glibc
// before 2.41 may lose a signal (its bug 25847): no waiter wakes although one should.
class POSIXCondition::Sleeper {
public:
    explicit Sleeper(POSIXCondition& of) : of(of), sharing(!of.conditionIsTaken) {
        if (sharing) {
            of.conditionIsTaken = true;
        } else {
            pthread_cond_init(&own, &of.conditionAttributes);
        }
    }
    Sleeper(Sleeper const&) = delete;
    Sleeper& operator=(Sleeper const&) = delete;
    // A sleeper that was woken and is cancelled before it can act on that wakes the next.
    ~Sleeper() {
        if (waiting) Leave();
        if (woken) of.SafeSignal();
        if (sharing) {
            of.conditionIsTaken = false;
        } else {
            pthread_cond_destroy(&own);
        }
    }
    // Returns ETIMEDOUT or 0. A null deadline is none.
    int Sleep(timespec const* deadline) {
        if (!waiting) Join();
        int const result = deadline == nullptr
                               ? checkers::Wait(Variable(), &of.mutex)
                               : pthread_cond_timedwait(Variable(), &of.mutex, deadline);
        bool const wasWoken = woken;
        woken = false;
        return wasWoken ? 0 : result;
    }
    void Wake() {
        Leave();
        woken = true;
        pthread_cond_signal(Variable());
    }

private:
    pthread_cond_t* Variable() { return sharing ? &of.condition : &own; }
    void Join() {
        waiting = true;
        before = of.lastSleeper;
        behind = nullptr;
        (before == nullptr ? of.firstSleeper : before->behind) = this;
        of.lastSleeper = this;
    }
    void Leave() {
        waiting = false;
        (before == nullptr ? of.firstSleeper : before->behind) = behind;
        (behind == nullptr ? of.lastSleeper : behind->before) = before;
    }

    POSIXCondition& of;
    pthread_cond_t own = PTHREAD_COND_INITIALIZER;
    bool const sharing;
    bool waiting = false, woken = false;
    Sleeper *before = nullptr, *behind = nullptr;
};

POSIXCondition::POSIXCondition(char const* name) : POSIXCondition(name, ChainLock()) {}

POSIXCondition::POSIXCondition(char const* name, ChainLock const& held)
    : Condition(name, held), generation(ForkGeneration()) {
    checkers::AreAtomic(mutex, queueFigures);
    FiguresAreAtomic(figures);
    pthread_mutexattr_init(&mutexAttributes);
    pthread_mutex_init(&mutex, &mutexAttributes);
    pthread_condattr_init(&conditionAttributes);
    pthread_cond_init(&condition, &conditionAttributes);
}

// pthread_cond_destroy waits for threads that still sleep on the variable. In a child they would be
// threads of the parent, so there it is not called.
POSIXCondition::~POSIXCondition() {
    LeaveChain(this);
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&mutexAttributes);
    if (generation == ForkGeneration()) pthread_cond_destroy(&condition);
    pthread_condattr_destroy(&conditionAttributes);
}

int POSIXCondition::SetCondition() {
    MutexHold hold(mutex);
    WithLogic(logic, [this](auto& of) { of.SafeSet(&value); });
    SafeSignal();
    return LoadValue(&value);
}

int POSIXCondition::ClearCondition() {
    MutexHold hold(mutex);
    if (LoadValue(&value) < 0) return ZoRefused;
    WithLogic(logic, [this](auto& of) { of.SafeClear(&value); });
    return LoadValue(&value);
}

int POSIXCondition::SetConditionApp(void* first, void* second) {
    MutexHold hold(mutex);
    int const wake = logic->SafeSetApp(&value, first, second);
    if (wake != 0) SafeSignal();
    return wake;
}

int POSIXCondition::WaitForCondition(unsigned short keepLocked, unsigned long milliseconds) {
    MutexHold hold(mutex);
    int const result = SafeMustWait() ? SafeSleep(milliseconds) : ZoSuccess;
    if (keepLocked != 0) hold.Keep();
    return result;
}

void POSIXCondition::WakeWaiter() {
    MutexHold hold(mutex);
    SafeSignal();
}

void POSIXCondition::SafeSignal() {
    if (firstSleeper == nullptr) return;
    if (generation != ForkGeneration()) return SafeForgetAbsentSleepers();
    firstSleeper->Wake();
}

// In a child the sleepers of the parent are absent, and so are their stacks. None of them may be
// signalled.
void POSIXCondition::SafeForgetAbsentSleepers() {
    pthread_cond_init(&condition, &conditionAttributes);
    conditionIsTaken = false;
    firstSleeper = lastSleeper = nullptr;
    generation = ForkGeneration();
}

bool POSIXCondition::SafeMustWait() {
    return WithLogic(logic, [this](auto& of) { return of.SafeTest(&value); }) != 0;
}

int POSIXCondition::SafeSleep(unsigned long milliseconds) {
    if (generation != ForkGeneration()) SafeForgetAbsentSleepers();
    Sleeper self(*this);
    bool const isLock = partOf != nullptr;
    MeasuredWait const wait(figures, isLock ? *partOf : *this, isLock);
    do {
        if (milliseconds >= ZoNoLimit) {
            self.Sleep(nullptr);
            continue;
        }
        timespec const deadline = DeadlineAfter(static_cast<ZoUInt32>(milliseconds));
        if (self.Sleep(&deadline) == ETIMEDOUT) return ZoTimedOut;
    } while (SafeMustWait());
    return ZoSuccess;
}

int POSIXCondition::Lock() {
    pthread_mutex_lock(&mutex);
    return LoadValue(&value);
}

int POSIXCondition::Unlock() {
    pthread_mutex_unlock(&mutex);
    return LoadValue(&value);
}

// --- resource watchers -------------------------------------------------------------------------

namespace {

constexpr unsigned int CountMask = 0x7FFFFFFFU;

class __ResourceLogic final : public ConditionLogic {
public:
    void SafeSet(int* value) override { AddToValue(value, -1); }
    void SafeClear(int* value) override { AddToValue(value, 1); }
    int SafeTest(int* value) override { return LoadValue(value) != 0 ? 1 : 0; }
};

class __LockableResourceLogic final : public ConditionLogic {
public:
    void SafeSet(int* value) override { Count(value, -1); }
    void SafeClear(int* value) override { Count(value, 1); }
    int SafeTest(int* value) override {
        return (static_cast<unsigned int>(LoadValue(value)) & CountMask) != 0 ? 1 : 0;
    }

private:
    static void Count(int* value, int step) {
        unsigned int const before = static_cast<unsigned int>(LoadValue(value));
        unsigned int const count = (before + static_cast<unsigned int>(step)) & CountMask;
        StoreValue(value, static_cast<int>((before & ~CountMask) | count));
    }
};

__ResourceLogic resourceLogic;
__LockableResourceLogic locableResourceLogic;

}  // namespace

ZoResourceWatcher::ZoResourceWatcher()
    : condition(new (std::nothrow) POSIXCondition("ResourceWatcher")) {
    if (condition != nullptr) condition->logic = &resourceLogic;
}

ZoResourceWatcher::~ZoResourceWatcher() {
    delete condition;
    condition = nullptr;
}

int ZoResourceWatcher::IncrementCounter() {
    return condition == nullptr ? ZoRefused : condition->ClearCondition();
}

int ZoResourceWatcher::DecrementCounter() {
    return condition == nullptr ? ZoRefused : condition->SetCondition();
}

// A decrement wakes one waiter. A waiter that passes wakes the next, so all pass; the decrement
// cannot do that, because the first one to pass may destroy the watcher.
int ZoResourceWatcher::WaitForZero(unsigned long) {
    if (condition == nullptr) return ZoSuccess;
    int const result = condition->WaitForCondition(0, ZoNoLimit);
    condition->WakeWaiter();
    return result;
}

int ZoResourceWatcher::Reset() {
    return ZoSuccess;
}

int ZoResourceWatcher::Counter() const {
    return condition == nullptr ? 0 : LoadValue(&condition->value);
}

ZoLockableResourceWatcher::ZoLockableResourceWatcher() {
    if (condition != nullptr) condition->logic = &locableResourceLogic;
}

ZoLockableResourceWatcher::~ZoLockableResourceWatcher() = default;

int ZoLockableResourceWatcher::WaitForZero(unsigned long ignored) {
    if (condition == nullptr) return ZoSuccess;
    int const value = condition->Lock();
    StoreValue(&condition->value, static_cast<int>(static_cast<unsigned int>(value) | ~CountMask));
    condition->Unlock();
    return ZoResourceWatcher::WaitForZero(ignored);
}

int ZoLockableResourceWatcher::Reset() {
    if (condition == nullptr) return ZoSuccess;
    int const value = condition->Lock();
    StoreValue(&condition->value, static_cast<int>(static_cast<unsigned int>(value) & CountMask));
    condition->Unlock();
    return ZoSuccess;
}
