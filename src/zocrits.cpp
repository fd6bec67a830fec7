#include "zocrits.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <new>
#include <typeinfo>

#include "cancellation.h"
#include "chain.h"
#include "console_sink.h"
#include "deadlock_io.h"
#include "debug_path.h"
#include "rw_record.h"
#include "section_try.h"
#include "smp_io.h"
#include "zobase.h"
#include "zosleep.h"

ZoCritSect* csDLD = nullptr;

namespace {

// Read when a section is made. A plain word, because the host sets it through its address.
int DeadLockDetectionEnabled = 0;

// The owner of a free POSIX section.
constexpr pthread_t NoThread = 0;

// What a POSIX section's word says.
constexpr int Free = 0;
constexpr int Taken = 1;
constexpr int Awaited = 2;

// What is no thread's identity, nor that of a free section.
constexpr pthread_t UnknownThread = ~NoThread;

// The calling thread's identity, kept in a word of its own because every entry asks for it and
// pthread_self() is a call into the system library; UnknownThread until the thread first owns a
// section. The initial-exec model makes the word one load at a fixed distance from the thread's
// base, for eight bytes of static thread-local storage.
[[gnu::tls_model("initial-exec")]] constinit thread_local pthread_t self = UnknownThread;

// Lets a waiting processor rest for a moment, without giving it away.
void RelaxProcessor() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Wakes one thread that sleeps on the word of a section, if there is one.
[[gnu::cold, gnu::noinline]] void WakeOne(std::atomic<int>& word) {
    word.notify_one();
}

// Enters the section that guards the wait-for graph for a scope. Without the library context there
// is none, and no thread waits.
class GraphLock {
public:
    GraphLock() : section(csDLD) {
        if (section != nullptr) section->Begin();
    }
    GraphLock(GraphLock const&) = delete;
    GraphLock& operator=(GraphLock const&) = delete;
    ~GraphLock() {
        if (section != nullptr) section->Exit();
    }

private:
    ZoCritSect* section;
};

}  // namespace

// --- factories ---------------------------------------------------------------------------------

ZoCritSect* ZoCritSect::Make(char const* name) {
    ZoCritSect* plain = MakeImplementation(name);
    int const detect =
        std::atomic_ref<int>(DeadLockDetectionEnabled).load(std::memory_order_relaxed);
    if (plain == nullptr || detect == 0) return plain;
    ZoCritSect* detecting = new (std::nothrow) ZoDLDCritSect(name, plain);
    if (detecting == nullptr) delete plain;
    return detecting;
}

ZoCritSect* ZoCritSect::MakeLight(char const* name) {
    return Make(name);
}

ZoCritSect* ZoCritSect::MakeDummy(char const* name) {
    return new (std::nothrow) ZoCritSect(name);
}

ZoCritSect* ZoCritSect::MakeImplementation(char const* name) {
    return new (std::nothrow) PosixCritSect(name);
}

int* ZoGetDeadLockDetectionEnabled() {
    return &DeadLockDetectionEnabled;
}

ZoCritSect** ZoGetCritSectCritSect() {
    return &csDLD;
}

ZoCritSect* ZoMakeCritSectCritSect() {
    return ZoCritSect::MakeImplementation("DeadLockDetectionCS");
}

// --- the dummy section, base of the others -----------------------------------------------------

ZoCritSect::ZoCritSect(char const* name) : ZoCritSect(name, ChainLock()) {}

ZoCritSect::ZoCritSect(char const* name, ChainLock const&) : ZoSynchroObj(name) {}

ZoCritSect::~ZoCritSect() {
    LeaveChain(this);
}

void ZoCritSect::ForceRelease() {}

void ZoCritSect::Begin() {}

void ZoCritSect::Exit() {}

