// Work queues: units of work, handled by a pool of worker threads in the order of appending; and
// concurrent calculations, whose result a thread collects wherever the work was done.
//
//     class Count : public ZoWorkUnit {
//     public:
//         explicit Count(ZoResult* result) : ZoWorkUnit(result) {}
//         void Handle(ZoWorkQueue*) override {
//             ZoConcurrencyHelper::SetResult(resultObject, CountIt());
//         }
//         void Aborted(ZoWorkQueue*) override { ZoConcurrencyHelper::SetResult(resultObject, -1); }
//     };
//     ZoWorkQueue* queue = ZoWorkQueue::Create(4, nullptr);
//     ZoConcurrencyHelper::CalculateConcurrently();
//     Count unit(ZoConcurrencyHelper::GetResultObject());
//     queue->Append(&unit);
//     …                                                      // something else meanwhile
//     int const count = ZoConcurrencyHelper::CalculateResult(0);
//     queue->Destroy();
//
// What becomes of a unit is decided when it is appended, and it is exactly one of these:
//
//     the queue is           Append returns    the unit is
//     open, with workers     0                 handled by a worker, or aborted by Terminate
//     open, without          0                 handled before Append returns, on the same thread
//     terminated             ZoRefused         left to the caller
//     out of memory          ZoOutOfMemory     left to the caller
//
// Units are started in the order of appending; they may finish in any. A queue is open until
// Terminate, or its destruction, and there is no way back.
//
// A worker that finds nothing to do looks again a few times, yielding the processor in between, and
// then sleeps. A queue keeps room for some hundreds of units once it has had one.
//
// Shrinking. A worker that ends on DecreaseThreadCount is counted until it is done with the queue.
// Units that are waiting when the last worker ends, or are appended while that worker is still
// counted, wait until a worker is added or the queue is terminated; units appended later, without
// workers, overtake them. So let the queue run empty before the last worker is taken off.
//
// Who may call: everything but Destroy, any thread, a unit's Handle on a worker thread included.
// The lock of the queue is the mutex of its condition "WorkQueue", which is not recursive. It is
// held during
//   - a Handle on the appending thread, and every Aborted: these call only ThreadCount and Context
//     of the same queue;
//   - the start of a worker: a listener of the trace 0x800000 calls nothing else of it either.
// No lock is held during a Handle on a worker thread.
//
// In a forked child a queue of the parent has no workers, and its locks may be taken for ever. The
// child does nothing with it but Destroy or delete it, which then waits for nothing and calls
// neither Handle nor Aborted: what becomes of the child's copies of units that were waiting is the
// child's affair. A child that is forked in a Handle or an Aborted does not return from it. It does
// not collect a calculation whose units the parent's workers had.
//
// An exception must not leave Handle or Aborted. A thread that is cancelled in either leaves the
// queue unlocked: cancelled in an Aborted, it leaves the units that are left to the next Terminate.
// A worker thread is not aborted: it would stay counted, and Destroy would wait for it for ever.

#ifndef KELVARA_INCLUDE_ZOWRKQUE_H_
#define KELVARA_INCLUDE_ZOWRKQUE_H_

#include <atomic>

#include "zothread.h"
#include "zotypes.h"

class Condition;
class ZoWorkQueue;
class ZoWorkQueueImpl;

// One open calculation; see ZoConcurrencyHelper, which makes and deletes it.
class ZO_API ZoResult {
public:
    Condition* condition;  // named "ConcurrencyHelper"; owned; set when the result is stored
    int result;            // ZoNoResult until one is stored
    // 1 once a unit that carries this object was queued for a worker. Written under the queue's
    // lock, also by a worker that passes on a part of the calculation, while the waiting thread
    // may already read it.
    std::atomic<unsigned short> parallel;
};

// A unit of work, to derive from. The queue does not own it and does not touch it any more once it
// has called Handle or Aborted, which may delete it.
class ZO_API ZoWorkUnit {
public:
    // `result`: what the unit stores its result in, usually GetResultObject of the thread that will
    // wait for it; null when nobody does. Not owned.
    constexpr explicit ZoWorkUnit(ZoResult* result = nullptr) : resultObject(result) {}
    ZoWorkUnit(ZoWorkUnit const&) = delete;
    ZoWorkUnit& operator=(ZoWorkUnit const&) = delete;
    virtual ~ZoWorkUnit();

