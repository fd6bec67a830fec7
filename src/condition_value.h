// Access to a condition's value.

#ifndef KELVARA_SRC_CONDITION_VALUE_H_
#define KELVARA_SRC_CONDITION_VALUE_H_

#include <atomic>

// The value is a plain int, because logic objects of the host work on it through its address. It is
// changed only under the condition's lock (a reader/writer mutex has a rule of its own, rw_gate.h),
// but status texts and results read it without. These accesses keep such a reading free of a race;
// the lock gives all the order that is needed.
inline int LoadValue(int* value) {
    return std::atomic_ref<int>(*value).load(std::memory_order_relaxed);
}

inline void StoreValue(int* value, int number) {
    std::atomic_ref<int>(*value).store(number, std::memory_order_relaxed);
}

// The value wraps: a condition may be set again and again without ever being cleared, and a watcher
// may be decremented more often than incremented.
inline void AddToValue(int* value, int number) {
    StoreValue(value, static_cast<int>(static_cast<unsigned int>(LoadValue(value)) +
                                       static_cast<unsigned int>(number)));
}

#endif  // KELVARA_SRC_CONDITION_VALUE_H_
