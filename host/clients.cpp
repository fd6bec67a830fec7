#include "clients.h"

#include <deque>
#include <exception>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>

#include "signals.h"
#include "zocond.h"
#include "zothread.h"

namespace {

constexpr unsigned long BetweenTicks = 250;  // milliseconds

// The clients that still run, and what went wrong first.
class Roll {
public:
    explicit Roll(unsigned count)
        : ended(Condition::MakeCondition("the clients have ended")), running(count) {
        if (ended == nullptr) throw std::bad_alloc();
    }

    void SignOff(std::exception_ptr const& error) {
        std::lock_guard<std::mutex> hold(mutex);
        if (failure == nullptr) failure = error;
        if (--running == 0) ended->SetCondition();
    }

    bool WaitATick() { return ended->WaitForCondition(0, BetweenTicks) != ZoTimedOut; }

    // Once all clients have ended.
    void RethrowFailure() const {
        if (failure != nullptr) std::rethrow_exception(failure);
    }

private:
    std::unique_ptr<Condition> ended;  // set when the last has
    std::mutex mutex;                  // guards the rest
    unsigned running;
    std::exception_ptr failure;
};

class Client final : public ZoThread {
public:
    explicit Client(std::function<void()> body)
        : ZoThread("client", nullptr, 0), body(std::move(body)) {}

private:
    int Work(void*) override {
        body();
        return 0;
    }

    std::function<void()> body;  // throws nothing
};

// Counts the threads of clients, and lets nobody past its end before they are gone.
class Watcher {
public:
    Watcher() = default;
    Watcher(Watcher const&) = delete;
    Watcher& operator=(Watcher const&) = delete;
    ~Watcher() { watcher.WaitForZero(0); }

    void Start(Client& client) {
        client.SetResourceWatcher(&watcher);
        if (client.Start(nullptr) != ZoSuccess) {
            throw std::runtime_error("a client thread could not be started");
        }
    }

private:
    ZoResourceWatcher watcher;
};

}  // namespace

void RunClients(unsigned count, std::function<void(unsigned)> const& body,
                std::function<void()> const& tick) {
    Roll roll(count);
    {
        std::deque<Client> clients;
        Watcher watcher;
        // Clients may wait for each other, so none begins before all are there. A promise that goes
        // away unkept tells those that are there to give up.
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
        for (unsigned client = 0; client < count; ++client) {
            watcher.Start(clients.emplace_back([run, client] { run(client); }));
        }
        ClientsAtWork const atWork;
        everyoneIsThere.set_value();
        while (!roll.WaitATick()) {
            EndDelay const delay;
            tick();
        }
    }
    roll.RethrowFailure();
}
