#include "read_marks.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cancellation.h"
#include "checkers.h"
#include "mark_policy.h"
#include "rw_record.h"
#include "wait_figures.h"
#include "zobase.h"

alignas(64) constinit std::atomic<std::uintptr_t> ReadMarks::announced{0};
constinit std::atomic<MarkPolicy::Mode> MarkPolicy::mode{Never};
constinit std::atomic<ZoUInt32> MarkPolicy::cost{2'000};

namespace {

// In `announced`: not the address of a mutex.
constexpr std::uintptr_t SeveralWriters = ~std::uintptr_t{0};

// The marks' lock: guards the two lists below and `announced`.
pthread_mutex_t marksLock = PTHREAD_MUTEX_INITIALIZER;
ZoReadMarks* firstMarks = nullptr;
MarksWithdrawal* firstWithdrawal = nullptr;

// Holds the marks' lock for a scope, also when a wait in the scope is cancelled.
class Hold {
public:
    Hold() { pthread_mutex_lock(&marksLock); }
    Hold(Hold const&) = delete;
    Hold& operator=(Hold const&) = delete;
    ~Hold() { pthread_mutex_unlock(&marksLock); }
};

template <class Item>
void LinkFirst(Item*& first, Item* item) {
    item->next = first;
    item->link = &first;
    if (first != nullptr) first->link = &item->next;
    first = item;
}

template <class Item>
void Unlink(Item* item) {
    *item->link = item->next;
    if (item->next != nullptr) item->next->link = item->link;
    item->link = nullptr;
}

bool IsSet(ZoReadMark const& mark) {
    return (mark.mutex.load(std::memory_order_relaxed) & IsRead) != 0;
}

struct Sight {
    int marks = 0;       // set ones of a mutex
    ZoUInt32 reads = 0;  // of that mutex, with marks, since threads first used them for it
};

// With the marks' lock held.
Sight SafeLook(std::uintptr_t mutex) {
    Sight sight;
    for (ZoReadMarks const* of = firstMarks; of != nullptr; of = of->next) {
        for (ZoReadMark const& mark : of->marks) {
            std::uintptr_t const value = mark.mutex.load(std::memory_order_acquire);
            if ((value & ~IsRead) != mutex) continue;
            if (value != mutex) ++sight.marks;
            sight.reads += mark.reads.load(std::memory_order_relaxed);
        }
    }
    return sight;
}

// --- membarrier --------------------------------------------------------------------------------

bool Membarrier(int command) {
    return syscall(SYS_membarrier, command, 0, 0) == 0;
}

bool Register() {
    return Membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED);
}

MarkPolicy::Mode InitialMode() {
    char const* const forced = std::getenv("ZOVA_READ_MARKS");
    bool const never = forced != nullptr && std::strcmp(forced, "never") == 0;
    bool const always = forced != nullptr && std::strcmp(forced, "always") == 0;
    if (never || !Register()) return MarkPolicy::Never;
    return always ? MarkPolicy::Always : MarkPolicy::WhereItPays;
}

[[maybe_unused]] bool const isSetUp = [] {
    MarkPolicy::SetMode(InitialMode());
    return true;
}();

// A running kernel always gives the same answer to a command. So this code runs only in a process
// that was made without the handlers of fork(), or that has forbidden the call since. Such a
// process has marks and no call that makes them visible. No processor holds a store back for longer
// than a thread takes to be suspended and go on, so the writer waits for many times that. No thread
// sets a mark from here on.
[[gnu::cold]] void PassBarrierSomehow() {
    if (Register() && Membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED)) return;
    int const reason = errno;
    MarkPolicy::SetMode(MarkPolicy::Never);
    CancellationDeferred deferred;
    ZoSystemLog()->Printf(
        ZoLogError, "RW_Mutex: membarrier failed : %d; reads are counted from now on.", reason);
    if (Membarrier(MEMBARRIER_CMD_GLOBAL)) return;
    timespec const pause{0, 20'000'000};
    nanosleep(&pause, nullptr);
}

// Every thread of the process passes a full barrier before this returns.
void PassBarrierInAllThreads() {
    if (!Membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED)) PassBarrierSomehow();
}

// Modulo 2^32.
ZoUInt32 Nanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<ZoUInt32>(now.tv_sec) * 1'000'000'000U + static_cast<ZoUInt32>(now.tv_nsec);
}

}  // namespace

// --- marks -------------------------------------------------------------------------------------

void ReadMarks::WakeWriters(std::uintptr_t mutex, std::uintptr_t waited) {
    if (waited != mutex && waited != SeveralWriters) return;
    Hold const hold;
    for (MarksWithdrawal* writer = firstWithdrawal; writer != nullptr; writer = writer->next) {
        if (writer->mutex == mutex) pthread_cond_signal(&writer->woken);
    }
}

