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

class ZO_SCOPED_CAPABILITY MutexHold {
public:
    explicit MutexHold(Mutex& mutex) ZO_ACQUIRE(mutex) : mutex(mutex) { mutex.lock(); }
    MutexHold(MutexHold const&) = delete;
    MutexHold& operator=(MutexHold const&) = delete;
    ~MutexHold() ZO_RELEASE() { mutex.unlock(); }

private:
    Mutex& mutex;
};

#endif  // KELVARA_SRC_MUTEX_H_