void ZoCritSect::GetInfo(char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return;
    std::snprintf(buffer, static_cast<std::size_t>(size), "%s: owning count: %ld; wait count: %ld",
                  GetName(), static_cast<long>(GetOwningCount()),
                  static_cast<long>(waitCount.load(std::memory_order_relaxed)));
}

// --- the section over a word -------------------------------------------------------------------

PosixCritSect::PosixCritSect(char const* name) : PosixCritSect(name, ChainLock()) {}

PosixCritSect::PosixCritSect(char const* name, ChainLock const& held)
    : ZoCritSect(name, held), owner(NoThread), word(Free) {
    pthread_mutexattr_init(&attributes);
    pthread_mutex_init(&mutex, &attributes);
}

PosixCritSect::~PosixCritSect() {
    LeaveChain(this);
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&attributes);
}

// Invariant: `owner` holds a thread's identity only between that thread's taking and freeing of the
// word, and only that thread writes it. So a thread finds itself there exactly when it owns the
// section; whatever else a thread reads there, it is not its own identity. Relaxed order is enough:
// a thread sees its own writes in order, and everything else is ordered by the word.
bool PosixCritSect::IsMine() const {
    return owner.load(std::memory_order_relaxed) == self;
}

void PosixCritSect::Begin() {
    if (IsMine()) {
        SetOwningCount(GetOwningCount() + 1);
    } else if (!TakeIfFree()) {
        WaitAndTake();
    }
}

