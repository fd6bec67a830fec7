// A base for objects that are destroyed through a base pointer.

#ifndef KELVARA_INCLUDE_ZOTHREAD_H_
#define KELVARA_INCLUDE_ZOTHREAD_H_

#include "zotypes.h"

// Nothing but a virtual destructor.
class ZO_API ZoExtendedBase {
public:
    ZoExtendedBase() = default;
    ZoExtendedBase(ZoExtendedBase const&) = delete;
    ZoExtendedBase& operator=(ZoExtendedBase const&) = delete;
    virtual ~ZoExtendedBase();
};

#endif  // KELVARA_INCLUDE_ZOTHREAD_H_
