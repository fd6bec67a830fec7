#include "process_end.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#ifdef __GLIBC__
#include <gnu/libc-version.h>
#endif

#include "abort_handlers.h"
#include "abort_signals.h"
#include "cancellation.h"

constinit Mutex ProcessEnd::lock;

namespace {

struct Signals {
    int interrupts = 0;
    int quits = 0;
    void Add(int signal) { ++(signal == SIGINT ? interrupts : quits); }
};

int leavingThreads ZO_GUARDED_BY(ProcessEnd::lock) = 0;
Signals deferred ZO_GUARDED_BY(ProcessEnd::lock);
bool exitCalled ZO_GUARDED_BY(ProcessEnd::lock) = false;  // by the library, or about to be

constinit thread_local bool isWatched = false;
constinit thread_local bool isLeaving = false;
constinit thread_local bool hasCalledExit = false;  // for the library

[[noreturn]] void SleepForEver() {
    CancellationDeferred noCancellation;
    for (;;) pause();
}

bool IsMainThread() {
    return gettid() == getpid();
}

// Whether exit() admits one thread at a time, as in glibc from 2.41 on. A thread that is in it
// already must then go on, since the library's own exit() waits for it.
bool ExitIsSerialised() {
#ifdef __GLIBC__
    int major = 0;
    int minor = 0;
    return std::sscanf(gnu_get_libc_version(), "%d.%d", &major, &minor) == 2 &&
           (major > 2 || (major == 2 && minor >= 41));
#else
    return false;
#endif
}

void BeginLeaving() {
    SignalsBlocked blocked;
    bool late = false;
    {
        MutexHold const hold(ProcessEnd::lock);
        late = exitCalled && !hasCalledExit && IsMainThread() && !ExitIsSerialised();
        if (!isLeaving) ++leavingThreads;
        isLeaving = true;
    }
    if (late) SleepForEver();
}

// The key's destructor.
void EndLeaving(void*) {
    Signals again;
    {
        SignalsBlocked blocked;
        MutexHold const hold(ProcessEnd::lock);
        if (isLeaving && --leavingThreads == 0) again = std::exchange(deferred, {});
        isLeaving = false;
    }
    for (; again.interrupts > 0; --again.interrupts) LowLevelHandler(SIGINT);
    for (; again.quits > 0; --again.quits) LowLevelHandler(SIGQUIT);
}

struct Watch {
    ~Watch() { BeginLeaving(); }
};

pthread_key_t key;
// When the library is loaded; the loading thread is mostly the main thread.
bool const hasKey = pthread_key_create(&key, EndLeaving) == 0;
[[maybe_unused]] bool const loaderIsWatched = (ProcessEnd::WatchCallingThread(), isWatched);

}  // namespace

void ProcessEnd::WatchCallingThread() {
    if (isWatched || !hasKey || pthread_setspecific(key, &key) != 0) return;
    isWatched = true;
    thread_local Watch watch;
}

void ProcessEnd::WatchExit() {
    static int const registered = std::atexit(BeginLeaving);
    static_cast<void>(registered);
}

bool ProcessEnd::PutsOff(int signal) {
    MutexHold const hold(lock);
    bool const ending = leavingThreads != 0 || exitCalled;
    if (ending) deferred.Add(signal);
    return ending;
}

bool ProcessEnd::MayExit(int signal) {
    MutexHold const hold(lock);
    if (leavingThreads != 0 || exitCalled) {
        deferred.Add(signal);
        return false;
    }
    exitCalled = true;
    hasCalledExit = true;
    return true;
}

void ProcessEnd::ForgetAbsentThreads() ZO_NOT_ANALYSED {
    leavingThreads = isLeaving ? 1 : 0;
    deferred = {};
    exitCalled = hasCalledExit;
}
