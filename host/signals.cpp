#include "signals.h"

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <new>

#include "progress.h"
#include "zoabort.h"

namespace {

std::atomic<bool> interrupted{false};
std::atomic<bool> statusRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "signal handlers set them");

// Keeps count of what keeps the process from ending.
class Gate {
public:
    // Never destroyed: a process that ends at once still has threads that wait here.
    static Gate& Get() {
        static Gate& gate = *new Gate;
        return gate;
    }

    void BeginTransaction() {
        std::unique_lock<std::mutex> hold(mutex);
        opened.wait(hold, [this] { return !closed; });
        ++transactions;
    }

    void EndTransaction() {
        std::lock_guard<std::mutex> hold(mutex);
        --transactions;
    }

    void SetClientsAtWork(bool atWork) {
        std::unique_lock<std::mutex> hold(mutex);
        opened.wait(hold, [this] { return !closed; });
        clientsAtWork = atWork;
    }

    // Null, and nothing begins any more, when nothing stands in the way; else what does.
    char const* Close() {
        std::unique_lock<std::mutex> end(ending);
        std::lock_guard<std::mutex> hold(mutex);
        if (transactions > 0) return "a transaction is open";
        if (!clientsAtWork) return "the database is being set up or checked";
        closed = true;
        end.release();  // held for good
        return nullptr;
    }

    std::mutex ending;  // taken before `mutex`; while it is held, an agreed end is delayed

private:
    std::mutex mutex;                // guards the rest
    std::condition_variable opened;  // never signalled: a waiter waits for the end of the process
    unsigned transactions = 0;
    bool clientsAtWork = false;
    bool closed = false;
};

// On a thread of the library's, so it may wait for the gate's lock and print.
int RefuseUnlessIdle(void*) {
    char const* const obstacle = Gate::Get().Close();
    EraseProgressBar();
    if (obstacle == nullptr) {
        std::fprintf(stderr, "zohost: interrupted; no transaction is open\n");
        return 0;
    }
    std::fprintf(stderr, "zohost: not interrupted, because %s; the run ends after this pass\n",
                 obstacle);
    interrupted.store(true, std::memory_order_relaxed);
    return 1;
}

}  // namespace

void HandleRequests() {
    struct sigaction action = {};
    action.sa_handler = [](int) { statusRequested.store(true, std::memory_order_relaxed); };
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = [](int) { interrupted.store(true, std::memory_order_relaxed); };
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    sigaction(SIGTERM, &action, nullptr);
}

void HandleInterrupts() {
    // Never removed: without handlers the library would end the process unasked.
    if (ZoAddAbortionHandler(RefuseUnlessIdle, nullptr) != 0) throw std::bad_alloc();
}

bool TakeStatusRequest() {
    return statusRequested.exchange(false, std::memory_order_relaxed);
}

bool WasInterrupted() {
    return interrupted.load(std::memory_order_relaxed);
}

OpenTransaction::OpenTransaction() {
    Gate::Get().BeginTransaction();
}

OpenTransaction::~OpenTransaction() {
    Gate::Get().EndTransaction();
}

EndDelay::EndDelay() {
    Gate::Get().ending.lock();
}

EndDelay::~EndDelay() {
    Gate::Get().ending.unlock();
}

ClientsAtWork::ClientsAtWork() {
    Gate::Get().SetClientsAtWork(true);
}

ClientsAtWork::~ClientsAtWork() {
    Gate::Get().SetClientsAtWork(false);
}
