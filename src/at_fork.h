// What the library does around fork(), from the moment it is loaded.
//
// A child gets the memory as it is when it is forked, but only the thread that forks. A lock that
// another thread holds at that moment is never released in the child, a count of other threads
// never falls, and what such a lock guards may be half changed. So the forking thread holds
// the library's process-wide locks over the fork (at_fork.cpp), and the child counts only its own
// thread. It does not hold csDLD and the chain's lock: they may be held as long as the message of a
// deadlock report is open, and the thread that answers it may fork. The child makes those free, and
// what they guard can be used at every moment (wait_graph.cpp). There are too many objects for
// that: each remembers the process that it was made in.

#ifndef KELVARA_SRC_AT_FORK_H_
#define KELVARA_SRC_AT_FORK_H_

#include <atomic>

#include "zotypes.h"

// How many forks lie between this process and the one that loaded the library. Raised in a child
// before its only thread returns from fork(), so a relaxed order is enough.
extern std::atomic<ZoUInt32> forkGeneration;

inline ZoUInt32 ForkGeneration() {
    return forkGeneration.load(std::memory_order_relaxed);
}

// The error of registering the handlers, 0 if there was none. After an error a child gets the
// library's locks and counts as other threads left them.
int ForkHandlersError();

// The process in which an object was made.
class ProcessOfOrigin {
public:
    // False in a child that was forked later: threads that used it before are absent.
    bool IsThis() const { return generation == ForkGeneration(); }
    void BecomeThis() { generation = ForkGeneration(); }

private:
    ZoUInt32 generation = ForkGeneration();
};

#endif  // KELVARA_SRC_AT_FORK_H_
