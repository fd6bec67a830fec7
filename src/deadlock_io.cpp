#include "deadlock_io.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include "call_stack.h"
#include "cancellation.h"
#include "probes.h"
#include "rw_mutex.h"
#include "rw_record.h"
#include "zobase.h"
#include "zocrits.h"

// The assertions here keep the file in which the report stood first.

namespace {

bool AnswerWantsDebugger(unsigned int answer) {
    return answer == ZoAnswerDebug || answer == ZoAnswerAbort;
}

// A console without a sink: a report on it reaches the log file alone.
class SilentConsole : public smp_io {
public:
    SilentConsole() {
        delete sink;
        sink = nullptr;
    }
};

// Writes the ring and the call stacks of its threads to `console` and to the log file.
void WriteReport(ZoTLS* me, Wait const& wanted, smp_io& console) ZO_REQUIRES(csDLD) {
    SinkScope const logged(console, new (std::nothrow) deadlock_io(console.sink));
    DeadlockDetectionMakeMessage(me, wanted, &console);
    ZoTLSPrepareStackTrace(&console);
    ZoTLSStackTrace(me, &console);
    // A sink of the host may have left a section meanwhile, so the chain may break off.
    WaitForGraph::Holder next = WaitForGraph::HolderOf(wanted, me);
    while (next.thread != nullptr && next.thread != me) {
        // The record of a thread that waits for nothing may be freed at any moment.
        if (!next.waitsFor.IsNone()) ZoTLSStackTrace(next.thread, &console);
        console << endl;
        if (next.waitsFor.IsNone()) break;
        next = WaitForGraph::HolderOf(next.waitsFor, me);
    }
    console.flush();
    ZoTLSTerminateStackTrace();
}

void WriteReport(ZoTLS* me, Wait const& wanted) ZO_REQUIRES(csDLD) {
    if (smp_io* const console = GetConsole()) return WriteReport(me, wanted, *console);
    SilentConsole silent;
    WriteReport(me, wanted, silent);
}

void Describe(Wait const& wanted, char* buffer, int size) {
    if (wanted.section != nullptr) {
        wanted.section->GetInfo(buffer, size);
    } else {
        wanted.readersOf->GetInfo(buffer, size);
    }
}

void TellTracers(ZoTLS const* me, Wait const& wanted) {
    if (wanted.section != nullptr) return probes::DeadlockFound(*wanted.section, me);
    probes::DeadlockFound(*wanted.readersOf, me);
}

void ReportDeadlock(ZoTLS* me, Wait const& wanted) ZO_REQUIRES(csDLD) {
    CancellationDeferred deferred;
    TellTracers(me, wanted);
    WriteReport(me, wanted);
    char description[1024];
    Describe(wanted, description, sizeof description);
    ZoSystemLog()->Printf(ZoLogError, "Deadlock detected.\n%s", description);
    unsigned int const answer =
        ZoMessage()->Show(0, ZoStyleQuestion, "Deadlock detected.\n(CANCEL to debug)");
    if (AnswerWantsDebugger(answer)) {
        ZOVA_assert("(0 && \"deadlock detected\")", "src/zocrits", 365);
    }
}

// The last wait on the reported ring: that of the thread which waits for `me`.
Wait LastOfRing(ZoTLS* me, Wait const& wanted) ZO_REQUIRES(csDLD) {
    Wait last = wanted;
    WaitForGraph::Holder holder = WaitForGraph::HolderOf(wanted, me);
    while (holder.thread != nullptr && holder.thread != me) {
        last = holder.waitsFor;
        holder = WaitForGraph::HolderOf(last, me);
    }
    return last;
}

// Whether the calling thread holds what `wait` waits for.
bool Holds(ZoTLS* me, Wait const& wait) ZO_REQUIRES(csDLD) {
    if (wait.section != nullptr) return WaitForGraph::OwnerOf(wait.section).thread == me;
    ZoRWRecord const* const record = FindRwRecord(me, wait.readersOf);
    return record != nullptr && IsCountedReader(record->holdings);
}

}  // namespace

