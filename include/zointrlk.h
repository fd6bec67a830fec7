// Interlocked operations: atomic changes of 32-bit words and of pointers, behind a virtual
// interface that a host can implement in its own way.
//
//     static ZoInt32 users = 0;
//     if (GetZoInterlocked()->Increment(&users) == 1) …    // the first one
//
// Every operation is one atomic step towards all others on the same variable, through whichever
// object; they are sequentially consistent. Overflow wraps: 2147483647 + 1 is -2147483648. A
// variable that several threads use is read and written through these operations only, and is
// aligned as its type is.
//
// Who may call: any thread, anything, at any time the object lives. Nothing here blocks or fails.

#ifndef KELVARA_INCLUDE_ZOINTRLK_H_
#define KELVARA_INCLUDE_ZOINTRLK_H_

#include "zotypes.h"

class ZoCritSect;

class ZO_API ZoInterlocked {
public:
    // A new GenericInterlocked, owned by the caller; null when memory ran out.
    static ZoInterlocked* Make();

    ZoInterlocked();
    ZoInterlocked(ZoInterlocked const&) = delete;
    ZoInterlocked& operator=(ZoInterlocked const&) = delete;
    virtual ~ZoInterlocked();

    // These two return the new value …
    virtual long Increment(ZoInt32* target) = 0;
    virtual long Decrement(ZoInt32* target) = 0;
    // … and these the old one.
    virtual long Exchange(ZoInt32* target, long value) = 0;
    // Stores `exchange` if the target equals `comparand`.
    virtual void* CompareExchange(void** target, void* exchange, void* comparand) = 0;
    virtual long ExchangeAdd(ZoInt32* target, long value) = 0;
};

// By the processor's atomic instructions: a caller never waits for one that was preempted in the
// middle, and variables do not contend with each other.
class ZO_API GenericInterlocked : public ZoInterlocked {
public:
    GenericInterlocked();
    ~GenericInterlocked() override;

    long Increment(ZoInt32* target) override;
    long Decrement(ZoInt32* target) override;
    long Exchange(ZoInt32* target, long value) override;
    void* CompareExchange(void** target, void* exchange, void* comparand) override;
    long ExchangeAdd(ZoInt32* target, long value) override;

private:
    // The section "Interlocked", owned. Part of the object's layout, and listed with the other
    // synchronisation objects; the operations do without it. May be null.
    ZoCritSect* lock;
};

// The process-wide object; null while the library context is not set up.
extern ZO_API ZoInterlocked* interlockedObject;
ZO_API ZoInterlocked* GetZoInterlocked();

#endif  // KELVARA_INCLUDE_ZOINTRLK_H_
