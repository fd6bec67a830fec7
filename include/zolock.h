// The library's locks in the terms of the C++ standard: for std::lock_guard, std::unique_lock,
// std::scoped_lock over several, std::shared_lock and std::condition_variable_any; brackets for a
// scope; and waits for a predicate with limits of std::chrono.
//
//     ZoSection accounts("accounts"), orders("orders");
//     long balance ZO_GUARDED_BY(accounts) = 0;
//     …
//     std::scoped_lock both(accounts, orders);      // in whichever order is free
//
//     for                                      class              entered by
//     a critical section                       ZoSection          the standard's locks, ZoHold
//     a reader/writer mutex                    ZoSharedSection    the standard's locks, ZoHold for
//                                                                 writing, ZoSharedHold for reading
//     a section that is there already          -                  ZoHold
//     a thread manager (zothrdmg.h)            -                  ZoReader, ZoWriter, ZoAdmin,
//                                                                 ZoNamedSection
//     a wait for something to become true      ZoMonitor          -
//
// Everything here is inline and adds nothing to what the plain calls cost. Clang's -Wthread-safety
// knows the classes, so that a program that forgets a lock may be refused (zotypes.h). It does not
// know the standard's locks, hence ZoHold.
//
// Who may call: as for the plain calls. A lock is released on the thread that took it, and
// destroyed when nobody holds or waits for it. A thread that is cancelled leaves what its brackets
// hold.

#ifndef KELVARA_INCLUDE_ZOLOCK_H_
#define KELVARA_INCLUDE_ZOLOCK_H_

#include <chrono>
#include <memory>
#include <new>
#include <system_error>
#include <type_traits>

#include "rw_mutex.h"
#include "zocond.h"
#include "zocrits.h"
#include "zothrdmg.h"
#include "zotypes.h"

// A critical section as a *Lockable*. Recursive: a thread that holds it may lock it again.
class ZO_CAPABILITY("section") ZO_REENTRANT ZoSection {
public:
    // Makes a section by ZoCritSect::Make and owns it. `name` is kept, not copied. Throws
    // std::bad_alloc when memory ran out.
    explicit ZoSection(char const* name) : ZoSection(ZoCritSect::Make(name)) {}
    // Owns `made`, which a factory made; null throws std::bad_alloc.
    explicit ZoSection(ZoCritSect* made) : section(made) {
        if (made == nullptr) throw std::bad_alloc();
    }

    // As Begin.
    void lock() ZO_ACQUIRE() ZO_NOT_ANALYSED { section->Begin(); }
    // False: another thread holds the section, or seemed to. See ZoTryBegin (zocrits.h).
    bool try_lock() ZO_TRY_ACQUIRE(true) ZO_NOT_ANALYSED { return ZoTryBegin(section.get()) != 0; }
    // As Exit.
    void unlock() ZO_RELEASE() ZO_NOT_ANALYSED { section->Exit(); }

    // The section itself, for GetInfo and the like.
    ZoCritSect& Get() const ZO_RETURN_CAPABILITY(this) { return *section; }

private:
    std::unique_ptr<ZoCritSect> section;
};

// A reader/writer mutex as a *SharedLockable*. Recursive in either mode (rw_mutex.h), and a writer
// may read; a reader that asks to write is reported, and one that tries to is refused.
class ZO_CAPABILITY("reader/writer mutex") ZO_REENTRANT ZoSharedSection {
public:
    // Throws std::bad_alloc when memory ran out.
    ZoSharedSection() : mutex(ZoRW_Mutex::Make(nullptr)) {
        if (mutex == nullptr) throw std::bad_alloc();
    }

    // As StartRW, ZoTryStartRW and EndRW; the shared ones read, the others write. Where StartRW
    // enters nothing these throw std::system_error (resource_unavailable_try_again). A try is false
    // where it would wait, or seemed to.
    void lock() ZO_ACQUIRE() ZO_NOT_ANALYSED { Start(1); }
    bool try_lock() ZO_TRY_ACQUIRE(true) ZO_NOT_ANALYSED {
        return ZoTryStartRW(mutex.get(), 1) != 0;
    }
    void unlock() ZO_RELEASE() ZO_NOT_ANALYSED { mutex->EndRW(1); }
    void lock_shared() ZO_ACQUIRE_SHARED() ZO_NOT_ANALYSED { Start(0); }
    bool try_lock_shared() ZO_TRY_ACQUIRE_SHARED(true) ZO_NOT_ANALYSED {
        return ZoTryStartRW(mutex.get(), 0) != 0;
    }
    void unlock_shared() ZO_RELEASE_SHARED() ZO_NOT_ANALYSED { mutex->EndRW(0); }

