// Whether the process is ending, so that the library calls exit() only when no other thread does.
//
// Two threads in exit() at once may crash, and a signal that comes while the process ends changes
// nothing. exit() begins with the destructors of the calling thread's thread_local objects, and so
// does the end of a thread; but only the latter goes on to the destructors of the thread's keys. So
// a watched thread is `leaving` from the one to the other: as long as one is, it may be in exit(),
// and signals are deferred. If it is not in exit(), the end of that state delivers them; if it is,
// that state never ends.
//
//     calling thread               leaving from
//     watched                      the destructor of an object that WatchCallingThread makes: after
//                                  those of younger thread_local objects, before every function of
//                                  atexit()
//     any other, in exit()         the function that WatchExit registers
//
// The thread that loads the library is watched. A watched thread keeps the library loaded.

#ifndef KELVARA_SRC_PROCESS_END_H_
#define KELVARA_SRC_PROCESS_END_H_

#include "mutex.h"

class ProcessEnd {
public:
    // Cheap after the first time. Without memory, or a key, the thread is not watched.
    static void WatchCallingThread();
    // Once in a process.
    static void WatchExit();

    // The following two: with SIGQUIT and SIGINT blocked.
    // Whether the process is ending, or may be. A signal has to wait then: LowLevelHandler gets it
    // when it turns out that the process goes on.
    static bool PutsOff(int signal);
    // Whether the calling thread is to call exit(0); else the signal has to wait, as above. The
    // main thread, should it call exit() itself from now on, sleeps until that exit is done, unless
    // the system serialises exit() itself. Other threads do not, for functions of atexit() may wait
    // for their end.
    static bool MayExit(int signal);

    // In a child, with the lock held.
    static void ForgetAbsentThreads();

    // Guards what is known of the end. Taken with SIGQUIT and SIGINT blocked, held for a few
    // instructions, and over a fork.
    static Mutex lock;
};

#endif  // KELVARA_SRC_PROCESS_END_H_
