#include "zocrits.h"

#include <cstddef>
#include <cstdio>
#include <new>
#include <typeinfo>

#include "at_fork.h"
#include "call_stack.h"
#include "cancellation.h"
#include "chain.h"
#include "checkers.h"
#include "current_thread.h"
#include "deadlock_io.h"
#include "debug_path.h"
#include "misuse.h"
#include "owned_sections.h"
#include "section_try.h"
#include "smp_io.h"
#include "wait_figures.h"
#include "wait_graph.h"
#include "zobase.h"
#include "zosleep.h"

ZoCritSect* csDLD = nullptr;

namespace {

// Read when a section is made. A plain word, because the host sets it through its address.
int DeadLockDetectionEnabled = 0;
[[maybe_unused]] int const isMarked = checkers::AreAtomic(DeadLockDetectionEnabled);

// Lets a waiting processor rest for a moment, without giving it away.
void RelaxProcessor() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

// Most sections are held for less time than the system takes to put a thread to sleep and wake it,
// so a thread that finds a section taken tries a few times more before it blocks, each time after a
// longer rest: while it rests it leaves the section's memory to the owner. False: still not taken.
template <class TryToTake>
bool TakeAtGrowingDistances(TryToTake tryToTake) {
    constexpr int FirstRest = 16;
    constexpr int LastRest = 128;
    for (int rest = FirstRest; rest <= LastRest; rest *= 2) {
        for (int i = 0; i < rest; ++i) RelaxProcessor();
        if (tryToTake()) return true;
    }
    return false;
}

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

ZoCritSect::ZoCritSect(char const* name, ChainLock const&) : ZoSynchroObj(name) {
    checkers::AreAtomic(owningCount, waitCount);
}

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

// --- the section over a POSIX mutex ------------------------------------------------------------

PosixCritSect::PosixCritSect(char const* name) : PosixCritSect(name, ChainLock()) {}

PosixCritSect::PosixCritSect(char const* name, ChainLock const& held)
    : ZoCritSect(name, held), owner(NoThread), ownerNumber(0) {
    checkers::AreAtomic(owner, ownerNumber, mutex);
    FiguresAreAtomic(figures);
    pthread_mutexattr_init(&attributes);
    pthread_mutex_init(&mutex, &attributes);
}

PosixCritSect::~PosixCritSect() {
    LeaveChain(this);
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&attributes);
}

// Invariant: a thread's handle stands in `owner`, and its number beside it, only while that thread
// has the mutex, and only that thread writes them. So a thread finds both its own exactly when it
// owns the section. Whatever else it reads is not its own: a thread that lives has another handle,
// and one that ended as the owner, whose handle the system may have given to the calling thread,
// had another number. Relaxed order is enough: a thread sees its own writes in order, everything
// that an ended thread with the same handle wrote comes before its own beginning, and all else is
// ordered by the mutex.
bool PosixCritSect::IsMine() const {
    return owner.load(std::memory_order_relaxed) == self.handle &&
           ownerNumber.load(std::memory_order_relaxed) == self.number;
}

// A snapshot, which saves a try that would fail. Nothing relies on it.
bool PosixCritSect::IsFree() const {
    return owner.load(std::memory_order_relaxed) == NoThread;
}

void PosixCritSect::Begin() {
    if (IsMine()) {
        SetOwningCount(GetOwningCount() + 1);
    } else if (!TakeIfFree()) {
        WaitAndTake();
    }
}

void PosixCritSect::Own() {
    if (self.handle == UnknownThread) [[unlikely]]
        OwnedSections::Introduce();
    ownerNumber.store(self.number, std::memory_order_relaxed);
    owner.store(self.handle, std::memory_order_relaxed);
    SetOwningCount(1);
    ++self.owned;
}

bool PosixCritSect::TakeIfFree() {
    if (pthread_mutex_trylock(&mutex) != 0) return false;
    Own();
    return true;
}

void PosixCritSect::WaitAndTake() {
    if (TakeAtGrowingDistances([this] { return IsFree() && TakeIfFree(); })) return;
    waitCount.fetch_add(1, std::memory_order_relaxed);
    {
        MeasuredWait const wait(figures, partOf != nullptr ? *partOf : *this, true);
        pthread_mutex_lock(&mutex);
    }
    waitCount.fetch_sub(1, std::memory_order_relaxed);
    Own();
}

void PosixCritSect::Exit() {
    ZoInt32 const left = GetOwningCount() - 1;
    SetOwningCount(left);
    if (left != 0) return;
    --self.owned;
    owner.store(NoThread, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex);  // the section may be destroyed as soon as it is free
}

// Counts the levels beforehand: after the last one another thread may destroy the section.
void PosixCritSect::ForceRelease() ZO_NOT_ANALYSED {
    if (!IsMine()) return;
    for (ZoInt32 level = GetOwningCount(); level != 0; --level) Exit();
}

// --- the deadlock-detecting section ------------------------------------------------------------

