// The signals that the abortion handlers are asked about.

#ifndef KELVARA_SRC_ABORT_SIGNALS_H_
#define KELVARA_SRC_ABORT_SIGNALS_H_

#include <pthread.h>

#include <csignal>

// Keeps the two signals from the calling thread; returns what it had blocked before.
inline sigset_t BlockAbortSignals() {
    sigset_t signals;
    sigset_t previous;
    sigemptyset(&signals);
    sigaddset(&signals, SIGQUIT);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, &previous);
    return previous;
}

// Keeps them away for a scope. Where the signal handler asks the handlers itself it needs the locks
// that they need, so it must not interrupt their holder.
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
