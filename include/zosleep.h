// Sleeping and yielding, for the calling thread.
//
//     ZoThreadSwitchWithDelay(50);   // let others run for 50 milliseconds
//
// Any thread may call any of these; none takes a lock. A sleep that a signal cuts short is not
// resumed.

#ifndef KELVARA_INCLUDE_ZOSLEEP_H_
#define KELVARA_INCLUDE_ZOSLEEP_H_

#include "zotypes.h"

// Sleeps `seconds`; always 0, also when a signal ends the sleep early.
ZO_API int ZoSleep(int seconds);
// Sleeps `seconds`; returns the seconds not slept when a signal ended the sleep early, else 0.
ZO_API int SysSleep(int seconds);
// Lets another thread run; 0, or -1 on failure.
ZO_API int ZoThreadSwitch();
// Sleeps `milliseconds`; 0, or -1 on failure: a signal, or a negative delay, refused at once.
ZO_API int ZoThreadSwitchWithDelay(int milliseconds);

// Yields the processor: the result of sched_yield(). The exported symbol is the C++ function
// `pthread_yield()`. It goes by another name here because <pthread.h> may declare a C function of
// that name, which this one neither replaces nor calls.
ZO_API int ZoYieldProcessor() __asm__("_Z13pthread_yieldv");

#endif  // KELVARA_INCLUDE_ZOSLEEP_H_
