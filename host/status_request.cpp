#include "status_request.h"

#include <atomic>
#include <csignal>

namespace {

std::atomic<bool> requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

}  // namespace

void HeedStatusRequests() {
    struct sigaction action = {};
    action.sa_handler = [](int) { requested.store(true, std::memory_order_relaxed); };
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
}

bool TakeStatusRequest() {
    return requested.exchange(false, std::memory_order_relaxed);
}
