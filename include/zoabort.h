// Abortion handlers: what the host wants to be asked before an interrupt (SIGINT) or a request to
// quit (SIGQUIT) ends the process. Each of them can refuse.
//
//     int KeepWhileSaving(void* store) { return static_cast<Store*>(store)->IsSaving(); }
//     ZoAddAbortionHandler(KeepWhileSaving, &store);
//     …
//     ZoRemoveAbortionHandler(KeepWhileSaving, &store);
//
// When one of the two signals comes, the handlers are called one after the other, in the order of
// registration, until one returns nonzero. The process then goes on as if the signal had not come;
// if none does, it ends with exit(0). Each signal that is delivered is asked about once. Before the
// exit() a line of the system log at level 3 names the signal that ends the process and says that
// no handler objected; not where the handlers run inside the signal handler (below).
//
// Once the process is ending a signal changes nothing: no handler is asked, and the exit() that is
// under way decides the status. The library sees an exit() on the thread that loaded it, and on
// threads that have added or removed a handler, when the thread_local objects that the thread made
// after that are destroyed; on other threads when the functions of atexit() that were registered
// after the first add have run. Until then a signal is asked about, and may end the process with
// status 0. A signal that comes while one of those threads ends is answered when that thread is
// gone, and handlers that had agreed to it may be asked again. The main thread, should it call
// exit() when a signal is ending the process already, sleeps until that is done.
//
// The facility exists while there are references to it: each add takes one, each remove releases
// one.
//
//     references   handlers          SIGINT and SIGQUIT
//     none yet     none              as the host has set them
//     1 or more    those registered  ask the handlers; none registered: end the process
//     none again   none              end the process
//
// So from the first add on both signals are caught for good, even where they were ignored before,
// as an interrupt is in a job that a shell started in the background.
//
// Where handlers run: on a thread of their own, which the first add starts and which lives as long
// as the process. It blocks all signals, and so do the threads that a handler starts, and the
// programs that it starts other than through fork(): a child that it forks takes the two signals,
// and blocks of the others what the thread of the first add did. Where there is no such thread, in
// a forked child or because it could not be started, they run inside the signal handler, on the
// thread that got the signal, at any point of its work; there a handler must do only what is safe
// in a signal handler.
//
// What a handler may do: add and remove handlers, itself included. The handlers behind it see the
// change in the same round; one that the last handler adds is asked from the next signal on. It may
// give up its locks (ReleaseAllSynchronizationObjects) and may end the process itself. It must not
// throw.
//
// Who may call: any thread. Adding, removing and fork() wait while handlers run, those called from
// a handler excepted, so a handler must not wait for a thread that may be doing one of these.
//
// A forked child has the handlers and the references of its parent, whatever other threads were
// doing when it was forked.

#ifndef KELVARA_INCLUDE_ZOABORT_H_
#define KELVARA_INCLUDE_ZOABORT_H_

#include "zotypes.h"

// Registers `handler`, to be called with `argument`, behind those there are. It returns 0 to agree
// to the end of the process and nonzero to keep it alive. The same pair may be registered more than
// once. A null handler is not registered but takes a reference like any other.
//
// Returns 0, or 1 when called from inside a handler; for a null handler the number of references.
// When memory runs out nothing is registered and no reference taken: ZoOutOfMemory, or 0 when the
// facility itself could not be set up.
ZO_API int ZoAddAbortionHandler(int (*handler)(void*), void* argument);

// Removes the first registration of `handler` with `argument`, if there is one, and releases one
// reference in any case. Once it has returned, on a thread that is not inside a handler, that
// registration is not running either. Releasing the last reference drops what is still registered.
//
// Returns the number of references left; 0 also when there was none.
ZO_API int ZoRemoveAbortionHandler(int (*handler)(void*), void* argument);

#endif  // KELVARA_INCLUDE_ZOABORT_H_
