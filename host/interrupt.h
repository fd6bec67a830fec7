// Ending a run early and in order: SIGINT (Ctrl-C) and SIGTERM let the clients finish the pass they
// are in, so that the result can still be checked and nothing temporary is left. A second signal of
// the same kind ends the program at once.

#ifndef KELVARA_HOST_INTERRUPT_H_
#define KELVARA_HOST_INTERRUPT_H_

void HeedInterrupts();
bool WasInterrupted();

#endif  // KELVARA_HOST_INTERRUPT_H_
