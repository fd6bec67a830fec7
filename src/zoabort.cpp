#include "zoabort.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>

#include "abort_handlers.h"
#include "abort_signals.h"
#include "cancellation.h"
#include "mutex.h"
#include "process_end.h"
#include "zobase.h"
#include "zocrits.h"
#include "zolist.h"

// Everything in static storage here is trivially destroyed: signals are caught until the process is
// gone, while exit() runs destructors on this thread or another.

namespace {

// --- the facility --------------------------------------------------------------------------------

struct AbortItem : ZoLinkedListItem {
    AbortItem(int (*handler)(void*), void* argument) : handler(handler), argument(argument) {}

    int (*handler)(void*);
    void* argument;
};

// Guards `facility` and the pins of every facility, and what set-up does once. Held for a few
// instructions or a system call, and taken last.
constinit Mutex facilityLock;

// One life of the facility, from the first reference to the last. `abortCS` guards the fields below
// it and is held while handlers run.
//
// The section cannot guard its own lifetime: a thread that wants to enter it, or a handler that
// releases the last reference while its caller holds it, would be left with a destroyed section. So
// a thread pins a facility before it uses it, and the last pin to go destroys the facility. All
// references together count as one pin, which goes with the last reference. From then on the
// facility is torn down: no thread finds it, and a thread that has pinned it before and enters its
// section late sees the mark and looks for the present facility.
struct Facility {
    Facility()
        : abortCS(ZoCritSect::MakeImplementation("AbortionHandler")),
          abortList(new (std::nothrow) ZoLinkedList) {}
    Facility(Facility const&) = delete;
    Facility& operator=(Facility const&) = delete;
    ~Facility() {
        delete abortList;
        delete abortCS;
    }

    ZoCritSect* const abortCS;

    ZoLinkedList* const abortList;  // of AbortItem
    int abortInited = 0;            // references
    bool tornDown = false;
    ZoLinkedListItem* nextItem = nullptr;  // whom to ask after the handler that is running

    int pins ZO_GUARDED_BY(facilityLock) = 1;
};

Facility* facility ZO_GUARDED_BY(facilityLock) = nullptr;

// The facility that is asking the calling thread's handler, null outside of one. The thread holds
// its section already, unless the handler has made it leave all its sections.
constinit thread_local Facility* asking = nullptr;

Facility* PinFacility() {
    MutexHold const lock(facilityLock);
    if (facility != nullptr) ++facility->pins;
    return facility;
}

void Unpin(Facility* pinned) {
    bool last = false;
    {
        MutexHold const lock(facilityLock);
        last = --pinned->pins == 0;
    }
    if (last) delete pinned;
}

// Pins the facility that `find` pins and enters its section; null when `find` finds none.
Facility* EnterFacility(Facility* (*find)()) ZO_NOT_ANALYSED {
    for (;;) {
        Facility* const found = find();
        if (found == nullptr) return nullptr;
        found->abortCS->Begin();
        if (!found->tornDown) return found;
        found->abortCS->Exit();
        Unpin(found);
    }
}

// A thread that is inside no handler leaves the section completely. It holds one level, except
// after it has asked handlers (see AskHandlers), when it may hold any number.
void LeaveFacility(Facility* entered) ZO_NOT_ANALYSED {
    if (asking != nullptr) {
        entered->abortCS->Exit();
    } else {
        entered->abortCS->ForceRelease();
    }
    Unpin(entered);
}

// The facility, entered, for a scope; null when there is none.
class Hold {
public:
    explicit Hold(Facility* (*find)() = PinFacility) : entered(EnterFacility(find)) {}
    Hold(Hold const&) = delete;
    Hold& operator=(Hold const&) = delete;
    ~Hold() {
        if (entered != nullptr) LeaveFacility(entered);
    }

