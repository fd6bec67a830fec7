// The abortion handlers' inner workings, for the tests.

#ifndef KELVARA_SRC_ABORT_HANDLERS_H_
#define KELVARA_SRC_ABORT_HANDLERS_H_

// 0 takes a reference to the facility, setting it up if there is none; any other value releases
// one. Returns the number of references then; 0 when there is no facility.
int AbortHandlerInitialization(int release);
// Asks the handlers; the first nonzero answer, or 0.
int LowLevelAbortionHandler();
// The signal handler of SIGQUIT and SIGINT.
void LowLevelHandler(int);

#endif  // KELVARA_SRC_ABORT_HANDLERS_H_
