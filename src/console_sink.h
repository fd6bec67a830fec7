// Putting another sink into a console for a while.

#ifndef KELVARA_SRC_CONSOLE_SINK_H_
#define KELVARA_SRC_CONSOLE_SINK_H_

#include <mutex>

#include "smp_io.h"

// Guards the sink of every front: each use of a sink holds it, so a sink that is put in for a while
// can be destroyed as soon as it has been taken out. Recursive, because a sink may write to a
// front.
extern std::recursive_mutex consoleLock;

// Holds the console for its lifetime with `sink` in place of its own. Other threads' text waits, so
// what is written in between stands together.
class SinkOverride {
public:
    SinkOverride(smp_io& console, _smp_io* sink)
        : hold(consoleLock), console(console), saved(console.sink) {
        console.sink = sink;
    }
    SinkOverride(SinkOverride const&) = delete;
    SinkOverride& operator=(SinkOverride const&) = delete;
    ~SinkOverride() { console.sink = saved; }

private:
    std::lock_guard<std::recursive_mutex> hold;
    smp_io& console;
    _smp_io* saved;
};

#endif  // KELVARA_SRC_CONSOLE_SINK_H_
