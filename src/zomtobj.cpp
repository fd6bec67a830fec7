#include "zomtobj.h"

#include "checkers.h"
#include "zobase.h"
#include "zocrits.h"

ZoMTObj::ZoMTObj() = default;

ZoMTObj::~ZoMTObj() {
    delete myCS.exchange(nullptr, std::memory_order_acq_rel);
}

// Of the threads that make the first begin at the same moment one installs its section; the others
// destroy theirs and use that one. Release order publishes the finished section to every thread
// that reads the pointer with acquire order.
ZoCritSect* ZoMTObj::InstallSection(ZoCritSect* made) {
    ZoCritSect* installed = nullptr;
    checkers::ReleaseAndAcquire const order(&myCS);
    if (myCS.compare_exchange_strong(installed, made, std::memory_order_acq_rel,
                                     std::memory_order_acquire)) {
        return made;
    }
    delete made;
    return installed;
}

void ZoMTObj::BeginLongCriticalSection() {
    ZoCritSect* section = myCS.load(std::memory_order_acquire);
    checkers::Acquire(&myCS);
    if (section == nullptr) {
        ZoCritSect* const made = ZoCritSect::Make("?");
        if (made == nullptr) {
            ZOVA_assert("(this->myCS != 0)", "src/zomtobj", 30);
            return;
        }
        section = InstallSection(made);
    }
    section->Begin();
}

void ZoMTObj::BeginCriticalSection() {
    ZoCritSect* section = myCS.load(std::memory_order_acquire);
    checkers::Acquire(&myCS);
    while (section == nullptr) {
        ZoCritSect* const made = ZoCritSect::MakeLight("?");
        if (made == nullptr) {
            ZOVA_assert("(this->myCS != 0)", "src/zomtobj", 46);
            section = myCS.load(std::memory_order_acquire);
        } else {
            section = InstallSection(made);
        }
    }
    section->Begin();
}

void ZoMTObj::EndCriticalSection() {
    myCS.load(std::memory_order_acquire)->Exit();
}

ZoAutoSync::ZoAutoSync(ZoMTObj* object) : object(object) {
    object->BeginCriticalSection();
}

ZoAutoSync::~ZoAutoSync() {
    object->EndCriticalSection();
}

void* ZoTransactionContext::GetID() {
    return this;
}

ZoTransactionResource* ZoTransactionContext::cast2ZoTransactionResource() {
    return nullptr;
}
