// Probes: where a tracer (bpftrace, perf, SystemTap) or gdb may look into a running process.
//
// A probe is an instruction that does nothing, and a note in the library's file that tells where it
// stands and where its arguments are. A tracer that attaches puts a trap in its place. They are in
// a build with ZO_PROBES, which is on where the system has sys/sdt.h; in any other there is
// nothing. The provider is zo95Kex:
//
//     probe            fires when                                             object
//     wait_begun       a thread is about to block, as zowaits.h counts it     section, mutex or
//                                                                             condition
//     wait_ended       that wait is over, or cancelled                        the same
//     deadlock_found   a ring has been found, before it is reported           the one waited for
//     reader_admitted  a thread begins to read a mutex                        mutex
//     writer_admitted  a thread begins to write a mutex                       mutex
//     unit_appended    a unit is about to enter a queue's list                queue
//     unit_taken       a unit is about to be handled                          queue
//     unit_done        its Handle has returned                                queue
//     thread_started   the thread of a thread object begins, before Init      thread object
//     thread_ended     it has ended, in whatever way                          thread object
//
//     argument   is
//     1          the object's address, as gdb's `zo` commands and deadlock reports show it: a
//                detecting section and a mutex stand for their parts. Of a thread that has ended,
//                and of a unit that is done, the object may be gone.
//     2          its name; a queue's is that of its condition
//     3          the thread: the address by which reports name it, its record; 0: it has none
//     4          of waits: 1 for a lock, 0 for a condition, in which threads sleep on purpose;
//                of units: the unit's address
//
// Only the outermost read and write of a mutex fire. A first read that waits for nothing does too,
// or else the admitted readers that a writer waits for would not be seen; a nested one does not: it
// changes nothing that a writer sees. Where nobody waits, what the arguments need is in registers
// or memory already, so that a probe costs a `nop`.
//
// Units that a queue has no worker for are taken and done, by the appender, and never appended. One
// that makes a queue lose a worker is appended only; so is one that the queue's end aborts.

#ifndef KELVARA_SRC_PROBES_H_
#define KELVARA_SRC_PROBES_H_

#ifdef ZO_PROBES
#ifdef __clang__  // it would store arguments that may be in memory there
#define STAP_SDT_ARG_CONSTRAINT nr
#endif
#include <sys/sdt.h>
#else
// Looks at its arguments only to see that they compile.
#define STAP_PROBE3(provider, probe, ...) static_cast<void>(sizeof(probes::Ignore(__VA_ARGS__)))
#define STAP_PROBE4 STAP_PROBE3
#endif

#include "current_thread.h"
#include "zosyncob.h"

namespace probes {

int Ignore(auto... arguments);

// In a register: tracers cannot read a thread's own variable where it lies, and perf takes no
// argument that is a constant at one place and a register at another.
template <class Word>
Word InRegister(Word word) {
    __asm__("" : "+r"(word));
    return word;
}

inline ZoTLS const* Me() {
    return InRegister<ZoTLS const*>(currentRecord);
}

inline void WaitBegun(ZoSynchroObj const& object, bool isLock) {
    STAP_PROBE4(zo95Kex, wait_begun, &object, object.GetName(), Me(), InRegister(isLock ? 1 : 0));
}

inline void WaitEnded(ZoSynchroObj const& object, bool isLock) {
    STAP_PROBE4(zo95Kex, wait_ended, &object, object.GetName(), Me(), InRegister(isLock ? 1 : 0));
}

inline void DeadlockFound(ZoSynchroObj const& object, ZoTLS const* me) {
    STAP_PROBE3(zo95Kex, deadlock_found, &object, object.GetName(), me);
}

[[gnu::always_inline]] inline void ReaderAdmitted(ZoSynchroObj const& mutex, ZoTLS const* me) {
    STAP_PROBE3(zo95Kex, reader_admitted, &mutex, mutex.GetName(), me);
}

[[gnu::always_inline]] inline void WriterAdmitted(ZoSynchroObj const& mutex, void const* identity) {
    STAP_PROBE3(zo95Kex, writer_admitted, &mutex, mutex.GetName(), identity);
}

[[gnu::always_inline]] inline void UnitAppended(void const* queue, ZoSynchroObj const& condition,
                                                void const* unit) {
    STAP_PROBE4(zo95Kex, unit_appended, queue, condition.GetName(), Me(), unit);
}

[[gnu::always_inline]] inline void UnitTaken(void const* queue, ZoSynchroObj const& condition,
                                             ZoTLS const* me, void const* unit) {
    STAP_PROBE4(zo95Kex, unit_taken, queue, condition.GetName(), me, unit);
}

[[gnu::always_inline]] inline void UnitDone(void const* queue, ZoSynchroObj const& condition,
                                            ZoTLS const* me, void const* unit) {
    STAP_PROBE4(zo95Kex, unit_done, queue, condition.GetName(), me, unit);
}

inline void ThreadStarted(void const* thread, char const* name) {
    STAP_PROBE3(zo95Kex, thread_started, thread, name, Me());
}

inline void ThreadEnded(void const* thread, char const* name, void const* identity) {
    STAP_PROBE3(zo95Kex, thread_ended, thread, name, identity);
}

}  // namespace probes

#endif  // KELVARA_SRC_PROBES_H_