namespace {

// The delay of every last Exit in milliseconds; UnreadDelay until the first section is made.
constexpr int UnreadDelay = -2;
std::atomic<int> doSleep{UnreadDelay};
[[maybe_unused]] int const toldDelay = checkers::AreAtomic(doSleep);

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

void ReadKeysOnce() {
    ReadDelayOnce();
    CallStacks::ReadKeyOnce();
}

}  // namespace

ZoDLDCritSect::ZoDLDCritSect(char const* name, ZoCritSect* wrapped)
    : ZoDLDCritSect(name, wrapped, (ReadKeysOnce(), ChainLock())) {}

ZoDLDCritSect::ZoDLDCritSect(char const* name, ZoCritSect* wrapped, ChainLock const& held)
    : ZoCritSect(name, held),
      wrapped(wrapped),
      plain(wrapped != nullptr && typeid(*wrapped) == typeid(PosixCritSect)
                ? static_cast<PosixCritSect*>(wrapped)
                : nullptr),
      generation(ForkGeneration()) {
    checkers::AreAtomic(owner);
    if (plain != nullptr) plain->partOf = this;
}

ZoDLDCritSect::~ZoDLDCritSect() {
    LeaveChain(this);
    bool const isOwned = owner.load(std::memory_order_relaxed) != nullptr;
    if (isOwned || waitCount.load(std::memory_order_relaxed) != 0) Misuse::TellDestruction(*this);
    delete wrapped;
}

void UnchainSection(ZoCritSect* section) {
    if (auto* const detecting = dynamic_cast<ZoDLDCritSect*>(section)) {
        HandleChaining(detecting->wrapped, 0);
        detecting->isPart = true;
    }
    HandleChaining(section, 0);
}

void SetWhole(ZoCritSect* part, ZoSynchroObj const* whole) {
    auto* const detecting = dynamic_cast<ZoDLDCritSect*>(part);
    auto* const plain =
        detecting != nullptr ? detecting->plain : dynamic_cast<PosixCritSect*>(part);
    if (plain != nullptr) plain->partOf = whole;
}

int ZoDLDCritSect::WouldDeadLock(ZoTLS* me) {
    return WaitForGraph::LeadsTo(Wait{.section = this}, me) ? 1 : 0;
}

void ZoDLDCritSect::Begin() {
    ZoTLS* const me = CurrentThread();
    if (me == nullptr) [[unlikely]]
        return BeginWithoutRecord();
    // Only the owner finds its own record here, and it wrote it itself: no lock, no order needed.
    // The record of a thread that ended as the owner is never freed, so its address does not come
    // back either.
    if (owner.load(std::memory_order_relaxed) == me) {
        SetOwningCount(GetOwningCount() + 1);
    } else if (!TakeBesideGraph(me)) {
        WaitAndTake(me);
    }
}

// Without a record, which was reported, threads cannot be told apart: it only locks.
void ZoDLDCritSect::BeginWithoutRecord() {
    EnterWrapped();
    SetOwningCount(GetOwningCount() + 1);
}

// Takes the section without csDLD if that needs no wait and csDLD is free. A concurrent walk sees a
// section without an owner, or an owner that runs.
bool ZoDLDCritSect::TakeBesideGraph(ZoTLS* me) {
    return GraphIsFree() && TakeIfFree(me);
}

// Only our own kind of a wrapped section can be tried. Release order: the owner's record was made
// before, and a walk reads it.
bool ZoDLDCritSect::TakeIfFree(ZoTLS* me) {
    if (plain == nullptr || !plain->TakeIfFree()) return false;
    Own(me);
    return true;
}

void ZoDLDCritSect::Own(ZoTLS* me) {
    ++me->ownedSections;
    checkers::Release(&owner);
    owner.store(me, std::memory_order_release);
    SetOwningCount(1);
}

void ZoDLDCritSect::WaitAndTake(ZoTLS* me) {
    if (plain != nullptr && GraphCanBePassed() &&
        TakeAtGrowingDistances([&] { return plain->IsFree() && TakeBesideGraph(me); })) {
        return;
    }
    bool suspect = false;
    waitCount.fetch_add(1, std::memory_order_relaxed);
    try {
        if (TakeOrAnnounce(me, suspect)) return;
        EnterWrapped();
    } catch (...) {  // the thread ends: a wrapped section or a service of the host's had it do so
        GraphLock lock;
        WithdrawWait(me);
        throw;
    }
    EndWait(me);
    if (suspect) ReportFalseAlarm();
}

// In one hold of csDLD: takes the section if it is free and returns true; else looks for a ring and
// enters the wait into the graph. Of the threads that are about to close a ring, the last one to
// announce its wait finds the others' waits in the graph.
bool ZoDLDCritSect::TakeOrAnnounce(ZoTLS* me, bool& suspect) {
    GraphLock lock;
    if (TakeIfFree(me)) {
        waitCount.fetch_sub(1, std::memory_order_relaxed);
        return true;
    }
    suspect = AnnounceWait(me, {.section = this});
    return false;
}

