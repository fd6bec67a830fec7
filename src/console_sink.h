// The sink of a console front, shared by the threads that write to it.

#ifndef KELVARA_SRC_CONSOLE_SINK_H_
#define KELVARA_SRC_CONSOLE_SINK_H_

#include "smp_io.h"

class deadlock_io;

// A front's sink for one use. A sink is the host's code and is called without any lock; the one
// that is not there for good, a deadlock report's, stays alive until the last thread that fetched
// it has used it.
class SinkUse {
public:
    explicit SinkUse(smp_io const& stream);
    SinkUse(SinkUse const&) = delete;
    SinkUse& operator=(SinkUse const&) = delete;
    ~SinkUse();

    explicit operator bool() const { return sink != nullptr; }
    _smp_io* operator->() const { return sink; }

private:
    _smp_io* sink;
    deadlock_io* report;  // the sink, if it is a report's
};

// Puts a new deadlock_io around a console's sink for a scope. Reports follow each other, so there
// is one at a time.
class LoggedConsole {
public:
    explicit LoggedConsole(smp_io& console);
    LoggedConsole(LoggedConsole const&) = delete;
    LoggedConsole& operator=(LoggedConsole const&) = delete;
    ~LoggedConsole();

private:
    smp_io& console;
    _smp_io* const saved;
    deadlock_io* const log;
    deadlock_io* outer = nullptr;  // the report that this one interrupts, begun in its sink
};

// Hold the console's lock over a fork.
void LockConsole();
void UnlockConsole();

#endif  // KELVARA_SRC_CONSOLE_SINK_H_