    // The mutex itself, for GetInfo and the like.
    ZoRW_Mutex& Get() const { return *mutex; }

private:
    void Start(int mode) {
        if (mutex->StartRW(mode, ZoNoLimit) == ZoSuccess) return;
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }

    std::unique_ptr<ZoRW_Mutex> mutex;
};

// Holds a lock for a scope: a ZoCritSect, or any object with lock() and unlock().
template <class Lock>
class ZO_SCOPED_CAPABILITY ZoHold {
public:
    // Takes it; the end of the scope leaves it.
    explicit ZoHold(Lock& lock) ZO_ACQUIRE(lock) : held(lock) { Take(lock); }
    ZoHold(ZoHold const&) = delete;
    ZoHold& operator=(ZoHold const&) = delete;
    ~ZoHold() ZO_RELEASE() { Leave(held); }

private:
    static constexpr bool IsSection = std::is_base_of_v<ZoCritSect, Lock>;

    static void Take(Lock& lock) ZO_NOT_ANALYSED {
        if constexpr (IsSection) {
            lock.Begin();
        } else {
            lock.lock();
        }
    }
    static void Leave(Lock& lock) ZO_NOT_ANALYSED {
        if constexpr (IsSection) {
            lock.Exit();
        } else {
            lock.unlock();
        }
    }

    Lock& held;
};

// Holds a shared lock for reading.
template <class Lock>
class ZO_SCOPED_CAPABILITY ZoSharedHold {
public:
    // Takes it; the end of the scope leaves it.
    explicit ZoSharedHold(Lock& lock) ZO_ACQUIRE_SHARED(lock) : held(lock) { lock.lock_shared(); }
    ZoSharedHold(ZoSharedHold const&) = delete;
    ZoSharedHold& operator=(ZoSharedHold const&) = delete;
    ~ZoSharedHold() ZO_RELEASE() { held.unlock_shared(); }

private:
    Lock& held;
};

// --- the brackets of a thread manager ------------------------------------------------------------

// A reader of the database.
class ZO_SCOPED_CAPABILITY ZoReader {
public:
    // BeginReader; the end of the scope is EndReader. `label` outlives it.
    explicit ZoReader(ZoThreadMgr& manager, char const* label = "") ZO_ACQUIRE_SHARED(manager)
        : manager(manager), label(label) {
        manager.BeginReader(label);
    }
    ZoReader(ZoReader const&) = delete;
    ZoReader& operator=(ZoReader const&) = delete;
    ~ZoReader() ZO_RELEASE() { manager.EndReader(label); }

private:
    ZoThreadMgr& manager;
    char const* label;
};

// A writer of the database. From level LessExclusiveCommit on it may begin less exclusively:
// readers go on beside it until it upgrades. It ends in the mode that it then has.
class ZO_SCOPED_CAPABILITY ZoWriter {
public:
    // What the writer begins as.
    enum Mode : unsigned short { Exclusive = 0, LessExclusive = 1 };

    // BeginWriter; the end of the scope is EndWriter. `label` outlives it.
    explicit ZoWriter(ZoThreadMgr& manager, char const* label = "", Mode mode = Exclusive)
        ZO_ACQUIRE(manager)
        : manager(manager), label(label), mode(mode) {
        manager.BeginWriter(label, mode);
    }
    ZoWriter(ZoWriter const&) = delete;
    ZoWriter& operator=(ZoWriter const&) = delete;
    ~ZoWriter() ZO_RELEASE() {
        if (!isCancelled) {
            manager.EndWriter(label, mode);
        } else if (manager.GetConcurrencyLevel() >= ZoThreadMgr::LessExclusiveCommit) {
            manager.GetCriticalSection(ServerWriter, 0)->Exit();  // all that it still holds
        }
    }

