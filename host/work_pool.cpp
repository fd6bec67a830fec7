#include "work_pool.h"

#include <algorithm>
#include <exception>
#include <new>

namespace {

// Stored as the result of work that threw.
constexpr int Failed = -1;

class Piece final : public ZoWorkUnit {
public:
    explicit Piece(std::function<int()> const& work)
        : ZoWorkUnit(ZoConcurrencyHelper::GetResultObject()), work(work) {}

    void Handle(ZoWorkQueue*) override {
        int value = Failed;
        try {
            value = work();
        } catch (...) {
            failure = std::current_exception();
        }
        // The last step: the thread that waits for the result owns this object.
        ZoConcurrencyHelper::SetResult(resultObject, value);
    }

    // Never: the queue is terminated when nobody waits for work any more.
    void Aborted(ZoWorkQueue*) override { ZoConcurrencyHelper::SetResult(resultObject, Failed); }

    std::exception_ptr const& Failure() const { return failure; }

private:
    std::function<int()> const& work;
    std::exception_ptr failure;
};

}  // namespace

WorkPool::WorkPool(unsigned workers)
    : queue(ZoWorkQueue::Create(static_cast<int>(workers), nullptr)) {
    if (queue == nullptr) throw std::bad_alloc();
    most = Workers();
}

int WorkPool::Run(std::function<int()> const& work) {
    ZoConcurrencyHelper::CalculateConcurrently();
    if (ZoConcurrencyHelper::IsConcurrent() == 0) throw std::bad_alloc();
    Piece piece(work);
    if (queue->Append(&piece) != ZoSuccess) piece.Handle(queue.get());  // out of memory
    int const value = ZoConcurrencyHelper::CalculateResult(0);
    if (piece.Failure() != nullptr) std::rethrow_exception(piece.Failure());
    done.fetch_add(1, std::memory_order_relaxed);
    return value;
}

void WorkPool::Grow(unsigned workers) {
    for (unsigned i = 0; i < workers; ++i) queue->IncreaseThreadCount();
    most = std::max(MostWorkers(), Workers());
}

void WorkPool::Shrink(unsigned workers) {
    for (unsigned i = 0; i < workers; ++i) queue->DecreaseThreadCount();
}
