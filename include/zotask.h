// Work queues in the terms of the C++ standard: calls whose result a thread collects, loops over a
// range, and a pool that keeps a number of workers.
//
//     zotask::Pool pool(4);
//     zotask::Task<int> sum = zotask::Submit(pool, [&] { return Sum(numbers); });
//     zotask::ParallelFor(pool, 0, 1000, [&](int i) { squares[i] = i * i; });
//     …
//     int const total = sum.Get();
//
// What becomes of a call that is submitted:
//
//     event                          the call                          Get
//     a worker takes it              runs there                        waits for it; its result or
//                                                                      its exception
//     Get, and no worker has it yet  runs in Get                       the same
//     Cancel, before it has begun    never runs                        throws Cancelled
//     the queue is terminated        never runs, if it has not begun   throws Cancelled
//     the Task is let go             runs, its result is dropped       -
//
// So a call may submit calls to its own queue and collect them, with any number of workers: calls
// that no worker takes run in the collecting thread.
//
// Any work queue (zowrkque.h) will do, if it is ended by Destroy, as Pool ends its own. Calls and
// units of the host's own may be mixed in it. A queue without workers runs a call within Submit. A
// call may also run within Submit, with the queue's lock held, if it is submitted just as the last
// worker of a host's own queue ends; it must not submit to that queue in its turn.
//
// Who may call: Submit, ParallelFor and a pool's SetWorkers, any thread, a worker too. One thread
// at a time uses a Task. A thread may be cancelled in any of the waits here; a worker is not
// cancelled. What a call has captured is destroyed as soon as it has run or will not run, for a
// terminated queue with its lock held.

#ifndef KELVARA_INCLUDE_ZOTASK_H_
#define KELVARA_INCLUDE_ZOTASK_H_

#include <cxxabi.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "zocond.h"
#include "zolock.h"
#include "zosleep.h"
#include "zotypes.h"
#include "zowrkque.h"

namespace zotask {

// What Get throws when the call has not run and will not.
class ZO_API Cancelled : public std::exception {
public:
    // "the task was cancelled"
    char const* what() const noexcept override { return "the task was cancelled"; }
};

namespace detail {

// A submitted call. The queue and the Task share it; the later of them deletes it.
class Call : public ZoWorkUnit {
public:
    void Handle(ZoWorkQueue*) override {
        Reference const reference(this);
        if (Claim()) RunAndEnd();
    }
    void Aborted(ZoWorkQueue*) override {
        Reference const reference(this);
        Cancel();
    }

    // True for one caller, who runs the call or ends it without.
    bool Claim() { return !isClaimed.exchange(true, std::memory_order_relaxed); }
    bool Cancel() {
        bool const isMine = Claim();
        if (isMine) {
            Forget();
            End();
        }
        return isMine;
    }
    void RunAndEnd() {
        struct AtEnd {
            Call& call;
            ~AtEnd() {
                call.Forget();
                call.End();
            }
        } const atEnd{*this};
        Run();
    }

