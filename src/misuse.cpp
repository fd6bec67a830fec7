#include "misuse.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <typeinfo>

#include "at_fork.h"
#include "cancellation.h"
#include "owned_sections.h"
#include "rw_fast.h"
#include "rw_mutex.h"
#include "wait_graph.h"
#include "zobase.h"
#include "zothrdmg.h"

namespace {

// A piece of a line.
struct Piece {
    char text[256] = "";
};

__attribute__((format(printf, 1, 2))) Piece Format(char const* format, ...) {
    Piece piece;
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(piece.text, sizeof piece.text, format, values);
    va_end(values);
    return piece;
}

// "thread 0x7f2d14003e80" or "nobody".
Piece Thread(void* identity) {
    return identity == nullptr ? Format("nobody") : Format("thread %p", identity);
}

// ' (EndReader, label "commit")', and the same with a number.
Piece Call(Bracket const& bracket, char const* label) {
    return Format(" (%s, label \"%.120s\")", bracket.name, label != nullptr ? label : "");
}
Piece Call(Bracket const& bracket, char const* label, unsigned long index) {
    return Format(" (%s, label \"%.120s\", index %lu)", bracket.name, label != nullptr ? label : "",
                  index);
}

WaitForGraph::Holder OwnerOf(ZoDLDCritSect const& section) {
    GraphLock lock;
    return WaitForGraph::OwnerOf(&section);
}

long Number(std::atomic<ZoInt32> const& count) {
    return count.load(std::memory_order_relaxed);
}

}  // namespace

void NameList::Add(char const* format, ...) {
    if (length >= sizeof text) return;
    if (length != 0) {
        length +=
            static_cast<std::size_t>(std::snprintf(text + length, sizeof text - length, ", "));
        if (length >= sizeof text) return;
    }
    std::va_list values;
    va_start(values, format);
    length += static_cast<std::size_t>(
        std::vsnprintf(text + length, sizeof text - length, format, values));
    va_end(values);
}

// --- sections ------------------------------------------------------------------------------------

// Whether the section detects, and was made in this process.
bool Misuse::IsTold(ZoCritSect const& section) {
    return typeid(section) == typeid(ZoDLDCritSect) &&
           static_cast<ZoDLDCritSect const&>(section).generation == ForkGeneration();
}

void Misuse::TellLeave(ZoDLDCritSect& section, char const* call) {
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(
        ZoLogError, "ZoThread %p leaves critical section %s %p owned by %s: nothing changes%s",
        OwnedSections::Identity(), section.GetName(), static_cast<void*>(&section),
        Thread(OwnerOf(section).identity).text, call);
}

void Misuse::TellLeave(ZoDLDCritSect& section) {
    TellLeave(section, "");
}

void Misuse::TellLeave(ZoDLDCritSect& section, unsigned long index, Bracket const& bracket,
                       char const* label) {
    TellLeave(section, Call(bracket, label, index).text);
}

void Misuse::TellDestruction(ZoDLDCritSect& section) {
    if (section.isPart || !IsTold(section)) return;
    WaitForGraph::Holder const owner = OwnerOf(section);
    long const waiting = Number(section.waitCount);
    if (waiting == 0 && OwnedSections::IsKept(owner.thread)) return;
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(ZoLogError,
                          "ZoThread %p destroys critical section %s %p owned by %s; "
                          "owning count: %ld; wait count: %ld",
                          OwnedSections::Identity(), section.GetName(),
                          static_cast<void*>(&section), Thread(owner.identity).text,
                          Number(section.owningCount), waiting);
}

// --- reader/writer mutexes -----------------------------------------------------------------------

void Misuse::TellDestruction(ZoGenRW_Mutex& mutex) {
    if (!mutex.IsComplete() || !IsTold(*mutex.exclusive)) return;
    auto const& section = static_cast<ZoDLDCritSect const&>(*mutex.exclusive);
    int const reading = mutex.CountReaders();
    long const toRead = Number(mutex.waitingReaders);
    long const toWrite = Number(mutex.waitingWriters);
    bool const written =
        Number(mutex.WriterLevel) != 0 && !OwnedSections::IsKept(OwnerOf(section).thread);
    if (reading == 0 && toRead == 0 && toWrite == 0 && !written) return;
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(ZoLogError,
                          "ZoThread %p destroys reader/writer mutex %p written by %s; "
                          "write depth: %ld; threads that read: %d; that wait to read: %ld; "
                          "that wait to write: %ld",
                          OwnedSections::Identity(), static_cast<void*>(&mutex),
                          Thread(mutex.owner.load(std::memory_order_relaxed)).text,
                          Number(mutex.WriterLevel), reading, toRead, toWrite);
}

void Misuse::TellHeldAtEnd(ZoTLS const* record, bool ends) {
    NameList held;
    for (ZoSimpleLinkedListItem* item = record->rwRecords.GetFirst(); item != nullptr;
         item = item->GetNext()) {
        auto const* const one = static_cast<ZoRWRecord*>(item);
        if (one->holdings == 0) continue;
        held.Add("%p (read depth %lu, write depth %lu)", static_cast<void const*>(one->mutex),
                 static_cast<unsigned long>(ReadDepth(one->holdings)),
                 static_cast<unsigned long>(WriteDepth(one->holdings)));
    }
    if (held.IsEmpty()) return;
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(ZoLogError, "ZoThread %p %s and still holds reader/writer mutexes: %s",
                          record->threadIdentity, ends ? "ended" : "was detached", held.Text());
}

void Misuse::TellOwnedAtEnd(void* thread, NameList const& sections) {
    ZoSystemLog()->Printf(ZoLogError, "ZoThread %p ended and still owns critical sections: %s",
                          thread, sections.Text());
}

// --- brackets ------------------------------------------------------------------------------------

// The call would have been right with the other value of lessExclusive.
void Misuse::TellEnd(ZoGenRW_Mutex const& mutex, int mode, Bracket const& bracket,
                     char const* label) {
    if (!IsTold(*mutex.exclusive)) return;
    ZoRWRecord const* const record =
        currentRecord != nullptr ? FindRwRecord(currentRecord, &mutex) : nullptr;
    ZoUInt32 const holdings = record != nullptr ? record->holdings : 0;
    char const* expected = bracket.expected;
    if (bracket.hasFlag && holdings != 0)
        expected = mode == 0 ? "lessExclusive 0" : "lessExclusive 1";
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(ZoLogError,
                          "ZoThread %p ends a %s of reader/writer mutex %p that it does not hold: "
                          "read depth %lu, write depth %lu, written by %s; expected %s; "
                          "nothing changes%s",
                          OwnedSections::Identity(), mode == 0 ? "read" : "write",
                          static_cast<void const*>(&mutex),
                          static_cast<unsigned long>(ReadDepth(holdings)),
                          static_cast<unsigned long>(WriteDepth(holdings)),
                          Thread(mutex.owner.load(std::memory_order_relaxed)).text, expected,
                          Call(bracket, label).text);
}

void Misuse::TellIndex(ZoThreadMgr const* manager, unsigned long index, Bracket const& bracket,
                       char const* label) {
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(ZoLogError,
                          "ZoThread %p asks thread manager %p for a critical section that it does "
                          "not have: expected an index of 0 to 14 or 17 to 25; nothing changes%s",
                          OwnedSections::Identity(), static_cast<void const*>(manager),
                          Call(bracket, label, index).text);
}