// The host's code in the report may leave sections and end reads of this thread, so the wait is
// announced after it.
//
// If a chain of waits passes a writer that waits for readers, a new wait may close several rings.
// A report describes one of them. When the host dissolves it, by leaving what its last thread waits
// for, the next one is reported.
bool AnnounceWait(ZoTLS* me, Wait const& wanted) {
    CallStacks::Keep(me);
    bool closesRing = false;
    for (bool isDissolved = true; isDissolved && WaitForGraph::LeadsTo(wanted, me);) {
        closesRing = true;
        Wait const last = LastOfRing(me, wanted);
        ReportDeadlock(me, wanted);
        isDissolved = !Holds(me, last);
    }
    WaitForGraph::Announce(me, wanted);
    return closesRing;
}

void ReportFalseAlarm() {
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(ZoLogWarning, "Deadlock: false alarm.\n");
    unsigned int const answer = ZoMessage()->Show(0, ZoStyleNotice, "Deadlock: false alarm.\n");
    if (AnswerWantsDebugger(answer)) {
        ZOVA_assert("(0 && \"deadlock : false alarm\")", "src/zocrits", 385);
    }
}

void DeadlockDetectionMakeMessage(ZoTLS* me, ZoDLDCritSect* section, smp_io* console) {
    DeadlockDetectionMakeMessage(me, Wait{.section = section}, console);
}

namespace {

// Writes the object that a thread waits for, after the words for its kind.
void TellWanted(Wait const& wait, char const* forSection, char const* toWrite, smp_io& console) {
    if (wait.section != nullptr) {
        console << forSection << wait.section->GetName() << " " << static_cast<void*>(wait.section)
                << " owned by ";
    } else if (wait.readersOf != nullptr) {
        console << toWrite << wait.readersOf->GetName() << " " << static_cast<void*>(wait.readersOf)
                << " read by ";
    }
}

}  // namespace

void DeadlockDetectionMakeMessage(ZoTLS* me, Wait const& wanted, smp_io* console) {
    *console << "ZoThread " << me->threadIdentity;
    TellWanted(wanted, " wants critical section ", " wants to write ", *console);
    WaitForGraph::Holder holder = WaitForGraph::HolderOf(wanted, me);
    while (holder.thread != nullptr) {
        *console << "thread " << holder.identity << endl;
        if (holder.thread == me) break;
        *console << "ZoThread " << holder.identity;
        if (holder.waitsFor.IsNone()) break;
        TellWanted(holder.waitsFor, " is waiting for ", " is waiting to write ", *console);
        holder = WaitForGraph::HolderOf(holder.waitsFor, me);
    }
    if (holder.thread == nullptr) {
        *console << "nobody !!!!";
    } else if (holder.thread != me) {
        *console << " is waiting for "
                 << "nothing !!!";
    }
    *console << endl;
    console->flush();
}

namespace {

void TellUnopened(int error) {
    char folder[4096];
    ZoSystemLog()->Printf(ZoLogError, "The deadlock report is not written to %s/deadlock.txt: %s",
                          getcwd(folder, sizeof folder) != nullptr ? folder : ".",
                          std::strerror(error));
}

}  // namespace

// --- the log file ------------------------------------------------------------------------------

deadlock_io::deadlock_io(_smp_io* wrapped)
    : wrapped(wrapped), file(std::fopen("deadlock.txt", "a+")) {
    if (file == nullptr) {
        TellUnopened(errno);
        if (wrapped == nullptr) return;
        wrapped->writeOutput("unable to open deadlock.txt for writing", -1);
        wrapped->flush();
        return;
    }
    std::time_t const now = std::time(nullptr);
    char date[32] = "";  // 26 bytes are needed
    ctime_r(&now, date);
    std::fputs("******** ZOVA deadlock log ********\n", file);
    std::fputs(date, file);
    std::fputs("\n******** traces ********\n", file);
}

deadlock_io::~deadlock_io() {
    if (file != nullptr) std::fclose(file);
}

void deadlock_io::writeOutput(char const* text, int length) {
    if (file != nullptr) {
        if (length == -1) {
            std::fputs(text, file);
        } else {
            std::fwrite(text, 1, static_cast<std::size_t>(length), file);
        }
    }
    if (wrapped != nullptr) wrapped->writeOutput(text, length);
}

void deadlock_io::flush() {
    if (file != nullptr) std::fflush(file);
    if (wrapped != nullptr) wrapped->flush();
}