    bool HasEnded() const { return end.load(std::memory_order_acquire) == Ended(); }
    // Waits for the end of a call that another has claimed. False: the time ran out.
    bool Await(unsigned long milliseconds) {
        Condition* const mine = OfThisThread();
        if (mine == nullptr) return Poll(milliseconds);
        Condition* nobody = nullptr;
        if (!end.compare_exchange_strong(nobody, mine, std::memory_order_acq_rel)) return true;
        Waiter const waiter{end, *mine};
        mine->WaitForCondition(0, milliseconds);
        return HasEnded();
    }
    void Drop() {
        if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

protected:
    virtual void Run() = 0;
    virtual void Forget() = 0;  // destroys what was captured

private:
    struct Reference {
        explicit Reference(Call* call) : call(call) {}
        Reference(Reference const&) = delete;
        Reference& operator=(Reference const&) = delete;
        ~Reference() { call->Drop(); }
        Call* call;
    };
    // Takes the waiting thread's condition back. The thread that ends the call may have taken it
    // already and sets it once, as its last use of the condition. So the destructor waits for that
    // set.
    struct Waiter {
        std::atomic<Condition*>& end;
        Condition& mine;
        ~Waiter() noexcept(false) {
            Condition* expected = &mine;
            if (end.compare_exchange_strong(expected, nullptr, std::memory_order_relaxed)) return;
            mine.WaitForCondition(0, ZoNoLimit);
            mine.ClearCondition();
        }
    };

    static Condition* Ended() { return reinterpret_cast<Condition*>(~std::uintptr_t{0}); }
    static Condition* OfThisThread() {
        static thread_local std::unique_ptr<Condition> const mine(Condition::MakeCondition("Task"));
        return mine.get();
    }
    // Memory for a condition ran out.
    bool Poll(unsigned long milliseconds) {
        for (; !HasEnded(); --milliseconds) {
            if (milliseconds == 0) return false;
            ZoThreadSwitchWithDelay(1);
            if (milliseconds == ZoNoLimit) ++milliseconds;
        }
        return true;
    }
    // Release order: what the call did comes before what its collector does.
    void End() {
        Condition* const waiter = end.exchange(Ended(), std::memory_order_acq_rel);
        if (waiter != nullptr) waiter->SetCondition();
    }

    std::atomic<int> references{2};
    std::atomic<bool> isClaimed{false};
    // Null, the condition of the thread that waits, or Ended.
    std::atomic<Condition*> end{nullptr};
};

struct Nothing {};

template <class Result>
class CallFor : public Call {
public:
    // The two after the end; Take once.
    bool HasOutcome() const { return value || error != nullptr; }
    Result Take() {
        if (error != nullptr) std::rethrow_exception(std::move(error));
        if (!value) throw Cancelled();
        if constexpr (std::is_reference_v<Result>) {
            return static_cast<Result>(**value);
        } else if constexpr (!std::is_void_v<Result>) {
            return std::move(*value);
        }
    }

protected:
    template <class Function>
    void Store(Function& function) {
        try {
            if constexpr (std::is_void_v<Result>) {
                std::invoke(function);
                value.emplace();
            } else if constexpr (std::is_reference_v<Result>) {
                auto&& referred = std::invoke(function);
                value.emplace(std::addressof(referred));
            } else {
                value.emplace(std::invoke(function));
            }
#ifdef __GLIBCXX__
        } catch (abi::__forced_unwind&) {  // the thread is cancelled
            throw;
#endif
        } catch (...) {
            error = std::current_exception();
        }
    }

private:
    using Kept = std::conditional_t<
        std::is_void_v<Result>, Nothing,
        std::conditional_t<std::is_reference_v<Result>,
                           std::add_pointer_t<std::remove_reference_t<Result>>, Result>>;
    std::optional<Kept> value;
    std::exception_ptr error;
};

template <class Function, class Result>
class CallOf final : public CallFor<Result> {
public:
    template <class Given>
    CallOf(std::in_place_t, Given&& given) : function(std::in_place, std::forward<Given>(given)) {}

private:
    void Run() override { this->Store(*function); }
    void Forget() override { function.reset(); }

    std::optional<Function> function;
};

}  // namespace detail

// The collector's end of a submitted call. Movable; one that was moved from or collected is empty,
// and nothing but IsEmpty, assignment and destruction may be done to it. Destroying it lets the
// call go: it runs without a collector.
template <class Result>
class Task {
public:
    Task() = default;

    // Whether there is no call to collect.
    bool IsEmpty() const { return call == nullptr; }
    // Whether Get would return, or throw, without waiting or running the call.
    bool HasEnded() const { return call->HasEnded(); }
    // Whether the call, or the thread that ran it, has been cancelled: Get would throw Cancelled.
    bool IsCancelled() const { return call->HasEnded() && !call->HasOutcome(); }
    // Waits until the call has ended. Runs it if no worker has begun to.
    void Wait() const {
        if (call->Claim()) {
            call->RunAndEnd();
        } else {
            call->Await(ZoNoLimit);
        }
    }
    // Waits for a time at most, never running the call; false when that is over.
    template <class Rep, class Period>
    bool WaitFor(std::chrono::duration<Rep, Period> limit) const {
        return call->Await(ZoMilliseconds(limit));
    }
    // The result of the call, or its exception; throws Cancelled when there is neither. Waits as
    // Wait does, and leaves the Task empty.
    Result Get() {
        Wait();
        Task const ended = std::move(*this);
        return ended.call->Take();
    }
    // True: the call has not begun and never will. False: it has, or had been cancelled before.
    bool Cancel() { return call->Cancel(); }

private:
    struct Drop {
        void operator()(detail::Call* dropped) const { dropped->Drop(); }
    };
    using Shared = detail::CallFor<Result>;

    explicit Task(Shared* call) : call(call) {}
    template <class Function>
    friend auto Submit(ZoWorkQueue& queue, Function&& function)
        -> Task<std::invoke_result_t<std::decay_t<Function>&>>;