    // Each does nothing if the writer has that mode already. Readers may enter in between, writers
    // may not.
    void Upgrade() ZO_NOT_ANALYSED {
        if (mode == Exclusive) return;
        isCancelled = true;  // unless it returns
        manager.UpgradeWriter(label);
        isCancelled = false;
        mode = Exclusive;
    }
    void Downgrade() ZO_NOT_ANALYSED {
        if (mode == LessExclusive) return;
        manager.DowngradeWriter(label);
        mode = LessExclusive;
    }

private:
    static constexpr unsigned long ServerWriter = 25;

    ZoThreadMgr& manager;
    char const* label;
    Mode mode;
    bool isCancelled = false;
};

// An administrator of the database.
class ZO_SCOPED_CAPABILITY ZoAdmin {
public:
    // BeginAdmin; the end of the scope is EndAdmin. `label` outlives it.
    explicit ZoAdmin(ZoThreadMgr& manager, char const* label = "") ZO_ACQUIRE(manager)
        : manager(manager), label(label) {
        manager.BeginAdmin(label);
    }
    ZoAdmin(ZoAdmin const&) = delete;
    ZoAdmin& operator=(ZoAdmin const&) = delete;
    ~ZoAdmin() ZO_RELEASE() { manager.EndAdmin(label); }

private:
    ZoThreadMgr& manager;
    char const* label;
};

// A named section, by its index. The level decides which section that is, so Clang does not analyse
// it.
class ZoNamedSection {
public:
    // Enters it; the end of the scope leaves it. `label` outlives it.
    ZoNamedSection(ZoThreadMgr& manager, unsigned long index, char const* label = "")
        : manager(manager), index(index), label(label) {
        manager.BeginCriticalSection(index, label);
    }
    ZoNamedSection(ZoNamedSection const&) = delete;
    ZoNamedSection& operator=(ZoNamedSection const&) = delete;
    ~ZoNamedSection() { manager.EndCriticalSection(index, label); }

private:
    ZoThreadMgr& manager;
    unsigned long index;
    char const* label;
};

// --- waiting for a predicate ---------------------------------------------------------------------

// A limit of std::chrono in the milliseconds that WaitForCondition takes: rounded up, at least 0,
// and no limit from 4294967295 on.
template <class Rep, class Period>
unsigned long ZoMilliseconds(std::chrono::duration<Rep, Period> limit) {
    using Milliseconds = std::chrono::duration<double, std::milli>;
    double const count = Milliseconds(limit).count();
    if (!(count > 0)) return 0;
    if (count >= ZoNoLimit) return ZoNoLimit;
    auto const whole = static_cast<unsigned long>(count);
    return static_cast<double>(whole) < count ? whole + 1 : whole;
}

// Waits for a condition as it is (zocond.h). False: the time ran out.
template <class Rep, class Period>
bool ZoWaitFor(Condition& condition, std::chrono::duration<Rep, Period> limit) {
    return condition.WaitForCondition(0, ZoMilliseconds(limit)) != ZoTimedOut;
}

// Shared state that threads change and wait for. Changes and tests hold the lock of a condition.
//
//     ZoMonitor jobs("jobs");
//     std::deque<Job> waiting;                              // guarded by jobs
//     …
//     jobs.Change([&] { waiting.push_back(job); });         // wakes one that waits
//     …
//     bool const got = jobs.WaitFor(50ms, [&] {             // called until it is true
//         if (waiting.empty()) return false;
//         job = waiting.front();
//         waiting.pop_front();
//         return true;
//     });
//
// Changes and predicates are called one at a time, with the lock of the condition held, which is
// not recursive: they call nothing of the same monitor. An exception that they throw reaches the
// caller. Where waiters wait for different things, or one change may satisfy several, use
// ChangeForAll.
//
// Any thread may call anything. The monitor is destroyed when nobody uses it any more.
class ZoMonitor {
public:
    // `name` is kept, not copied. Throws std::bad_alloc when memory ran out.
    explicit ZoMonitor(char const* name) : condition(Condition::MakeCondition(name)) {
        if (condition == nullptr) throw std::bad_alloc();
        condition->logic = &logic;
    }

