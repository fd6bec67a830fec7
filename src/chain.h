// The chain of synchronisation objects, as the constructors and destructors of the library see it.

#ifndef KELVARA_SRC_CHAIN_H_
#define KELVARA_SRC_CHAIN_H_

#include "section_hold.h"
#include "zosyncob.h"

// Links `object` in at the head of the chain (insert non-zero) or takes it out (insert 0), under
// fscs. Taking out an object that is not chained changes nothing.
void HandleChaining(ZoSynchroObj* object, int insert);

// Takes `section` out of the chain, and with a detecting section the one it wraps: for a lock that
// is in the chain itself and releases its inner section as part of its own release. That lock also
// tells of its own destruction while it is in use, so the section does not.
void UnchainSection(ZoCritSect* section);
// Lets `whole` be told where a thread waits for the section, its part.
void SetWhole(ZoCritSect* part, ZoSynchroObj const* whole);

// Cuts every link of the chain. Objects that outlive the library context may be destroyed under the
// next one, which would follow their links to neighbours that are gone by then.
void ForgetChain() ZO_REQUIRES(fscs);

// Takes `object` out if chaining is on: the first act of every destructor that has something to
// destroy, so that no walk of the chain meets a half-destroyed object.
inline void LeaveChain(ZoSynchroObj* object) {
    if (suppress_chaining == 0) HandleChaining(object, 0);
}

// Holds the chain's lock while an object is constructed.
//
// An object joins the chain in its base constructor, when its derived part does not exist yet. Each
// constructor therefore delegates to a private one that takes a ChainLock, made in the delegating
// call: it lives until the delegated constructor is done, so a walk of the chain by another thread
// waits and meets only complete objects. The lock is recursive, so the bases nest.
class ChainLock {
    SectionHold const hold{suppress_chaining == 0 ? fscs : nullptr};
};

#endif  // KELVARA_SRC_CHAIN_H_
