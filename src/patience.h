// Waiting for another thread that needs only a few instructions more.

#ifndef KELVARA_SRC_PATIENCE_H_
#define KELVARA_SRC_PATIENCE_H_

#include "cancellation.h"
#include "zosleep.h"

// One wait, with a turn for each failed test. The first turns yield the processor. A yield lets
// only threads of the same or a higher real-time priority run, and the other thread may have a
// lower one, so later turns sleep a little. No cancellation point.
class Patience {
public:
    static constexpr int Yields = 100;

    void Wait() {
        if (turns < Yields) {
            ++turns;
            ZoYieldProcessor();
        } else {
            CancellationDeferred deferred;
            ZoThreadSwitchWithDelay(1);
        }
    }
    bool IsOver() const { return turns == Yields; }  // from here on a turn is a sleep

private:
    int turns = 0;
};

#endif  // KELVARA_SRC_PATIENCE_H_
