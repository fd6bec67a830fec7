#include "clients.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// The clients that still run, and what went wrong first.
class Roll {
public:
    explicit Roll(unsigned count) : running(count) {}

    void SignOff(std::exception_ptr const& error) {
        std::lock_guard<std::mutex> hold(mutex);
        if (failure == nullptr) failure = error;
        if (--running == 0) ended.notify_one();
    }

    bool WaitASecond() {
        std::unique_lock<std::mutex> hold(mutex);
        return ended.wait_for(hold, std::chrono::seconds(1), [this] { return running == 0; });
    }

    // Once all clients have ended.
    void RethrowFailure() const {
        if (failure != nullptr) std::rethrow_exception(failure);
    }

private:
    std::mutex mutex;  // guards the rest
    std::condition_variable ended;
    unsigned running;
    std::exception_ptr failure;
};

}  // namespace

void RunClients(unsigned count, std::function<void(unsigned)> const& body,
                std::function<void()> const& everySecond) {
    Roll roll(count);
    // Clients may wait for each other, so none begins before all are there. A promise that goes
    // away unkept tells those that are there to give up.
    std::vector<std::jthread> threads;
    std::promise<void> everyoneIsThere;
    std::shared_future<void> const start = everyoneIsThere.get_future().share();
    auto const run = [&roll, &body, start](unsigned client) {
        std::exception_ptr error;
        try {
            start.get();
            body(client);
        } catch (...) {
            error = std::current_exception();
        }
        roll.SignOff(error);
    };
    threads.reserve(count);
    for (unsigned client = 0; client < count; ++client) threads.emplace_back(run, client);
    everyoneIsThere.set_value();

    while (!roll.WaitASecond()) everySecond();
    threads.clear();  // joins, so that nothing of the clients is left running
    roll.RethrowFailure();
}
