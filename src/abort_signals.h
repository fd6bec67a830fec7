// The signals that the abortion handlers are asked about.

#ifndef KELVARA_SRC_ABORT_SIGNALS_H_
#define KELVARA_SRC_ABORT_SIGNALS_H_

#include <pthread.h>

#include <csignal>

// Blocks the two signals on the calling thread; returns its former signal mask.
inline sigset_t BlockAbortSignals() {
    sigset_t signals;
    sigset_t previous;
    sigemptyset(&signals);
    sigaddset(&signals, SIGQUIT);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, &previous);
    return previous;
}

// Blocks them for a scope. A signal handler that asks the handlers itself takes the same locks as
// they do, so it must not interrupt a thread that holds one.
class SignalsBlocked {
public:
    SignalsBlocked() : previous(BlockAbortSignals()) {}
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

private:
    sigset_t const previous;
};

#endif  // KELVARA_SRC_ABORT_SIGNALS_H_
