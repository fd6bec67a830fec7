#include "ending_threads.h"

#include <pthread.h>

#include "cancellation.h"
#include "current_thread.h"
#include "mutex.h"
#include "thread_life.h"

namespace {

constinit Mutex endingLock;
pthread_cond_t nobodyEnding = PTHREAD_COND_INITIALIZER;
int endingThreads ZO_GUARDED_BY(endingLock) = 0;  // how many threads have entered

// Whether the calling thread has entered.
constinit thread_local bool isEnding = false;

}  // namespace

// Only a thread whose end calls the key's destructor may enter: it has a record, and ends.
void EndingThreads::Enter() {
    if (ThreadLife::current == nullptr || currentRecord == nullptr) return;
    isEnding = true;
    MutexHold const hold(endingLock);
    ++endingThreads;
}

void EndingThreads::Leave() {
    if (!isEnding) return;
    isEnding = false;
    MutexHold const hold(endingLock);
    if (--endingThreads == 0) pthread_cond_broadcast(&nobodyEnding);
}

void EndingThreads::WaitForNone() {
    CancellationDeferred deferred;  // a cancelled thread would keep the lock
    MutexHold const hold(endingLock);
    while (endingThreads != 0) {
        pthread_cond_wait(&nobodyEnding, endingLock.Plain().native_handle());
    }
}

void EndingThreads::Lock() ZO_NOT_ANALYSED {
    endingLock.lock();
}

void EndingThreads::Unlock() ZO_NOT_ANALYSED {
    endingLock.unlock();
}

// A waiter of the parent is absent too, so the condition is made anew.
void EndingThreads::ForgetAbsentThreads() ZO_NOT_ANALYSED {
    endingThreads = isEnding ? 1 : 0;
    pthread_cond_init(&nobodyEnding, nullptr);
}
