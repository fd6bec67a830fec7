// The internal interface of the abortion handlers, for the tests and for fork().

#ifndef KELVARA_SRC_ABORT_HANDLERS_H_
#define KELVARA_SRC_ABORT_HANDLERS_H_

// 0 takes a reference to the facility and sets it up if there is none; any other value releases a
// reference. Returns the new number of references; 0 when there is no facility.
int AbortHandlerInitialization(int release);
// Asks the handlers; the first nonzero answer, or 0.
int LowLevelAbortionHandler();
// The signal handler of SIGQUIT and SIGINT.
void LowLevelHandler(int);

// The steps of a fork, on the thread that forks.
struct AbortionAtFork {
    // Blocks the signals. Enters the section of the facility whose handler forks, if one does.
    static void Begin();
    // Enters the facility's section, if there is a facility.
    static void Enter();
    // Takes the facility's lock. False, and nothing done, when there was no facility to enter but
    // is one now.
    static bool Lock();
    static void Unlock();
    // Undoes Enter and Begin.
    static void Leave();
    // In the child, before Leave.
    static void ForgetAbsentThreads();
};

#endif  // KELVARA_SRC_ABORT_HANDLERS_H_