    explicit operator bool() const { return entered != nullptr; }
    Facility* operator->() const { return entered; }
    Facility* Get() const { return entered; }

private:
    SignalsBlocked blocked;
    Facility* entered;
};

// --- signals -------------------------------------------------------------------------------------

// The process that has a thread which asks the handlers; 0 when none has. A forked child finds its
// parent here. Release order publishes `arrivals` to the signal handler, which reads with acquire.
std::atomic<pid_t> processWithAsker{0};
static_assert(std::atomic<pid_t>::is_always_lock_free, "the signal handler reads it");

// The calling thread asks the handlers, in this process.
thread_local bool isAsker = false;

// The signal mask of the thread that started the asker, for the other signals. Guarded by
// facilityLock.
sigset_t maskOfSetUp;

// Posted once for each signal, so that none is lost while an earlier one is being asked about.
sem_t arrivals;
// How many of those are interrupts, counted before the post. The asker takes them first, so of an
// interrupt and a request to quit that come together it may ask about the later one first.
std::atomic<int> interrupts{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler changes it");

// With a semaphore's post counted.
int TakeArrival() {
    if (interrupts.load(std::memory_order_relaxed) == 0) return SIGQUIT;
    interrupts.fetch_sub(1, std::memory_order_relaxed);
    return SIGINT;
}

void InstallSignalHandlers() {
    std::signal(SIGQUIT, LowLevelHandler);
    std::signal(SIGINT, LowLevelHandler);
}

void TellEnd(int signal) {
    ZoSystemLog()->Printf(3, "Signal %d (%s) ends the process: no abortion handler objected",
                          signal, signal == SIGINT ? "SIGINT" : "SIGQUIT");
}

// Asks the handlers about one signal and does as they say. The two signals stay blocked on this
// thread to the end of the process, so none interrupts the exit to begin another. Inside a signal
// handler the log must not be called.
void AnswerSignal(int signal) {
    CancellationDeferred deferred;  // a thread cancelled in a handler would keep the section
    SignalsBlocked blocked;
    if (ProcessEnd::PutsOff(signal)) return;
    if (LowLevelAbortionHandler() == 0 && ProcessEnd::MayExit(signal)) {
        if (isAsker) TellEnd(signal);
        std::exit(0);
    }
    InstallSignalHandlers();  // in case a handler has changed them
}

void* AskForEver(void*) {
    isAsker = true;
    for (;;) {
        if (sem_wait(&arrivals) == 0) AnswerSignal(TakeArrival());
    }
}

// Starts the thread that asks the handlers, if this process has none. When that fails the signal
// handler does its work, and the next set-up tries again.
void StartAsker() {
    if (processWithAsker.load(std::memory_order_relaxed) == getpid()) return;
    if (sem_init(&arrivals, 0, 0) != 0) return;
    interrupts.store(0, std::memory_order_relaxed);
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);  // for the thread to begin with
    maskOfSetUp = previous;
    sigdelset(&maskOfSetUp, SIGQUIT);  // blocked by the set-up itself
    sigdelset(&maskOfSetUp, SIGINT);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, AskForEver, nullptr) == 0) {
        pthread_detach(thread);
        processWithAsker.store(getpid(), std::memory_order_release);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

// --- fork ----------------------------------------------------------------------------------------

// A child gets the section as it is, but not the thread that holds it. So the forking thread holds
// it itself, over the fork. What other threads had pinned stays pinned in the child, which costs it
// the memory of one facility at most.

// The state of the facility before the fork, kept by the forking thread.
constinit thread_local sigset_t maskBeforeFork{};
constinit thread_local Facility* heldForFork = nullptr;

// --- set-up and references -----------------------------------------------------------------------

// A facility that could be made completely, or null.
Facility* MakeFacility() {
    Facility* const made = new (std::nothrow) Facility;
    if (made == nullptr) return nullptr;
    if (made->abortCS != nullptr && made->abortList != nullptr) return made;
    delete made;
    return nullptr;
}

// Makes `made` the facility unless another thread was first. The signals are caught before any
// thread can find the facility.
bool SetUp(Facility* made) {
    MutexHold const lock(facilityLock);
    if (facility != nullptr) return false;
    facility = made;
    ++made->pins;
    ProcessEnd::WatchExit();
    StartAsker();
    InstallSignalHandlers();
    return true;
}

// Pins the facility, which it sets up if there is none; null when it cannot be made.
Facility* PinOrSetUpFacility() {
    for (;;) {
        if (Facility* const found = PinFacility()) return found;
        Facility* const made = MakeFacility();
        if (made == nullptr || SetUp(made)) return made;
        delete made;
    }
}

int TakeReference() {
    Hold hold(PinOrSetUpFacility);
    return hold ? ++hold->abortInited : 0;
}

int ReleaseReference() {
    Hold hold;
    // No reference either: another thread is setting the facility up and has not taken its own yet.
    if (!hold || hold->abortInited == 0) return 0;
    int const left = --hold->abortInited;
    if (left != 0) return left;
    hold->tornDown = true;
    hold->nextItem = nullptr;
    MutexHold const lock(facilityLock);
    facility = nullptr;
    --hold->pins;  // that of the references; the hold has one of its own
    return 0;
}

// --- the handlers --------------------------------------------------------------------------------

AbortItem* FindItem(ZoLinkedList const* list, int (*handler)(void*), void* argument) {
    for (ZoLinkedListItem* i = list->GetFirst(); i != nullptr; i = i->GetNext()) {
        AbortItem* const item = static_cast<AbortItem*>(i);
        if (item->handler == handler && item->argument == argument) return item;
    }
    return nullptr;
}

// The item is not touched once its handler is called, which may remove it. The next one is kept
// where a removal of it, or the end of the facility, moves it on.
//
// A handler may also make its thread leave all its sections. So the section is entered anew after
// each: one level more if it is still held, which nobody could notice in between; else its return.
int AskHandlers(Hold& hold) ZO_NOT_ANALYSED {
    int result = 0;
    hold->nextItem = hold->abortList->GetFirst();
    while (result == 0 && hold->nextItem != nullptr) {
        AbortItem const* const item = static_cast<AbortItem*>(hold->nextItem);
        hold->nextItem = item->GetNext();
        asking = hold.Get();
        result = item->handler(item->argument);
        asking = nullptr;
        hold->abortCS->Begin();
    }
    return result;
}

}  // namespace

