// std::mutex with the attributes of Clang's thread-safety analysis (zotypes.h). Guarded data is
// marked ZO_GUARDED_BY, and the clang build fails on an access without the lock.
//
//     constinit Mutex lock;
//     int count ZO_GUARDED_BY(lock) = 0;
//     …
//     MutexHold const hold(lock);
//     ++count;

#ifndef KELVARA_SRC_MUTEX_H_
#define KELVARA_SRC_MUTEX_H_

#include <mutex>

#include "zotypes.h"

// Trivially destroyed: threads may use a static one to the very end of the process.
class ZO_CAPABILITY("mutex") Mutex : private std::mutex {
public:
    constexpr Mutex() = default;
    void lock() ZO_ACQUIRE() { std::mutex::lock(); }
    void unlock() ZO_RELEASE() { std::mutex::unlock(); }

    // For a wait on a condition variable.
    std::mutex& Plain() { return *this; }
};

// Holds a lock of the library's own for a scope.
template <class Lock>
class ZO_SCOPED_CAPABILITY LockHold {
public:
    explicit LockHold(Lock& lock) ZO_ACQUIRE(lock) : held(lock) { lock.lock(); }
    LockHold(LockHold const&) = delete;
    LockHold& operator=(LockHold const&) = delete;
    ~LockHold() ZO_RELEASE() { held.unlock(); }

private:
    Lock& held;
};

using MutexHold = LockHold<Mutex>;

#endif  // KELVARA_SRC_MUTEX_H_
