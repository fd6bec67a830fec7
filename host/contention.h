// The most contended locks, queues and conditions, as zohost tells them.

#ifndef KELVARA_HOST_CONTENTION_H_
#define KELVARA_HOST_CONTENTION_H_

#include <cstdio>

// By the time that threads have waited for each, the longest first.
void TellContention(std::FILE* to);

#endif  // KELVARA_HOST_CONTENTION_H_