ZoReadMark* ReadMarks::OtherFreeMark(ZoReadMarks& mine, std::uintptr_t address) {
    ZoReadMark* free = nullptr;
    for (ZoReadMark& mark : mine.marks) {
        std::uintptr_t const value = mark.mutex.load(std::memory_order_relaxed);
        if (value == address) return &mark;
        if ((value & IsRead) == 0 && free == nullptr) free = &mark;
    }
    if (free != nullptr) free->reads.store(0, std::memory_order_relaxed);
    return free;
}

int ReadMarks::Count(ZoRW_Mutex const* mutex) {
    Hold const hold;
    return SafeLook(AddressOf(mutex)).marks;
}

void ReadMarks::Join(ZoReadMarks& mine) {
    for (ZoReadMark& mark : mine.marks) checkers::AreAtomic(mark.mutex, mark.reads);
    Hold const hold;
    LinkFirst(firstMarks, &mine);
}

bool ReadMarks::Leave(ZoReadMarks& mine) {
    Hold const hold;
    for (ZoReadMark const& mark : mine.marks) mine.isAbandoned |= IsSet(mark);
    if (mine.isAbandoned) return false;
    if (mine.link != nullptr) Unlink(&mine);
    return true;
}

void ReadMarks::Forget(ZoRW_Mutex const* mutex) {
    Hold const hold;
    for (ZoReadMarks* of = firstMarks; of != nullptr; of = of->next) {
        for (ZoReadMark& mark : of->marks) {
            if (of->isAbandoned &&
                mark.mutex.load(std::memory_order_relaxed) == (AddressOf(mutex) | IsRead)) {
                mark.mutex.store(0, std::memory_order_relaxed);
            }
        }
    }
}

void ReadMarks::Lock() {
    pthread_mutex_lock(&marksLock);
}

void ReadMarks::Unlock() {
    pthread_mutex_unlock(&marksLock);
}

// The calling thread may have forked in the report of its own wait, so it may be announced.
void ReadMarks::ForgetAbsentThreads() {
    ZoReadMarks* const mine = currentRecord != nullptr ? &currentRecord->readMarks : nullptr;
    for (ZoReadMarks* of = firstMarks; of != nullptr; of = of->next) {
        if (of == mine) continue;
        for (ZoReadMark& mark : of->marks) mark.mutex.store(0, std::memory_order_relaxed);
        Unlink(of);
    }
    for (MarksWithdrawal* writer = firstWithdrawal; writer != nullptr; writer = writer->next) {
        if (writer->thread != currentRecord) Unlink(writer);
    }
    MarksWithdrawal::SafeAnnounce();
    if (MarkPolicy::CurrentMode() != MarkPolicy::Never && !Register()) {
        MarkPolicy::SetMode(MarkPolicy::Never);
    }
}

// --- a writer ----------------------------------------------------------------------------------

void MarksWithdrawal::SafeAnnounce() {
    std::uintptr_t now = 0;
    if (firstWithdrawal != nullptr) {
        now = firstWithdrawal->next == nullptr ? firstWithdrawal->mutex : SeveralWriters;
    }
    ReadMarks::announced.store(now, std::memory_order_relaxed);
}

MarksWithdrawal::MarksWithdrawal(ZoRW_Mutex const* of, bool marksMayBeOut, ZoMarkHistory& history)
    : mutex(AddressOf(of)), thread(currentRecord) {
    if (!marksMayBeOut) return;
    ZoUInt32 const begun = Nanoseconds();
    if (pthread_cond_init(&woken, nullptr) != 0) woken = PTHREAD_COND_INITIALIZER;
    {
        Hold const hold;
        LinkFirst(firstWithdrawal, this);
        SafeAnnounce();
        isAnnounced = true;
    }
    SchedulePoint();
    PassBarrierInAllThreads();
    SchedulePoint();
    Hold const hold;
    Sight const sight = SafeLook(mutex);
    if (sight.marks == 0) SafeLeave();
    MarkPolicy::MarksWereWithdrawn(history, Nanoseconds() - begun, sight.reads);
}

MarksWithdrawal::~MarksWithdrawal() {
    if (!isAnnounced) return;
    Hold const hold;
    SafeLeave();
}

bool MarksWithdrawal::MarksAreOut() const {
    if (!isAnnounced) return false;
    Hold const hold;
    return SafeLook(mutex).marks != 0;
}

void MarksWithdrawal::WaitForNone(ZoWaitFigures& figures, ZoSynchroObj const& told) {
    if (!isAnnounced) return;
    Hold const hold;
    if (SafeLook(mutex).marks != 0) SafeSleep(figures, told);
    SafeLeave();
}

void MarksWithdrawal::SafeSleep(ZoWaitFigures& figures, ZoSynchroObj const& told) {
    MeasuredWait const wait(figures, told, true);
    do checkers::Wait(&woken, &marksLock);
    while (SafeLook(mutex).marks != 0);
}

void MarksWithdrawal::SafeLeave() {
    isAnnounced = false;
    Unlink(this);
    SafeAnnounce();
    pthread_cond_destroy(&woken);
}
