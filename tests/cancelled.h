// Runs something on a thread that may be cancelled.

#ifndef KELVARA_TESTS_CANCELLED_H_
#define KELVARA_TESTS_CANCELLED_H_

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <thread>

namespace zotest {

// Runs `body` on a thread with a small stack, and says whether the thread was cancelled.
inline bool IsCancelled(std::function<void()> body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, std::size_t{256} * 1024);
    pthread_t thread{};
    auto const run = [](void* function) -> void* {
        (*static_cast<std::function<void()>*>(function))();
        return nullptr;
    };
    EXPECT_EQ(pthread_create(&thread, &attributes, run, &body), 0);
    pthread_attr_destroy(&attributes);
    void* result = nullptr;
    pthread_join(thread, &result);
    return result == PTHREAD_CANCELED;
}

// Cancels a thread that runs `body` as soon as `condition` holds.
template <class Predicate>
void CancelWhen(Predicate condition, std::function<void()> body) {
    std::atomic<pthread_t> thread{};
    std::thread canceller([&] {
        while (thread == pthread_t{} || !condition()) std::this_thread::yield();
        pthread_cancel(thread);
    });
    EXPECT_TRUE(IsCancelled([&] {
        thread = pthread_self();
        body();
    }));
    canceller.join();
}

}  // namespace zotest

#endif  // KELVARA_TESTS_CANCELLED_H_
