#include "zosyncob.h"

#include <atomic>

#include "chain.h"
#include "checkers.h"

ZoSynchroObj* FirstSynchro = nullptr;
ZoCritSect* fscs = nullptr;
// Chaining is off at load, so the static objects of the library are never chained.
int suppress_chaining = 1;
unsigned short _zoext_mt_mode = 1;

[[maybe_unused]] static int const isMarked = checkers::AreAtomic(_zoext_mt_mode);

ZoSynchroObj::ZoSynchroObj(char const* name) : name(name), next(nullptr), prev(nullptr) {
    if (suppress_chaining == 0) HandleChaining(this, 1);
}

ZoSynchroObj::~ZoSynchroObj() {
    LeaveChain(this);
}

void ZoSynchroObj::ForceRelease() {}

void HandleChaining(ZoSynchroObj* object, int insert) {
    SectionHold const hold(fscs);
    if (insert != 0) {
        object->prev = nullptr;
        object->next = FirstSynchro;
        if (FirstSynchro != nullptr) FirstSynchro->prev = object;
        FirstSynchro = object;
    } else {
        if (object->prev != nullptr) object->prev->next = object->next;
        if (object->next != nullptr) object->next->prev = object->prev;
        if (FirstSynchro == object) FirstSynchro = object->next;
        object->prev = nullptr;
        object->next = nullptr;
    }
}

void ForgetChain() {
    ZoSynchroObj* object = FirstSynchro;
    while (object != nullptr) {
        ZoSynchroObj* const older = object->next;
        object->next = nullptr;
        object->prev = nullptr;
        object = older;
    }
}

void ReleaseAllSynchronizationObjects() {
    SectionHold const hold(fscs);
    for (ZoSynchroObj* object = FirstSynchro; object != nullptr; object = object->next) {
        object->ForceRelease();
    }
}

// The mode is a plain exported word; these accesses keep two threads' use of it free of a race.
void ZoSetThreadingMode(unsigned short mode) {
    std::atomic_ref<unsigned short>(_zoext_mt_mode).store(mode, std::memory_order_relaxed);
}

unsigned short ZoGetThreadingMode() {
    return std::atomic_ref<unsigned short>(_zoext_mt_mode).load(std::memory_order_relaxed);
}

int ZoIsSingleThreaded() {
    return ZoGetThreadingMode() == 0 ? 1 : 0;
}
