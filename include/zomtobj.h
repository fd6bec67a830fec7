// Multi-threaded objects: an object that carries its own critical section, and a guard that holds
// it for a scope.
//
//     class Account : public ZoMTObj { … };
//     void Account::Deposit(long amount) {
//         ZoAutoSync hold(this);        // entered here, left at the end of the scope
//         balance += amount;
//     }
//
// The section is made by the first begin, with the name "?", and destroyed with the object. It is a
// critical section like any other (zocrits.h): recursive, and deadlock-detecting when detection was
// switched on at that moment.
//
// Who may call: any thread, anything; ends match begins on the same thread. Several threads may
// make the first begin at the same moment: one section results. The object outlives every guard
// made on it and is destroyed when no thread holds or waits for its section.

#ifndef KELVARA_INCLUDE_ZOMTOBJ_H_
#define KELVARA_INCLUDE_ZOMTOBJ_H_

#include <atomic>

#include "zotypes.h"

class ZoCritSect;
class ZoTransactionResource;  // the host's

class ZO_API ZO_CAPABILITY("multi-threaded object") ZO_REENTRANT ZoMTObj {
public:
    ZoMTObj();
    ZoMTObj(ZoMTObj const&) = delete;
    ZoMTObj& operator=(ZoMTObj const&) = delete;
    virtual ~ZoMTObj();

    // Enters. When no section can be made: reports "(this->myCS != 0)" and returns without.
    void BeginLongCriticalSection() ZO_ACQUIRE();
    // Enters. When no section can be made: reports "(this->myCS != 0)" and tries again until it
    // can.
    void BeginCriticalSection() ZO_ACQUIRE();
    // Leaves once; only after a begin.
    void EndCriticalSection() ZO_RELEASE();

private:
    friend class ZoAutoSync;

    ZO_INTERNAL ZoCritSect* InstallSection(ZoCritSect* made);

    // Null until the first begin. Set once, by compare-and-exchange; owned.
    std::atomic<ZoCritSect*> myCS{nullptr};
};

// Holds an object's section for a scope.
class ZO_API ZO_SCOPED_CAPABILITY ZoAutoSync {
public:
    // BeginCriticalSection; the end of the scope is EndCriticalSection.
    explicit ZoAutoSync(ZoMTObj* object) ZO_ACQUIRE(object);
    ZoAutoSync(ZoAutoSync const&) = delete;
    ZoAutoSync& operator=(ZoAutoSync const&) = delete;
    virtual ~ZoAutoSync() ZO_RELEASE();

private:
    ZoMTObj* object;  // not owned
};

// An object that can name itself; it is never a transaction resource.
class ZO_API ZoTransactionContext : public ZoMTObj {
public:
    virtual void* GetID();                                        // the object's own address
    virtual ZoTransactionResource* cast2ZoTransactionResource();  // always null
};

#endif  // KELVARA_INCLUDE_ZOMTOBJ_H_
