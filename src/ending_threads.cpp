#include "ending_threads.h"

#include <pthread.h>

#include "cancellation.h"
#include "current_thread.h"
#include "thread_life.h"

namespace {

// How many threads have entered, and the lock that guards the number.
pthread_mutex_t endingLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t nobodyEnding = PTHREAD_COND_INITIALIZER;
int endingThreads = 0;

// Whether the calling thread has entered.
constinit thread_local bool isEnding = false;

}  // namespace

// Only a thread whose end the key's destructor sees may enter: it has a record, and ends.
void EndingThreads::Enter() {
    if (ThreadLife::current == nullptr || currentRecord == nullptr) return;
    isEnding = true;
    pthread_mutex_lock(&endingLock);
    ++endingThreads;
    pthread_mutex_unlock(&endingLock);
}

void EndingThreads::Leave() {
    if (!isEnding) return;
    isEnding = false;
    pthread_mutex_lock(&endingLock);
    if (--endingThreads == 0) pthread_cond_broadcast(&nobodyEnding);
    pthread_mutex_unlock(&endingLock);
}

void EndingThreads::WaitForNone() {
    CancellationDeferred deferred;  // the lock is not left to a cancelled thread
    pthread_mutex_lock(&endingLock);
    while (endingThreads != 0) pthread_cond_wait(&nobodyEnding, &endingLock);
    pthread_mutex_unlock(&endingLock);
}

void EndingThreads::Lock() {
    pthread_mutex_lock(&endingLock);
}

void EndingThreads::Unlock() {
    pthread_mutex_unlock(&endingLock);
}

// A waiter of the parent is absent too, so the condition is made anew.
void EndingThreads::ForgetAbsentThreads() {
    endingThreads = isEnding ? 1 : 0;
    pthread_cond_init(&nobodyEnding, nullptr);
}
