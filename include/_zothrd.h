// The library context: one call makes the library's process-wide objects, one call destroys them.
//
//     *ZoGetDeadLockDetectionEnabled() = 1;    // if wanted, before set-up
//     ___ZoExtendedContext(1);
//     …                                        // any thread uses the library
//     ___ZoExtendedContext(0);                 // every thread has stopped using it
//
// Set-up makes, in this order:
//
//     object                               reached through
//     the section "CS chain"               fscs
//     the section "DeadLockDetectionCS"    csDLD, ZoGetCritSectCritSect()
//     the record that belongs to no thread __defTLS; non-null marks that the context is set up
//     the console                          GetConsole()
//     the debug switches                   GetDebugger()
//     - from here on synchronisation objects are chained -
//     the interlocked operations           GetZoInterlocked()
//     the event dispatcher                 ZoEventMessageDispatcher::GetDispatcher()
//
// and clears the host's semaphore (ZoQaSemaphore). Tear-down destroys them in the reverse order,
// each through its virtual destructor, whatever object the pointer holds by then, and leaves every
// pointer as at load, so the two may follow each other again and again. It does not touch the
// host's semaphore.

#ifndef KELVARA_INCLUDE__ZOTHRD_H_
#define KELVARA_INCLUDE__ZOTHRD_H_

#include "zotypes.h"

// Non-zero sets up, 0 tears down; does nothing when that is already so. Called by one thread while
// no other uses the library. Reports no failure: what could not be made stays null.
ZO_API void ___ZoExtendedContext(int setUp);

#endif  // KELVARA_INCLUDE__ZOTHRD_H_
