// Ends a test program whose threads stopped moving, so that a lost wake-up fails instead of
// hanging.
//
//     Watchdog watchdog;
//     …                     // any thread, now and then: watchdog.Progress();

#ifndef KELVARA_TESTS_WATCHDOG_H_
#define KELVARA_TESTS_WATCHDOG_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace zotest {

class Watchdog {
public:
    Watchdog() : thread([this] { Watch(); }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> hold(mutex);
            over = true;
        }
        ended.notify_one();
        thread.join();
    }
    void Progress() { steps.fetch_add(1, std::memory_order_relaxed); }

private:
    void Watch() {
        std::unique_lock<std::mutex> hold(mutex);
        unsigned long seen = steps;
        // As long as anything moves in each minute, the slowest machine may take its time.
        while (!ended.wait_for(hold, std::chrono::seconds(60), [this] { return over; })) {
            if (steps == seen) {
                std::fputs("watchdog: no progress for 60 seconds\n", stderr);
                std::abort();
            }
            seen = steps;
        }
    }

    std::atomic<unsigned long> steps{0};
    std::mutex mutex;
    std::condition_variable ended;
    bool over = false;
    std::thread thread;
};

}  // namespace zotest

#endif  // KELVARA_TESTS_WATCHDOG_H_
