#include "at_fork.h"

#include <pthread.h>

#include "abort_handlers.h"
#include "console_sink.h"
#include "current_thread.h"
#include "ending_threads.h"
#include "process_end.h"
#include "read_marks.h"
#include "thread_life.h"
#include "wait_graph.h"

std::atomic<ZoUInt32> forkGeneration{0};

namespace {

// In the order of docs/locking.md. Only here does a thread hold several locks of the last line. No
// lock is taken under one of those, so their order among themselves is free.
void BeforeFork() ZO_NOT_ANALYSED {
    AbortionAtFork::Begin();
    do {
        AbortionAtFork::Enter();
    } while (!AbortionAtFork::Lock());
    ProcessEnd::lock.lock();
    LockConsole();
    LockRecordKey();
    EndingThreads::Lock();
    ReadMarks::Lock();
}

void AfterFork() ZO_NOT_ANALYSED {
    ReadMarks::Unlock();
    EndingThreads::Unlock();
    UnlockRecordKey();
    UnlockConsole();
    ProcessEnd::lock.unlock();
    AbortionAtFork::Unlock();
    AbortionAtFork::Leave();
}

void AfterForkInChild() {
    forkGeneration.fetch_add(1, std::memory_order_relaxed);
    WaitForGraph::ForgetAbsentThreads();
    ThreadLife::ForgetAbsentThreads();
    EndingThreads::ForgetAbsentThreads();
    ReadMarks::ForgetAbsentThreads();
    ProcessEnd::ForgetAbsentThreads();
    AbortionAtFork::ForgetAbsentThreads();
    AfterFork();
}

// When the library is loaded: later, a child could be forked while another thread registers them.
int const registrationError = pthread_atfork(BeforeFork, AfterFork, AfterForkInChild);

}  // namespace

int ForkHandlersError() {
    return registrationError;
}
