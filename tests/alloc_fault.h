// Makes a chosen allocation of the test fail.
//
//     AllocFault fault(2);                       // the second allocation of this thread from here
//     on EXPECT_EQ(thing.Operation(), ZoOutOfMemory); EXPECT_TRUE(fault.Happened());
//
//     FailEachAllocation([&](AllocFault const& fault) { … });   // the first, the second, … till
//     none
//
// Replaces the program's `operator new`, shared objects included, so exactly one source file of a
// program includes this. Allocations of other threads are neither counted nor failed.
//
// Clang's ThreadSanitizer brings an `operator new` of its own that cannot be replaced; there, tests
// that need a fault begin with NEEDS_ALLOC_FAULTS() and are skipped. GCC's runs them.

#ifndef KELVARA_TESTS_ALLOC_FAULT_H_
#define KELVARA_TESTS_ALLOC_FAULT_H_

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZO_NO_ALLOC_FAULTS
#endif
#endif

#ifdef ZO_NO_ALLOC_FAULTS
#define NEEDS_ALLOC_FAULTS() GTEST_SKIP() << "operator new cannot be replaced here"
#else
#define NEEDS_ALLOC_FAULTS() static_cast<void>(0)
#endif

class AllocFault {
public:
    // Fails one allocation, the nth from now on (1 is the next), or none when n is 0. One at a
    // time.
    explicit AllocFault(long nth) { allocationsLeft = nth; }
    AllocFault(AllocFault const&) = delete;
    AllocFault& operator=(AllocFault const&) = delete;
    ~AllocFault() { allocationsLeft = 0; }

    bool Happened() const { return allocationsLeft < 0; }

    static void* Allocate(std::size_t size) {
        if (allocationsLeft > 0 && --allocationsLeft == 0) {
            allocationsLeft = -1;
            return nullptr;
        }
        void* const block = std::malloc(size != 0 ? size : 1);
        if (block != nullptr) ++live;
        return block;
    }
    static void Free(void* block) {
        if (block != nullptr) --live;
        std::free(block);
    }
    // Blocks that all threads hold at this moment.
    static long Live() { return live; }

private:
    static inline std::atomic<long> live{0};
    static inline thread_local long allocationsLeft = 0;  // -1 once the fault has happened
};

// Calls `attempt` with a fault at the first allocation, then at the second, and so on, until one
// attempt has gone through without meeting its fault. Returns how many have met it.
template <class Attempt>
long FailEachAllocation(Attempt attempt) {
    for (long nth = 1;; ++nth) {
        AllocFault const fault(nth);
        attempt(fault);
        if (!fault.Happened()) return nth - 1;
    }
}

// Not for Clang's static analyzer, which takes what these return for a block of malloc's.
#if !defined(ZO_NO_ALLOC_FAULTS) && !defined(__clang_analyzer__)
// NOLINTBEGIN(misc-definitions-in-headers): one source file of a program includes this.
// Not inlined: where a compiler sees malloc and free inside new and delete, it warns of a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return AllocFault::Allocate(size);
}
[[gnu::noinline]] void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
    return AllocFault::Allocate(size);
}
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const block = AllocFault::Allocate(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
[[gnu::noinline]] void* operator new[](std::size_t size) {
    return operator new(size);
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    AllocFault::Free(block);
}
[[gnu::noinline]] void operator delete[](void* block) noexcept {
    AllocFault::Free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    AllocFault::Free(block);
}
[[gnu::noinline]] void operator delete[](void* block, std::size_t) noexcept {
    AllocFault::Free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::nothrow_t const&) noexcept {
    AllocFault::Free(block);
}
[[gnu::noinline]] void operator delete[](void* block, std::nothrow_t const&) noexcept {
    AllocFault::Free(block);
}
// NOLINTEND(misc-definitions-in-headers)
#endif

#endif  // KELVARA_TESTS_ALLOC_FAULT_H_
