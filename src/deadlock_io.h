// The deadlock report: its text, and the sink that writes it to a file.

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
    // reported once on `wrapped`, and the report then goes only there; the system log gets the path
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
// The same for a thread that waits for a section or to write a mutex. Of several chains it writes a
// shortest one that leads back to `me`. A mutex is printed with its name and its address.
void DeadlockDetectionMakeMessage(ZoTLS* me, Wait const& wanted, smp_io* console)
    ZO_REQUIRES(csDLD);

// Called by the thread whose record is `me`, with csDLD held. Reports a deadlock if its wait for
// `wanted` would close a ring, then announces the wait. Returns whether it has reported; if so, the
// thread calls ReportFalseAlarm after it has withdrawn the wait.
bool AnnounceWait(ZoTLS* me, Wait const& wanted) ZO_REQUIRES(csDLD);
void ReportFalseAlarm();

#endif  // KELVARA_SRC_DEADLOCK_IO_H_
