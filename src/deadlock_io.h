// The deadlock report: the sink that logs it to a file, and the words it is told in.

#ifndef KELVARA_SRC_DEADLOCK_IO_H_
#define KELVARA_SRC_DEADLOCK_IO_H_

#include <cstdio>

#include "console_sink.h"
#include "smp_io.h"
#include "wait_graph.h"

// A console sink that appends everything to "deadlock.txt" in the current directory and passes it
// on to the sink it wraps. It lives for one report, or until the last thread that wrote to the
// console meanwhile is done with it (console_sink.h).
class deadlock_io : public ScopedSink {
public:
    // Opens the file and writes a report's head, its time included. A file that cannot be opened is
    // told once on `wrapped`, and the report then goes only there; the system log tells the path
    // and the system's reason.
    explicit deadlock_io(_smp_io* wrapped);
    ~deadlock_io() override;

    using _smp_io::writeOutput;
    void writeOutput(char const* text, int length) override;
    void flush() override;

private:
    _smp_io* wrapped;  // not owned
    FILE* file;        // null when it could not be opened
};

// Writes the chain of waits that begins with thread `me` wanting `section`, a line a thread and an
// empty one. Called with csDLD held, which keeps owners and waits from changing. When the chain
// does not lead back to `me`, the line at which it breaks off says so.
void DeadlockDetectionMakeMessage(ZoTLS* me, ZoDLDCritSect* section, smp_io* console)
    ZO_REQUIRES(csDLD);
// The same of a thread that wants a section or to write a mutex, where there may be several chains:
// a shortest one that leads back to `me`. A mutex is told by its name and its address.
void DeadlockDetectionMakeMessage(ZoTLS* me, Wait const& wanted, smp_io* console)
    ZO_REQUIRES(csDLD);

// By the calling thread, whose record is `me`, with csDLD held: reports a deadlock if its wait for
// `wanted` would close a ring, then announces the wait. Whether it has reported; when the wait is
// over and withdrawn, the thread reports a false alarm in that case.
bool AnnounceWait(ZoTLS* me, Wait const& wanted) ZO_REQUIRES(csDLD);
void ReportFalseAlarm();

#endif  // KELVARA_SRC_DEADLOCK_IO_H_
