// The library context: one call makes the library's process-wide objects, one call destroys them.
//
//     *ZoGetDeadLockDetectionEnabled() = 1;    // if wanted, before set-up
//     ___ZoExtendedContext(1);
//     …                                        // any thread uses the library
//     ___ZoExtendedContext(0);                 // every thread has stopped using it
//
// Set-up makes, in this order: the section "CS chain" (fscs), the section "DeadLockDetectionCS"
// (csDLD), the record that belongs to no thread (__defTLS), the console (smp_console); and it
// switches the chaining of synchronisation objects on. Tear-down destroys them in the reverse order
// and leaves every pointer as at load, so the two may follow each other again and again.

#ifndef KELVARA_INCLUDE__ZOTHRD_H_
#define KELVARA_INCLUDE__ZOTHRD_H_

#include "zotypes.h"

// Non-zero sets up, 0 tears down; does nothing when that is already so. Called by one thread while
// no other uses the library. Reports no failure: what could not be made stays null.
ZO_API void ___ZoExtendedContext(int setUp);

#endif  // KELVARA_INCLUDE__ZOTHRD_H_