    std::unique_ptr<Shared, Drop> call;
};

// Has a worker of `queue` call a copy of `function`. On a queue that was terminated the task is
// cancelled. Throws std::bad_alloc, nothing submitted, when memory ran out.
template <class Function>
auto Submit(ZoWorkQueue& queue, Function&& function)
    -> Task<std::invoke_result_t<std::decay_t<Function>&>> {
    using Result = std::invoke_result_t<std::decay_t<Function>&>;
    auto* const call = new detail::CallOf<std::decay_t<Function>, Result>(
        std::in_place, std::forward<Function>(function));
    Task<Result> task(call);
    // Append would run it with the lock of the queue held, and it could not submit in its turn.
    if (queue.ThreadCount() == 0 && queue.Length() >= 0) {
        call->Handle(&queue);
        return task;
    }
    int const result = queue.Append(call);
    if (result != ZoSuccess) call->Aborted(&queue);
    if (result == ZoOutOfMemory) throw std::bad_alloc();
    return task;
}

namespace detail {

template <class Index>
std::size_t Distance(Index first, Index last) {
    if (!(first < last)) return 0;
    if constexpr (std::is_integral_v<Index>) {
        return static_cast<std::size_t>(last) - static_cast<std::size_t>(first);
    } else {
        return static_cast<std::size_t>(last - first);
    }
}

template <class Index>
Index At(Index first, std::size_t place) {
    if constexpr (std::is_integral_v<Index>) {
        return static_cast<Index>(static_cast<std::size_t>(first) + place);
    } else {
        return first + static_cast<typename std::iterator_traits<Index>::difference_type>(place);
    }
}

// A loop that several threads work on. Each takes parts of the rest: large ones at first, so that
// the threads meet seldom, and small ones in the end, so that they end together.
template <class Index, class Body>
class Loop {
public:
    Loop(Index first, std::size_t count, std::size_t grain, std::size_t threads, Body& body)
        : first(first), count(count), grain(grain), threads(threads), body(body) {}

    // Works until all parts are taken. An exception ends the loop for the other threads too.
    void Work() {
        struct Stop {
            Loop& loop;
            ~Stop() { loop.next.store(loop.count, std::memory_order_relaxed); }
        } const stop{*this};
        std::size_t begin = 0;
        while (std::size_t const taken = Take(begin)) {
            for (std::size_t i = begin; i != begin + taken; ++i) body(At(first, i));
        }
    }

private:
    std::size_t Take(std::size_t& begin) {
        begin = next.load(std::memory_order_relaxed);
        for (;;) {
            std::size_t const left = count - begin;
            std::size_t const part = std::min(left, std::max(grain, left / (2 * threads)));
            if (part == 0 ||
                next.compare_exchange_weak(begin, begin + part, std::memory_order_relaxed)) {
                return part;
            }
        }
    }

    Index const first;
    std::size_t const count, grain, threads;
    Body& body;
    std::atomic<std::size_t> next{0};  // all below it are taken
};

// The tasks that work on a loop beside the calling thread. The loop is on that thread's stack, so
// the destructor ends them all, even if the thread is cancelled.
class Helpers {
public:
    Helpers() = default;
    Helpers(Helpers const&) = delete;
    Helpers& operator=(Helpers const&) = delete;
    ~Helpers() {
        int before = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
        for (Task<void>& task : tasks) {
            if (!task.IsEmpty() && !task.Cancel()) task.Wait();
        }
        pthread_setcancelstate(before, nullptr);
    }
    // Fewer than asked for when memory runs out.
    template <class Work>
    void Start(ZoWorkQueue& queue, std::size_t count, Work work) {
        try {
            tasks.reserve(count);
            while (tasks.size() < count) tasks.push_back(Submit(queue, work));
        } catch (std::bad_alloc const&) {
        }
    }
    // Waits for the tasks that have begun. Throws the exception of one that has thrown.
    void Collect() {
        for (Task<void>& task : tasks) {
            if (task.Cancel()) continue;
            task.Wait();
            if (!task.IsCancelled()) task.Get();  // the end of the queue cancels them
        }
    }

private:
    std::vector<Task<void>> tasks;
};

}  // namespace detail

// Calls body(i) for each i from `first` to before `last`, integers or random-access iterators, on
// the calling thread and as many workers of `queue` as are free, and returns when all calls have
// returned. An exception of one ends the loop: no further parts are begun, and it reaches the
// caller when all that run have returned. Threads take parts of `grain` and more: the default suits
// bodies from some nanoseconds up, a larger one spares memory that neighbours share.
template <class Index, class Body>
void ParallelFor(ZoWorkQueue& queue, Index first, Index last, Body&& body, std::size_t grain = 1) {
    static_assert(!std::is_integral_v<Index> || sizeof(Index) <= sizeof(std::size_t),
                  "the range may be longer than a size_t can count");
    std::size_t const count = detail::Distance(first, last);
    grain = std::max<std::size_t>(grain, 1);
    std::size_t const parts = count / grain;
    std::size_t const workers = static_cast<std::size_t>(std::max(queue.ThreadCount(), 0));
    std::size_t const others = parts > 1 ? std::min(workers, parts - 1) : 0;
    detail::Loop<Index, std::remove_reference_t<Body>> loop(first, count, grain, others + 1, body);
    detail::Helpers helpers;
    helpers.Start(queue, others, [&loop] { loop.Work(); });
    loop.Work();
    helpers.Collect();
}

// A work queue with a number of workers that may be changed at any time, also by the workers. There
// is always one, so no unit is left waiting. Surplus workers sleep until they are wanted again.
// Destroyed by a thread that is no worker, when no other uses the pool: calls that have not begun
// are cancelled, and the others are waited for.
class Pool {
public:
    // `context` is the queue's. Throws std::bad_alloc when the queue or its first worker could not
    // be made.
    explicit Pool(int count, void* context = nullptr) : queue(ZoWorkQueue::Create(1, context)) {
        if (queue == nullptr || queue->ThreadCount() == 0) throw std::bad_alloc();
        SetWorkers(count);
    }
    Pool(Pool const&) = delete;
    Pool& operator=(Pool const&) = delete;
    ~Pool() {
        monitor.ChangeForAll([this] {
            wanted = threads;
            isEnding = true;
        });
    }

