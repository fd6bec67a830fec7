// Deferring the cancellation of the calling thread.

#ifndef KELVARA_SRC_CANCELLATION_H_
#define KELVARA_SRC_CANCELLATION_H_

#include <pthread.h>

// Defers it for a scope. For steps that pass cancellation points while a section is held (a thread
// that is cancelled there would never release it), that must not end half-way, or that run in a
// destructor, through which a cancellation cannot unwind.
class CancellationDeferred {
public:
    CancellationDeferred() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous); }
    CancellationDeferred(CancellationDeferred const&) = delete;
    CancellationDeferred& operator=(CancellationDeferred const&) = delete;
    ~CancellationDeferred() { pthread_setcancelstate(previous, nullptr); }

private:
    int previous = PTHREAD_CANCEL_ENABLE;
};

#endif  // KELVARA_SRC_CANCELLATION_H_