// Only the library's own kinds can be tried; for any other the answer is no.
bool TryBegin(ZoCritSect& section) {
    if (typeid(section) == typeid(PosixCritSect)) {
        return static_cast<PosixCritSect&>(section).TakeIfFree();
    }
    if (typeid(section) != typeid(ZoDLDCritSect)) return false;
    ZoTLS* const me = CurrentThread();
    if (me == nullptr) return false;
    auto& detecting = static_cast<ZoDLDCritSect&>(section);
    if (detecting.TakeBesideGraph(me)) return true;
    GraphLock lock;
    return detecting.TakeIfFree(me);
}

// Only the owner finds itself there, as in Begin.
int ZoTryBegin(ZoCritSect* section) {
    std::type_info const& type = typeid(*section);
    if (type == typeid(ZoCritSect)) return 1;
    bool const again =
        (type == typeid(PosixCritSect) && static_cast<PosixCritSect*>(section)->IsMine()) ||
        (type == typeid(ZoDLDCritSect) && currentRecord != nullptr &&
         static_cast<ZoDLDCritSect*>(section)->owner.load(std::memory_order_relaxed) ==
             currentRecord);
    if (again) section->Begin();
    return again || TryBegin(*section) ? 1 : 0;
}

// The wrapped section is entered once, whatever the depth. A thread that comes here as its owner
// had no record before, so its entry went unnoticed: it gives the second level back.
void ZoDLDCritSect::EnterWrapped() ZO_NOT_ANALYSED {
    wrapped->Begin();
    if (GetOwningCount() != 0) wrapped->Exit();
}

// Called before anything else: the report of a false alarm runs the host's code, which may wait for
// other sections, and the thread must stand in the graph as the owner by then.
void ZoDLDCritSect::EndWait(ZoTLS* me) {
    GraphLock lock;
    WithdrawWait(me);
    ZoInt32 const unnoticed = GetOwningCount();
    Own(me);
    SetOwningCount(unnoticed + 1);
}

void ZoDLDCritSect::WithdrawWait(ZoTLS* me) {
    WaitForGraph::Withdraw(me);
    waitCount.fetch_sub(1, std::memory_order_relaxed);
}

// A thread owns the section without its record in `owner` if it had none when it entered, or has
// freed it since. A wrapped section of the host's cannot be asked for its owner. There a thread
// without a record counts as the owner, and so does any thread while no owner is stored.
bool ZoDLDCritSect::OwnsUnnoticed() const {
    if (plain != nullptr) return plain->IsMine();
    bool const isNoted = owner.load(std::memory_order_relaxed) != nullptr;
    return isNoted ? currentRecord == nullptr : GetOwningCount() != 0;
}

void ZoDLDCritSect::Exit() {
    if (!MayLeave()) [[unlikely]]
        return Misuse::TellLeave(*this);
    ZoInt32 const left = GetOwningCount() - 1;
    SetOwningCount(left);
    if (left != 0) return;
    if (int const delay = doSleep.load(std::memory_order_relaxed); delay != 0) [[unlikely]] {
        CancellationDeferred deferred;
        ZoThreadSwitchWithDelay(delay);
    }
    if (GraphIsFree()) [[likely]]
        return Leave();
    GraphLock lock;
    Leave();
}

// The owner is cleared first: once the wrapped section is left, the next owner writes it. A walk
// that still sees the old one sees a thread that runs.
void ZoDLDCritSect::Leave() ZO_NOT_ANALYSED {
    if (ZoTLS* const me = owner.load(std::memory_order_relaxed)) --me->ownedSections;
    owner.store(nullptr, std::memory_order_relaxed);
    if (plain != nullptr) {
        plain->PosixCritSect::Exit();
    } else {
        wrapped->Exit();
    }
}

// The caller may also own the section unnoticed, entered when it had no record.
void ZoDLDCritSect::ForceRelease() {
    ZoTLS* const me = CurrentThread();
    ZoTLS* const now = owner.load(std::memory_order_relaxed);
    bool const unnoticed = now == nullptr && plain != nullptr && plain->IsMine();
    if (!unnoticed && (me == nullptr || now != me)) return;
    SetOwningCount(0);
    GraphLock lock;
    if (!unnoticed) --me->ownedSections;
    owner.store(nullptr, std::memory_order_relaxed);
    wrapped->ForceRelease();
}

void ZoDLDCritSect::GetInfo(char* buffer, int size) {
    if (buffer == nullptr || size <= 0) return;
    std::size_t const room = static_cast<std::size_t>(size);
    GraphLock lock;  // keeps the section that the owner waits for alive
    WaitForGraph::Holder const now = WaitForGraph::OwnerOf(this);
    if (now.thread == nullptr) {
        std::snprintf(buffer, room, "%s: is available", GetName());
        return;
    }
    long const count = GetOwningCount();
    long const waiting = waitCount.load(std::memory_order_relaxed);
    if (now.waitsFor.section != nullptr) {
        std::snprintf(
            buffer, room,
            "%s: owning thread: %p, owning count: %ld; wait count: %ld; owner waiting for %s",
            GetName(), now.identity, count, waiting, now.waitsFor.section->GetName());
    } else {
        std::snprintf(buffer, room, "%s: owning thread: %p, owning count: %ld; wait count: %ld",
                      GetName(), now.identity, count, waiting);
    }
}