    // Wants that many workers, at least one. Missing workers have been started when this returns,
    // unless the system refuses them; surplus workers stop when the work that is waiting now has
    // been begun.
    void SetWorkers(int count) {
        monitor.ChangeForAll([this, count] {
            if (isEnding) return;
            wanted = std::max(count, 1);
            while (threads < wanted && SafeStartThread()) {
            }
            while (Working() - requests > wanted && SafeRequestSleep()) {
            }
        });
    }
    // How many work, or are ready to, at this moment.
    int Workers() {
        int working = 0;
        monitor.Change([&] { working = Working(); });
        return working;
    }

    // The queue, for Submit, ParallelFor and units of the host's; its workers are the pool's
    // affair.
    ZoWorkQueue& Queue() { return *queue; }
    operator ZoWorkQueue&() { return *queue; }

private:
    // Puts the worker that takes it to sleep, if there are too many workers by then.
    class SleepRequest final : public ZoWorkUnit {
    public:
        explicit SleepRequest(Pool& pool) : pool(pool) {}
        void Handle(ZoWorkQueue*) override {
            std::unique_ptr<SleepRequest> const self(this);
            pool.SleepWhileTooMany();
        }
        void Aborted(ZoWorkQueue*) override { delete this; }

    private:
        Pool& pool;
    };
    struct Destroyer {
        void operator()(ZoWorkQueue* destroyed) const { destroyed->Destroy(); }
    };

    int Working() const { return threads - sleeping; }
    // No thread of the queue ever leaves it, so a greater number means that a thread was started.
    bool SafeStartThread() {
        int const before = threads;
        queue->IncreaseThreadCount();
        threads = queue->ThreadCount();
        return threads > before;
    }
    bool SafeRequestSleep() {
        auto* const request = new (std::nothrow) SleepRequest(*this);
        if (request == nullptr) return false;
        if (queue->Append(request) == ZoSuccess) return ++requests, true;
        delete request;
        return false;
    }
    void SleepWhileTooMany() {
        bool sleeps = false;
        monitor.Change([&] {
            --requests;
            sleeps = Working() > wanted;
            if (sleeps) ++sleeping;
        });
        if (!sleeps) return;
        monitor.Wait([&] {
            bool const isWanted = Working() < wanted;
            if (isWanted) --sleeping;
            return isWanted;
        });
    }

    ZoMonitor monitor{"Task pool"};
    // All guarded by monitor.
    int wanted = 1;
    int threads = 1;                                // of the queue
    int sleeping = 0;                               // of those; always fewer
    int requests = 0;                               // that no worker has taken yet
    bool isEnding = false;                          // a call that still runs may change nothing
    std::unique_ptr<ZoWorkQueue, Destroyer> queue;  // destroyed before the monitor
};

}  // namespace zotask

#endif  // KELVARA_INCLUDE_ZOTASK_H_
