// Annotations for checkers of threads: ThreadSanitizer in a build with it, and valgrind's helgrind
// and drd in a build for them (ZO_VALGRIND). In every other build they do nothing.
//
// All of them know the system library's locks. ThreadSanitizer also sees atomics and their order.
// It only learns which objects are reader/writer mutexes, so that its reports name them and it sees
// the order in which they are taken with other locks. Valgrind's tools take an access to an atomic
// for a plain one, so they report two threads' use of it as a race, and miss the order that it
// makes. Hence:
//
//     annotation                       where                        effect in the tools
//     AreAtomic                        an atomic is made            they do not check that word;
//                                                                   they check what it guards
//     Release, Acquire                 before a store with release  what comes before the one comes
//                                      order, after a load with     before what follows the other
//                                      acquire order
//     ReleaseAndAcquire                around a change with both    the same
//     LockIsMade … LockIsGone          a reader/writer mutex        a reader/writer lock
//     Wait                             in place of the system's     a cancelled thread has left its
//                                      wait without a limit         wait
//
// An order is annotated only where the code relies on it, because each annotation may hide a race
// of the host. The annotations for ThreadSanitizer carry no order: with one it would not find an
// order that is missing in the mutex itself.

#ifndef KELVARA_SRC_CHECKERS_H_
#define KELVARA_SRC_CHECKERS_H_

#include <pthread.h>

#include <cstdint>
#include <ctime>

#ifdef ZO_VALGRIND
#include <valgrind/drd.h>
#include <valgrind/helgrind.h>

#include "cancellation.h"
#endif

#if defined(__SANITIZE_THREAD__)
#define ZO_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZO_THREAD_SANITIZER
#endif
#endif

#ifdef ZO_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>

extern "C" void AnnotateIgnoreSyncBegin(char const* file, int line);
extern "C" void AnnotateIgnoreSyncEnd(char const* file, int line);
#endif

namespace checkers {

// How a thread takes a lock. MayWait: by an entry that waits while the lock is taken, so it counts
// for the order of locks. NeverWaits: in another way.
enum Entry : bool { NeverWaits, MayWait };

#ifdef ZO_VALGRIND

template <class... Word>
int AreAtomic(Word&... words) {
    auto const tell = [](void const volatile* word, unsigned long size) {
        VALGRIND_HG_DISABLE_CHECKING(word, size);
        VALGRIND_DO_CLIENT_REQUEST_STMT(VG_USERREQ__DRD_START_SUPPRESSION, word, size, 0, 0, 0);
    };
    (tell(&words, sizeof words), ...);
    return 0;
}

// The tag by which the tools know a word. The address will not do, because drd would remember it
// for ever: a word on the stack may be followed by a mutex there, which drd then refuses. Words
// with the same tag count as one.
inline void const* TagOf(void const volatile* word) {
    static char tags[4093];
    return &tags[reinterpret_cast<std::uintptr_t>(word) / 4 % sizeof tags];
}

inline void Release(void const volatile* word) {
    ANNOTATE_HAPPENS_BEFORE(TagOf(word));
}

inline void Acquire(void const volatile* word) {
    ANNOTATE_HAPPENS_AFTER(TagOf(word));
}

class [[maybe_unused]] ReleaseAndAcquire {
public:
    explicit ReleaseAndAcquire(void const volatile* word) : word(word) { Release(word); }
    ReleaseAndAcquire(ReleaseAndAcquire const&) = delete;
    ReleaseAndAcquire& operator=(ReleaseAndAcquire const&) = delete;
    ~ReleaseAndAcquire() { Acquire(word); }

private:
    void const volatile* word;
};

// The tools take a wait that is cancelled for one that goes on, and drd overlooks everything that
// its thread does afterwards. So this waits a little at a time, and is cancelled in between. Like
// any wait it may end without a signal.
inline int Wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    pthread_testcancel();
    CancellationDeferred deferred;
    timespec end{};
    clock_gettime(CLOCK_REALTIME, &end);
    constexpr long Little = 10'000'000, Second = 1'000'000'000;
    end.tv_nsec += Little;
    if (end.tv_nsec >= Second) end = {end.tv_sec + 1, end.tv_nsec - Second};
    pthread_cond_timedwait(condition, mutex, &end);
    return 0;
}

#else

constexpr int AreAtomic(auto&...) {
    return 0;
}
constexpr void Release(void const volatile*) {}
constexpr void Acquire(void const volatile*) {}

struct [[maybe_unused]] ReleaseAndAcquire {
    constexpr explicit ReleaseAndAcquire(void const volatile*) {}
};

inline int Wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return pthread_cond_wait(condition, mutex);
}

#endif

#if defined(ZO_VALGRIND)

inline void LockIsMade(void* lock) {
    ANNOTATE_RWLOCK_CREATE(lock);
}
inline void LockIsGone(void* lock) {
    ANNOTATE_RWLOCK_DESTROY(lock);
}
inline void ReadBegins(void* lock, Entry) {
    ANNOTATE_RWLOCK_ACQUIRED(lock, 0L);
}
inline void ReadEnds(void* lock) {
    ANNOTATE_RWLOCK_RELEASED(lock, 0L);
}
inline void WriteBegins(void* lock, Entry) {
    ANNOTATE_RWLOCK_ACQUIRED(lock, 1L);
}
inline void WriteEnds(void* lock) {
    ANNOTATE_RWLOCK_RELEASED(lock, 1L);
}

#elif defined(ZO_THREAD_SANITIZER)

// For a scope in which the annotations of a lock carry no order.
class OrderIsUntold {
public:
    OrderIsUntold() { AnnotateIgnoreSyncBegin(__FILE__, __LINE__); }
    OrderIsUntold(OrderIsUntold const&) = delete;
    OrderIsUntold& operator=(OrderIsUntold const&) = delete;
    ~OrderIsUntold() { AnnotateIgnoreSyncEnd(__FILE__, __LINE__); }
};

inline void LockIsMade(void* lock) {
    __tsan_mutex_create(lock, __tsan_mutex_not_static);
}
inline void LockIsGone(void* lock) {
    __tsan_mutex_destroy(lock, __tsan_mutex_not_static);
}
inline void Begins(void* lock, unsigned mode, Entry entry) {
    OrderIsUntold const untold;
    unsigned const flags = mode | (entry == MayWait ? 0U : __tsan_mutex_try_lock);
    __tsan_mutex_pre_lock(lock, flags);
    __tsan_mutex_post_lock(lock, flags, 0);
}
inline void Ends(void* lock, unsigned mode) {
    OrderIsUntold const untold;
    __tsan_mutex_pre_unlock(lock, mode);
    __tsan_mutex_post_unlock(lock, mode);
}
inline void ReadBegins(void* lock, Entry entry) {
    Begins(lock, __tsan_mutex_read_lock, entry);
}
inline void ReadEnds(void* lock) {
    Ends(lock, __tsan_mutex_read_lock);
}
inline void WriteBegins(void* lock, Entry entry) {
    Begins(lock, 0, entry);
}
inline void WriteEnds(void* lock) {
    Ends(lock, 0);
}

#else

constexpr void LockIsMade(void*) {}
constexpr void LockIsGone(void*) {}
constexpr void ReadBegins(void*, Entry) {}
constexpr void ReadEnds(void*) {}
constexpr void WriteBegins(void*, Entry) {}
constexpr void WriteEnds(void*) {}

#endif

}  // namespace checkers

#endif  // KELVARA_SRC_CHECKERS_H_
