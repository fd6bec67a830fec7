#include "zointrlk.h"

#include <atomic>
#include <new>

#include "checkers.h"
#include "zocrits.h"

ZoInterlocked* interlockedObject = nullptr;

namespace {

// The sum modulo 2^32, as the atomic addition makes it.
ZoInt32 WrappedSum(ZoInt32 left, ZoInt32 right) {
    return static_cast<ZoInt32>(static_cast<ZoUInt32>(left) + static_cast<ZoUInt32>(right));
}

}  // namespace

ZoInterlocked* ZoInterlocked::Make() {
    return new (std::nothrow) GenericInterlocked;
}

ZoInterlocked::ZoInterlocked() = default;
ZoInterlocked::~ZoInterlocked() = default;

GenericInterlocked::GenericInterlocked() : lock(ZoCritSect::MakeImplementation("Interlocked")) {}

GenericInterlocked::~GenericInterlocked() {
    delete lock;
}

long GenericInterlocked::Increment(ZoInt32* target) {
    checkers::ReleaseAndAcquire const order(target);
    return WrappedSum(std::atomic_ref<ZoInt32>(*target).fetch_add(1), 1);
}

long GenericInterlocked::Decrement(ZoInt32* target) {
    checkers::ReleaseAndAcquire const order(target);
    return WrappedSum(std::atomic_ref<ZoInt32>(*target).fetch_sub(1), -1);
}

long GenericInterlocked::Exchange(ZoInt32* target, long value) {
    checkers::ReleaseAndAcquire const order(target);
    return std::atomic_ref<ZoInt32>(*target).exchange(static_cast<ZoInt32>(value));
}

void* GenericInterlocked::CompareExchange(void** target, void* exchange, void* comparand) {
    void* found = comparand;
    checkers::ReleaseAndAcquire const order(target);
    std::atomic_ref<void*>(*target).compare_exchange_strong(found, exchange);
    return found;
}

long GenericInterlocked::ExchangeAdd(ZoInt32* target, long value) {
    checkers::ReleaseAndAcquire const order(target);
    return std::atomic_ref<ZoInt32>(*target).fetch_add(static_cast<ZoInt32>(value));
}

ZoInterlocked* GetZoInterlocked() {
    return std::atomic_ref<ZoInterlocked*>(interlockedObject).load(std::memory_order_acquire);
}