    // Does the work; `queue` is the one the unit was appended to.
    virtual void Handle(ZoWorkQueue* queue) = 0;
    // Instead of Handle, when the queue was terminated while the unit was waiting. A unit of a
    // calculation stores a result here too: the calculating thread waits for one.
    virtual void Aborted(ZoWorkQueue* queue) = 0;

    // The queue, when it queues the unit for a worker: sets the parallel flag of its result object.
    void HandledParallel();

protected:
    ZoResult* resultObject;  // as given; not owned
};

class ZO_API ZoWorkQueue {
public:
    // A queue with `threadCount` workers, all counted when this returns; zero or less makes one
    // without workers. `context` is kept for the caller. Owned by the caller, who ends it with
    // Destroy. Null when memory ran out. A worker that cannot be started is not reported, other
    // than by ThreadCount and the system log.
    static ZoWorkQueue* Create(int threadCount, void* context);

    ZoWorkQueue() = default;
    ZoWorkQueue(ZoWorkQueue const&) = delete;
    ZoWorkQueue& operator=(ZoWorkQueue const&) = delete;
    // Terminates the queue without calling Aborted on what is waiting, and waits as Destroy does.
    virtual ~ZoWorkQueue();

    // Terminates the queue, waits until every worker has handled what it is handling and is gone,
    // and deletes the queue. By one thread, when no other but the workers uses the queue any more;
    // not by a worker of the queue. A cancellation of the caller is put off until it is done.
    virtual void Destroy() = 0;
    // `unit` is not null and in no queue. Returns as in the table above.
    virtual int Append(ZoWorkUnit* unit) = 0;
    // The number of units that no worker has taken yet, requests to decrease included; ZoRefused
    // when the queue is terminated.
    virtual int Length() = 0;
    // Ends the work: calls Aborted on what is waiting, in the order of appending, on this thread.
    // Workers end after the unit they are handling; nobody waits for that. Returns 0.
    virtual int Terminate() = 0;
    // Adds a worker, counted when this returns. One that cannot be started is deleted, since nobody
    // else knows it, and not reported. Returns the value of the queue's condition, which tells
    // nothing. On a terminated queue the worker ends at once.
    virtual int IncreaseThreadCount() = 0;
    // Lets the first worker end that has come to the end of what is waiting now. Returns as Append.
    // Does nothing on a queue without workers.
    virtual int DecreaseThreadCount() = 0;
    // The number of workers at this moment.
    virtual int ThreadCount() = 0;
    virtual void* Context() = 0;
};

// A worker of a queue, made and started by the queue and deleted by itself.
class ZO_API ZoQueueWorker : public ZoThread {
public:
    // Not started.
    explicit ZoQueueWorker(ZoWorkQueueImpl* queue);
    ~ZoQueueWorker() override;

    // Handles units until the queue is terminated or the worker is one too many; returns 0.
    int Work(void* ignored) override;

private:
    ZoWorkQueueImpl* queue;
};

// A calculation that a thread hands to a queue and whose result it collects later.
//
//     calculation of a thread    opened by                closed by
//     none                       CalculateConcurrently    -
//     open                       -                        CalculateResult, once a result is stored
//
// Each thread has at most one open. SetResult is called once for a calculation, by the thread that
// finishes it, on any thread: CalculateResult may delete the result object as soon as a result is
// stored, so of several units that share it only the last one to finish stores a result. All others
// are called by the thread that calculates.
class ZO_API ZoConcurrencyHelper {
public:
    // Opens a calculation. One that is open already is reported as the assertion "res == 0" and
    // replaced, not closed: its result object stays with the units that carry it, and nobody
    // deletes it. When memory ran out nothing is opened or replaced; IsConcurrent tells.
    static void CalculateConcurrently();
    // 1 while a calculation is open, else 0.
    static int IsConcurrent();
    // The open calculation, for the units to carry; null when there is none.
    static ZoResult* GetResultObject();
    // Stores the result of a calculation; a null `result` is ignored.
    static void SetResult(ZoResult* result, int value);
    // Closes the calculation and returns its result. Waits for it, without limit, if a worker got
    // the work. Returns `value` when the result is 0 or no calculation is open, and ZoNoResult when
    // none was stored. A thread that is cancelled in the wait leaves the result object, which the
    // work still needs, to nobody.
    static int CalculateResult(int value);
};

#endif  // KELVARA_INCLUDE_ZOWRKQUE_H_
