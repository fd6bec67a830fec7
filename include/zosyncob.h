// Synchronisation objects: the common base of critical sections, conditions and reader/writer
// mutexes, the chain of all that are alive, and the process-wide threading mode.
//
//     ZoSetThreadingMode(1);
//     …
//     ReleaseAllSynchronizationObjects();   // this thread gives up every lock it still holds
//
// While the library context is set up (_zothrd.h), every new synchronisation object stands in one
// chain, newest first. Objects made before that, or after tear-down, are never chained. The chain
// owns nothing: an object links itself when it is constructed and unlinks itself when it is
// destroyed.
//
// Who may call: anything here, any thread. Making or destroying an object, and the walk of
// ReleaseAllSynchronizationObjects, hold the section "CS chain" (`fscs`). A ForceRelease override
// is called with that section held, so it must not make or destroy synchronisation objects, nor
// enter a section that another thread may hold.
//
// A class of the host that derives from ZoSynchroObj directly, and overrides ForceRelease, joins
// the chain before it is complete. Where other threads may walk the chain, hold `fscs` around its
// construction and its destruction (fscs->Begin(), fscs->Exit()). The library's own classes do that
// themselves.

#ifndef KELVARA_INCLUDE_ZOSYNCOB_H_
#define KELVARA_INCLUDE_ZOSYNCOB_H_

#include "zotypes.h"

class ZoCritSect;
class ZoSynchroObj;

// The chain. Set-up makes `fscs` and clears `suppress_chaining`; tear-down undoes both. Objects
// that are still chained at tear-down are forgotten, not destroyed: their later destruction leaves
// the chain alone, and the next set-up starts with an empty one.
extern ZO_API ZoCritSect* fscs;                                // null while there is no context
extern ZO_API ZoSynchroObj* FirstSynchro ZO_GUARDED_BY(fscs);  // newest object
extern ZO_API int suppress_chaining;  // non-zero: objects leave the chain alone

// 0 means single-threaded; read and set through the functions below.
extern ZO_API unsigned short _zoext_mt_mode;

// Makes the calling thread give up every chained lock it holds, whatever its depth; what other
// threads hold is untouched. Call it only while the library context is set up. Never fails.
extern "C" ZO_API void ReleaseAllSynchronizationObjects();

class ZO_API ZoSynchroObj {
public:
    // Keeps the pointer `name`, not a copy: the text must outlive the object.
    explicit ZoSynchroObj(char const* name);
    ZoSynchroObj(ZoSynchroObj const&) = delete;
    ZoSynchroObj& operator=(ZoSynchroObj const&) = delete;
    virtual ~ZoSynchroObj();

    // Gives up whatever the calling thread holds of this object; here, and in conditions, nothing.
    virtual void ForceRelease();

    // As given.
    char const* GetName() const { return name; }

private:
    friend class Contention;
    friend void ForgetChain();
    friend class OwnedSections;
    friend void HandleChaining(ZoSynchroObj* object, int insert);
    friend void ReleaseAllSynchronizationObjects();

    char const* name;
    ZoSynchroObj* next ZO_GUARDED_BY(fscs);  // towards older objects
    ZoSynchroObj* prev ZO_GUARDED_BY(fscs);  // towards FirstSynchro
};

// The threading mode is kept for the host; nothing in the library depends on it. 1 at load.
ZO_API void ZoSetThreadingMode(unsigned short mode);
ZO_API unsigned short ZoGetThreadingMode();
// 1 when the mode is 0, else 0.
ZO_API int ZoIsSingleThreaded();

#endif  // KELVARA_INCLUDE_ZOSYNCOB_H_
