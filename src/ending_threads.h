// Threads that are about to end, for which the tear-down of the library context waits.

#ifndef KELVARA_SRC_ENDING_THREADS_H_
#define KELVARA_SRC_ENDING_THREADS_H_

// Threads that are believed to be gone but still release their per-thread record, which needs the
// library context. The tear-down of the context waits for them: it may begin as soon as a watcher
// is at zero or a queue destroyed.
class EndingThreads {
public:
    // By a system thread, before it tells others that it is gone.
    static void Enter();
    // By the key's destructor, once the record is released; also where the thread has not entered.
    static void Leave();
    static void WaitForNone();

    // Hold the lock over a fork.
    static void Lock();
    static void Unlock();
    // In a child, with the lock held: only the thread that forked may still be counted.
    static void ForgetAbsentThreads();
};

#endif  // KELVARA_SRC_ENDING_THREADS_H_
