// The library, set up for the lifetime of this object, with or without deadlock detection.

#ifndef KELVARA_HOST_LIBRARY_CONTEXT_H_
#define KELVARA_HOST_LIBRARY_CONTEXT_H_

#include "_zothrd.h"
#include "zocrits.h"

class LibraryContext {
public:
    explicit LibraryContext(bool detection) {
        *ZoGetDeadLockDetectionEnabled() = detection ? 1 : 0;
        ___ZoExtendedContext(1);
    }
    LibraryContext(LibraryContext const&) = delete;
    LibraryContext& operator=(LibraryContext const&) = delete;
    ~LibraryContext() { ___ZoExtendedContext(0); }
};

#endif  // KELVARA_HOST_LIBRARY_CONTEXT_H_
