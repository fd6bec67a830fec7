// Places where a test build lets other threads run: between the steps of protocols without a lock,
// where an unlucky schedule would seldom stop a thread by itself.

#ifndef KELVARA_SRC_SCHEDULE_POINT_H_
#define KELVARA_SRC_SCHEDULE_POINT_H_

#ifdef ZO_SCHEDULE_POINTS

#include <sched.h>

#include <cstdint>

// Gives the processor up, or goes on, at random.
inline void SchedulePoint() {
    static thread_local std::uint32_t state = 0;
    if (state == 0)
        state = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&state)) | 1;
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    if (state % 8 != 0) return;
    for (std::uint32_t yields = 1 + state / 8 % 8; yields > 0; --yields) sched_yield();
}

#else

constexpr void SchedulePoint() {}

#endif

#endif  // KELVARA_SRC_SCHEDULE_POINT_H_
