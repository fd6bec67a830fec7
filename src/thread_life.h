// The state that a system thread object and its running thread share.

#ifndef KELVARA_SRC_THREAD_LIFE_H_
#define KELVARA_SRC_THREAD_LIFE_H_

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>

#include "at_fork.h"
#include "cancellation.h"
#include "mutex.h"

// One life of one thread, from before its creation until both the system thread object and the
// thread itself are gone; each holds a reference.
//
// The handle of a detached thread dangles once the thread has ended. So it is used only with the
// lock held and while HandleIsValid: the thread takes the lock to say that it ends, which it cannot
// do between that test and the use.
//
// The lock also decides between an abort and the thread's next access to its thread object: an
// abort that was accepted is seen by UnlessAborted, and an access that was begun is over before the
// abort is accepted. So a thread that has aborted another one may destroy its object.
class ThreadLife {
public:
    // Idle -> Starting -> Running -> Finishing -> Ended. Starting: on the way, handle not known.
    // Finishing: past its work, nothing left to abort. Back to Idle when the creation fails; from
    // Running to Ended when the thread is cancelled.
    enum State { Idle, Starting, Running, Finishing, Ended };

    ThreadLife() = default;
    ThreadLife(ThreadLife const&) = delete;
    ThreadLife& operator=(ThreadLife const&) = delete;

    void Share() { references.fetch_add(1, std::memory_order_relaxed); }
    void Release() {
        // Release order ends this holder's use before the count falls; acquire order brings every
        // holder's use before the deletion.
        if (references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    // In a child, for a thread of the parent: it is absent, and may have left the lock taken.
    bool IsAbsent() const { return !process.IsThis(); }
    // In a child: the thread that forked goes on there; a thread that tried to abort it does not.
    static void ForgetAbsentThreads() {
        if (current == nullptr) return;
        new (&current->mutex) Mutex;
        current->process.BecomeThis();
    }

    bool HandleIsValid() const ZO_REQUIRES(mutex) { return state == Running || state == Finishing; }
    bool CanBeAborted() const ZO_REQUIRES(mutex) { return state == Starting || state == Running; }

    // Does `step`, an access to the thread object, with the lock held. An aborted thread ends here
    // instead, whatever its cancellation state. A thread that no system thread started just does
    // the step.
    template <class Step>
    static void UnlessAborted(Step step) {
        if (current == nullptr) return step();
        {
            MutexHold const hold(current->mutex);
            if (!current->aborted) return step();
        }
        pthread_exit(PTHREAD_CANCELED);
    }

    // Wakes a starter that sleeps in AwaitStarted. By the new thread, after it has set the record's
    // flag.
    void SayStarted() {
        { MutexHold const hold(mutex); }
        started.notify_one();
    }
    // Sleeps until `isStarted`, which reads that flag. No cancellation point.
    template <class Predicate>
    void AwaitStarted(Predicate isStarted) {
        CancellationDeferred deferred;
        std::unique_lock<std::mutex> hold(mutex.Plain());
        started.wait(hold, isStarted);
    }

    Mutex mutex;                              // guards what follows, and the system thread's handle
    State state ZO_GUARDED_BY(mutex) = Idle;  // changed by the starter, then by the thread
    bool aborted ZO_GUARDED_BY(mutex) = false;  // an abort has been accepted

    // The calling thread's life; null for a thread that no system thread started.
    static constinit thread_local ThreadLife* current;

private:
    ~ThreadLife() = default;

    std::atomic<int> references{1};
    std::condition_variable started;
    ProcessOfOrigin process;
};

#endif  // KELVARA_SRC_THREAD_LIFE_H_
