// <pthread.h> is not included here: it may declare a C function named pthread_yield.

#include "zosleep.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

int ZoSleep(int seconds) {
    SysSleep(seconds);
    return 0;
}

int SysSleep(int seconds) {
    return static_cast<int>(sleep(static_cast<unsigned int>(seconds)));
}

int ZoThreadSwitch() {
    return ZoThreadSwitchWithDelay(0);
}

int ZoThreadSwitchWithDelay(int milliseconds) {
    timespec requested{};
    requested.tv_sec = milliseconds / 1000;
    requested.tv_nsec = (milliseconds % 1000) * 1'000'000L;
    timespec remaining{};
    return nanosleep(&requested, &remaining);
}

int ZoYieldProcessor() {
    return sched_yield();
}