// Acquire order, here and in SleepAndTake, meets the release order of the Exit that freed the word:
// what an owner did comes before what the next one does.
bool PosixCritSect::TakeIfFree() {
    int expected = Free;
    if (!word.compare_exchange_strong(expected, Taken, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
        return false;
    }
    Own();
    return true;
}

void PosixCritSect::Own() {
    if (self == UnknownThread) self = pthread_self();
    owner.store(self, std::memory_order_relaxed);
    SetOwningCount(1);
}

// Most sections are held for less time than the system takes to put a thread to sleep and wake it,
// so the thread tries again a few times, each time after a longer rest: while it rests it leaves
// the section's memory to the owner.
void PosixCritSect::WaitAndTake() {
    constexpr int FirstRest = 16;
    constexpr int LastRest = 128;
    for (int rest = FirstRest; rest <= LastRest; rest *= 2) {
        for (int i = 0; i < rest; ++i) RelaxProcessor();
        if (TakeIfFree()) return;
    }
    waitCount.fetch_add(1, std::memory_order_relaxed);
    SleepAndTake();
    waitCount.fetch_sub(1, std::memory_order_relaxed);
    Own();
}

// The thread leaves Awaited behind when it gets the section, because others may sleep as well. No
// wake-up is lost: the word is Awaited before a thread sleeps, it sleeps only while it still is,
// and whoever frees an awaited word wakes one. The system may set errno in a sleep; the caller, who
// expects no error of a section, must not see it.
void PosixCritSect::SleepAndTake() {
    int const error = errno;
    while (word.exchange(Awaited, std::memory_order_acquire) != Free) {
        word.wait(Awaited, std::memory_order_relaxed);
    }
    errno = error;
}

void PosixCritSect::Exit() {
    ZoInt32 const left = GetOwningCount() - 1;
    SetOwningCount(left);
    if (left != 0) return;
    owner.store(NoThread, std::memory_order_relaxed);
    // The section may be destroyed as soon as it is free. Waking takes the word's address only.
    std::atomic<int>& freed = word;
    if (freed.exchange(Free, std::memory_order_release) == Awaited) WakeOne(freed);
}

// Counts the levels beforehand: after the last one another thread may destroy the section.
void PosixCritSect::ForceRelease() {
    if (!IsMine()) return;
    for (ZoInt32 level = GetOwningCount(); level != 0; --level) Exit();
}

// --- the wait-for graph ------------------------------------------------------------------------

// The edges of the graph: who owns a section, what a thread waits for. All of it needs csDLD.
class WaitForGraph {
public:
    static ZoTLS* OwnerOf(ZoDLDCritSect const* section) {
        return section->owner.load(std::memory_order_relaxed);
    }

    // The thread that `thread` waits for; null when it waits for no section or for a free one.
    static ZoTLS* BlockerOf(ZoTLS volatile const* thread) {
        ZoDLDCritSect const* const section = thread->waitingFor;
        return section == nullptr ? nullptr : OwnerOf(section);
    }

    // Whether the chain of waits that begins at `thread` comes to `target`. A chain may also run
    // into a ring without `target`, of threads left waiting for each other after an earlier report.
    // Each thread waits for one section and each section has one owner, so such a ring comes back
    // to every thread on it: the walk keeps one thread in mind, a later one each time the number of
    // steps has doubled (Brent), and ends when it meets that thread again. It allocates nothing and
    // visits each thread at most a few times.
    static bool LeadsTo(ZoTLS volatile const* thread, ZoTLS volatile const* target) {
        ZoTLS volatile const* remembered = thread;
        unsigned long steps = 0;
        unsigned long limit = 1;
        while (thread != nullptr && thread->waitingFor != nullptr) {
            thread = BlockerOf(thread);
            if (thread == target) return true;
            if (thread == remembered) return false;
            if (++steps == limit) {
                remembered = thread;
                steps = 0;
                limit *= 2;
            }
        }
        return false;
    }
};

int ThreadWaitsForThread(ZoTLS volatile* waiter, ZoTLS volatile* target) {
    GraphLock lock;
    return WaitForGraph::LeadsTo(waiter, target) ? 1 : 0;
}

// --- the deadlock-detecting section ------------------------------------------------------------

namespace {

// The delay of every last Exit in milliseconds; UnreadDelay until the first section is made.
constexpr int UnreadDelay = -2;
std::atomic<int> doSleep{UnreadDelay};

// Reads the delay once in the process. The thread that takes the word from UnreadDelay to 0 is the
// one that reads; to others there is no delay until it has stored what it read. Nothing depends on
// more than the number itself, so relaxed order is enough. Done before the chain's lock is taken:
// the configuration is the host's code.
void ReadDelayOnce() {
    int expected = UnreadDelay;
    if (!doSleep.compare_exchange_strong(expected, 0, std::memory_order_relaxed)) return;
    int milliseconds = 0;
    if (ZoConfig* configuration = ZoDefaultConfiguration()) {
        configuration->ReadValue("csSleepTime", &milliseconds, debug_path);
    }
    doSleep.store(milliseconds, std::memory_order_relaxed);
}

bool AnswerWantsDebugger(unsigned int answer) {
    return answer == ZoAnswerDebug || answer == ZoAnswerAbort;
}

}  // namespace

ZoDLDCritSect::ZoDLDCritSect(char const* name, ZoCritSect* wrapped)
    : ZoDLDCritSect(name, wrapped, (ReadDelayOnce(), ChainLock())) {}

ZoDLDCritSect::ZoDLDCritSect(char const* name, ZoCritSect* wrapped, ChainLock const& held)
    : ZoCritSect(name, held), wrapped(wrapped) {}

ZoDLDCritSect::~ZoDLDCritSect() {
    LeaveChain(this);
    delete wrapped;
}

void UnchainSection(ZoCritSect* section) {
    if (auto* const detecting = dynamic_cast<ZoDLDCritSect*>(section)) {
        HandleChaining(detecting->wrapped, 0);
    }
    HandleChaining(section, 0);
}

int ZoDLDCritSect::WouldDeadLock(ZoTLS* me) {
    return WaitForGraph::LeadsTo(WaitForGraph::OwnerOf(this), me) ? 1 : 0;
}

void ZoDLDCritSect::Begin() {
    ZoTLS* const me = CurrentThread();
    if (me == nullptr) {
        // No record, which was reported: nothing can be told apart, so only lock.
        EnterWrapped();
        SetOwningCount(GetOwningCount() + 1);
        return;
    }
    // Only the owner finds its own record here, and it wrote it itself: no lock, no order needed.
    if (owner.load(std::memory_order_relaxed) == me) {
        SetOwningCount(GetOwningCount() + 1);
        return;
    }
    bool suspect = false;
    if (TakeOrAnnounce(me, suspect)) return;
    EnterWrapped();
    if (suspect) ReportFalseAlarm();
    TakeOwnership(me);
    waitCount.fetch_sub(1, std::memory_order_relaxed);
    SetOwningCount(GetOwningCount() + 1);
}

// In one hold of csDLD: takes the section if it is free, which ends the matter; or looks for a ring
// and enters the wait into the graph. Of the threads that are about to close a ring, the last one
// to announce its wait finds the others' in the graph.
bool ZoDLDCritSect::TakeOrAnnounce(ZoTLS* me, bool& suspect) {
    GraphLock lock;
    if (TakeIfFree(me)) return true;
    waitCount.fetch_add(1, std::memory_order_relaxed);
    suspect = WouldDeadLock(me) != 0;
    if (suspect) ReportDeadlock(me);
    me->waitingFor = this;
    return false;
}

// With csDLD held. Only our own kind of a wrapped section can be tried.
bool ZoDLDCritSect::TakeIfFree(ZoTLS* me) {
    if (!TryBegin(*wrapped)) return false;
    owner.store(me, std::memory_order_relaxed);
    SetOwningCount(1);
    return true;
}

// Our own kinds can be tried; for any other the answer is no, and the thread waits for it.
bool TryBegin(ZoCritSect& section) {
    if (typeid(section) == typeid(PosixCritSect)) {
        return static_cast<PosixCritSect&>(section).TakeIfFree();
    }
    if (typeid(section) != typeid(ZoDLDCritSect)) return false;
    ZoTLS* const me = CurrentThread();
    if (me == nullptr) return false;
    GraphLock lock;
    return static_cast<ZoDLDCritSect&>(section).TakeIfFree(me);
}

// The wrapped section is entered once, whatever the depth. A thread that comes here as its owner
// had no record before, so its entry went unnoticed: it gives the second level back.
void ZoDLDCritSect::EnterWrapped() {
    wrapped->Begin();
    if (GetOwningCount() != 0) wrapped->Exit();
}

void ZoDLDCritSect::TakeOwnership(ZoTLS* me) {
    GraphLock lock;
    me->waitingFor = nullptr;
    owner.store(me, std::memory_order_relaxed);
}

void ZoDLDCritSect::Exit() {
    ZoInt32 const left = GetOwningCount() - 1;
    SetOwningCount(left);
    if (left != 0) return;
    if (int const delay = doSleep.load(std::memory_order_relaxed); delay != 0) {
        CancellationDeferred deferred;
        ZoThreadSwitchWithDelay(delay);
    }
    GraphLock lock;
    owner.store(nullptr, std::memory_order_relaxed);
    wrapped->Exit();
}

void ZoDLDCritSect::ForceRelease() {
    ZoTLS* const me = CurrentThread();
    if (me == nullptr || owner.load(std::memory_order_relaxed) != me) return;
    SetOwningCount(0);
    GraphLock lock;
    owner.store(nullptr, std::memory_order_relaxed);
    wrapped->ForceRelease();
}

void ZoDLDCritSect::GetInfo(char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return;
    std::size_t const room = static_cast<std::size_t>(size);
    GraphLock lock;  // keeps the owner's record and what it waits for alive
    ZoTLS const* const thread = WaitForGraph::OwnerOf(this);
    if (thread == nullptr) {
        std::snprintf(buffer, room, "%s: is available", GetName());
        return;
    }
    long const count = GetOwningCount();
    long const waiting = waitCount.load(std::memory_order_relaxed);
    if (thread->waitingFor != nullptr) {
        std::snprintf(
            buffer, room,
            "%s: owning thread: %p, owning count: %ld; wait count: %ld; owner waiting for %s",
            GetName(), thread->threadIdentity, count, waiting, thread->waitingFor->GetName());
    } else {
        std::snprintf(buffer, room, "%s: owning thread: %p, owning count: %ld; wait count: %ld",
                      GetName(), thread->threadIdentity, count, waiting);
    }
}

// --- the report --------------------------------------------------------------------------------

namespace {

// A console of nobody: what is written to it reaches the log file of a report alone.
class SilentConsole : public smp_io {
public:
    SilentConsole() {
        delete sink;
        sink = nullptr;
    }
};

// The ring, in words and traces, to `console` and to the log file at once.
void WriteReport(ZoTLS* me, ZoDLDCritSect* section, smp_io& console) {
    LoggedConsole logged(console);
    DeadlockDetectionMakeMessage(me, section, &console);
    ZoTLSPrepareStackTrace(&console);
    ZoTLSStackTrace(me, &console);
    // A sink of the host may have left a section meanwhile, so the chain may break off.
    for (ZoTLS* thread = WaitForGraph::OwnerOf(section); thread != nullptr && thread != me;
         thread = WaitForGraph::BlockerOf(thread)) {
        ZoTLSStackTrace(thread, &console);
        console << endl;
    }
    console.flush();
    ZoTLSTerminateStackTrace();
}

void WriteReport(ZoTLS* me, ZoDLDCritSect* section) {
    if (smp_io* const console = GetConsole()) return WriteReport(me, section, *console);
    SilentConsole silent;
    WriteReport(me, section, silent);
}

}  // namespace

void ZoDLDCritSect::ReportDeadlock(ZoTLS* me) {
    CancellationDeferred deferred;
    WriteReport(me, this);
    char description[1024];
    GetInfo(description, sizeof description);
    ZoSystemLog()->Printf(4, "Deadlock detected.\n%s", description);
    unsigned int const answer =
        ZoMessage()->Show(0, ZoStyleQuestion, "Deadlock detected.\n(CANCEL to debug)");
    if (AnswerWantsDebugger(answer)) {
        ZOVA_assert("(0 && \"deadlock detected\")", "src/zocrits", 365);
    }
}

void ZoDLDCritSect::ReportFalseAlarm() {
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(3, "Deadlock: false alarm.\n");
    unsigned int const answer = ZoMessage()->Show(0, ZoStyleNotice, "Deadlock: false alarm.\n");
    if (AnswerWantsDebugger(answer)) {
        ZOVA_assert("(0 && \"deadlock : false alarm\")", "src/zocrits", 385);
    }
}

void DeadlockDetectionMakeMessage(ZoTLS* me, ZoDLDCritSect* section, smp_io* console) {
    *console << "ZoThread " << me->threadIdentity << " wants critical section "
             << section->GetName() << " " << static_cast<void*>(section) << " owned by ";
    ZoTLS* thread = WaitForGraph::OwnerOf(section);
    while (thread != nullptr) {
        *console << "thread " << thread->threadIdentity << endl;
        if (thread == me) {
            *console << endl;
            console->flush();
            return;
        }
        *console << "ZoThread " << thread->threadIdentity << " is waiting for ";
        ZoDLDCritSect* const wanted = thread->waitingFor;
        if (wanted == nullptr) {
            *console << "nothing !!!" << endl;
            console->flush();
            return;
        }
        *console << wanted->GetName() << " " << static_cast<void*>(wanted) << " owned by ";
        thread = WaitForGraph::OwnerOf(wanted);
    }
    *console << "nobody !!!!" << endl;
    console->flush();
}

deadlock_io::deadlock_io(_smp_io* wrapped)
    : wrapped(wrapped), file(std::fopen("deadlock.txt", "a+")) {
    if (file == nullptr) {
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