    // Calls change() and wakes one that waits.
    template <class Function>
    void Change(Function&& change) {
        Call<Function> call(change);
        condition->SetConditionApp(&call, nullptr);
    }
    // Calls change() and wakes all that wait.
    template <class Function>
    void ChangeForAll(Function&& change) {
        Call<Function> call(change);
        condition->SetConditionApp(&call, this);
    }
    // Calls done() until it is true: at once, and after each change that wakes this thread.
    template <class Predicate>
    void Wait(Predicate&& done) {
        Test<Predicate> test(done);
        while (!IsOver(test, ZoNoLimit)) {
        }
    }
    // The same for a time at most; false when that is over and done() was not true.
    template <class Clock, class Duration, class Predicate>
    bool WaitUntil(std::chrono::time_point<Clock, Duration> limit, Predicate&& done) {
        Test<Predicate> test(done);
        for (;;) {
            // Never without a limit: the clock may be set.
            auto const now = Clock::now();
            unsigned long const left = limit > now ? ZoMilliseconds(limit - now) : 0;
            if (IsOver(test, left < LongestWait ? left : LongestWait)) return true;
            if (Clock::now() >= limit) return false;
        }
    }
    template <class Rep, class Period, class Predicate>
    bool WaitFor(std::chrono::duration<Rep, Period> limit, Predicate&& done) {
        using Clock = std::chrono::steady_clock;
        constexpr auto Longest = std::chrono::hours(24 * 365 * 100);
        if (!(limit > limit.zero())) return WaitUntil(Clock::time_point::min(), done);
        auto const now = Clock::now();
        return WaitUntil(
            limit < Longest ? now + std::chrono::ceil<Clock::duration>(limit) : now + Longest,
            done);
    }

private:
    static constexpr unsigned long LongestWait = 24UL * 60 * 60 * 1000;

    struct AnyCall {
        virtual void Run() = 0;

    protected:
        ~AnyCall() = default;
    };
    template <class Function>
    struct Call final : AnyCall {
        explicit Call(Function& function) : function(function) {}
        void Run() override { function(); }
        Function& function;
    };
    struct AnyTest {
        virtual bool Passes() = 0;
        bool passed = false;  // the predicate is not called again

    protected:
        ~AnyTest() = default;
    };
    template <class Predicate>
    struct Test final : AnyTest {
        explicit Test(Predicate& predicate) : predicate(predicate) {}
        bool Passes() override { return static_cast<bool>(predicate()); }
        Predicate& predicate;
    };

    // One wait for the condition. The condition passes only the value to its logic, so the thread's
    // innermost wait is found through `current`.
    //
    // The value counts the changes that are for all. Such a change wakes the first sleeper, and
    // each sleeper that finds the value changed passes the waking on. That reaches all sleepers:
    // they stand in the order of their arrival, so sleepers that have not seen a value stand before
    // sleepers that have.
    class ZO_API OneWait {
    public:
        OneWait(Condition& condition, AnyTest& test)
            : condition(condition), test(test), outer(current) {
            current = this;
        }
        OneWait(OneWait const&) = delete;
        OneWait& operator=(OneWait const&) = delete;
        ~OneWait() {
            current = outer;
            if (passesOn) condition.SetCondition();
        }
        // With the lock held. A wake-up ends the wait of the condition in any case: the monitor's
        // may have less time left than the condition would wait again.
        bool SafeMustSleep(int value) {
            bool const woken = isAsleep;
            passesOn = woken && value != seen;
            seen = value;
            test.passed = test.Passes();
            isAsleep = !woken && !test.passed;
            return isAsleep;
        }
        static inline thread_local OneWait* current = nullptr;

    private:
        Condition& condition;
        AnyTest& test;
        OneWait* outer;
        int seen = 0;
        bool isAsleep = false, passesOn = false;
    };

    class ZO_API Logic final : public ConditionLogic {
    public:
        void SafeSet(int*) override {}
        int SafeTest(int* value) override {
            return OneWait::current->SafeMustSleep(*value) ? 1 : 0;
        }
        int SafeSetApp(int* value, void* call, void* forAll) override {
            static_cast<AnyCall*>(call)->Run();
            if (forAll != nullptr) {
                __atomic_store_n(value, static_cast<int>(static_cast<unsigned>(*value) + 1U),
                                 __ATOMIC_RELAXED);
            }
            return 1;
        }
    };

    bool IsOver(AnyTest& test, unsigned long milliseconds) {
        OneWait wait(*condition, test);
        condition->WaitForCondition(0, milliseconds);
        return test.passed;
    }

    Logic logic;
    std::unique_ptr<Condition> condition;
};

#endif  // KELVARA_INCLUDE_ZOLOCK_H_
