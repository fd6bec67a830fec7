// A stretch of code that neither cancellation nor the caller's errno notices.
//
//     Undisturbed const undisturbed;
//     …  // opens, reads, writes
//
// The services are called with locks held and from error paths: a thread that is cancelled in there
// would leave the locks behind, and a changed errno would hide the caller's.

#ifndef KELVARA_BASE_ZOUNDISTURBED_H_
#define KELVARA_BASE_ZOUNDISTURBED_H_

#include <errno.h>
#include <pthread.h>

class Undisturbed {
public:
    Undisturbed() : savedErrno(errno) {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    }
    Undisturbed(Undisturbed const&) = delete;
    Undisturbed& operator=(Undisturbed const&) = delete;
    // A thread with asynchronous cancellation is unwound from in here.
    ~Undisturbed() noexcept(false) {
        errno = savedErrno;
        pthread_setcancelstate(cancelState, nullptr);
    }

private:
    int const savedErrno;
    int cancelState = PTHREAD_CANCEL_ENABLE;
};

#endif  // KELVARA_BASE_ZOUNDISTURBED_H_
