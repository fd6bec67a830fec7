#include "interrupt.h"

#include <atomic>
#include <csignal>

namespace {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

}  // namespace

void HeedInterrupts() {
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted.store(true, std::memory_order_relaxed); };
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool WasInterrupted() {
    return interrupted.load(std::memory_order_relaxed);
}