// A thread that is inside a handler enters the section of the facility that asks once the handler
// has returned, in the child too. By then the facility may be torn down and not be found any more.
void AbortionAtFork::Begin() ZO_NOT_ANALYSED {
    maskBeforeFork = BlockAbortSignals();
    if (asking != nullptr) asking->abortCS->Begin();
}

void AbortionAtFork::Enter() {
    heldForFork = EnterFacility(PinFacility);
}

bool AbortionAtFork::Lock() ZO_NOT_ANALYSED {
    facilityLock.lock();
    if (facility == heldForFork) return true;
    facilityLock.unlock();
    return false;
}

void AbortionAtFork::Unlock() ZO_NOT_ANALYSED {
    facilityLock.unlock();
}

void AbortionAtFork::Leave() ZO_NOT_ANALYSED {
    sigset_t const previous = maskBeforeFork;
    if (heldForFork != nullptr) LeaveFacility(heldForFork);
    if (asking != nullptr) asking->abortCS->Exit();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

// The asker keeps all signals from itself. In a child that a handler forks it is the only thread,
// and a child that gets no signal could not be ended.
void AbortionAtFork::ForgetAbsentThreads() {
    if (isAsker) maskBeforeFork = maskOfSetUp;
    isAsker = false;
}

int AbortHandlerInitialization(int release) {
    ProcessEnd::WatchCallingThread();
    return release == 0 ? TakeReference() : ReleaseReference();
}

int ZoAddAbortionHandler(int (*handler)(void*), void* argument) {
    int const count = AbortHandlerInitialization(0);
    if (count == 0 || handler == nullptr) return count;
    AbortItem* const item = new (std::nothrow) AbortItem(handler, argument);
    if (item == nullptr) {
        AbortHandlerInitialization(1);
        return ZoOutOfMemory;
    }
    Hold hold;
    if (hold) {
        hold->abortList->InsertLast(item);
    } else {
        delete item;  // somebody has released more references than were taken
    }
    return asking != nullptr ? 1 : 0;
}

int ZoRemoveAbortionHandler(int (*handler)(void*), void* argument) {
    if (Hold hold; hold) {
        if (AbortItem* const item = FindItem(hold->abortList, handler, argument)) {
            if (hold->nextItem == item) hold->nextItem = item->GetNext();
            hold->abortList->DeleteItem(item);
        }
    }
    return AbortHandlerInitialization(1);
}

int LowLevelAbortionHandler() {
    Hold hold;
    return hold ? AskHandlers(hold) : 0;
}

// With a thread to ask the handlers this does only what a signal handler may: atomics that are
// lock-free, getpid and sem_post. The post fails when two thousand million signals wait already.
void LowLevelHandler(int signal) {
    int const error = errno;
    if (processWithAsker.load(std::memory_order_acquire) == getpid()) {
        if (signal == SIGINT) interrupts.fetch_add(1, std::memory_order_relaxed);
        sem_post(&arrivals);
    } else {
        AnswerSignal(signal);
    }
    errno = error;
}
