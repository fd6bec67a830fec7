#include "thrdimp.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <new>

#include "cancellation.h"
#include "checkers.h"
#include "patience.h"
#include "thread_entry.h"
#include "thread_life.h"
#include "trace.h"
#include "zobase.h"

constinit thread_local ThreadLife* ThreadLife::current = nullptr;

namespace {

pthread_t const NoThread = 0;

// For waits for the end of a thread. Never destroyed.
pthread_once_t initialized = PTHREAD_ONCE_INIT;
pthread_condattr_t finished_attr;
pthread_cond_t finished_cond;  // signalled by every system thread as it ends, without the mutex
pthread_mutexattr_t finished_mtxattr;
pthread_mutex_t finished_mtx;

// Writes an entry to the system log if there is an error; `format` holds its "%d". The log may be a
// cancellation point, and the callers are in the middle of something.
__attribute__((format(printf, 1, 0))) void Report(char const* format, int error) {
    if (error == 0) return;
    CancellationDeferred deferred;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // literals of this file
    ZoSystemLog()->Printf(ZoLogError, format, error);
#pragma GCC diagnostic pop
}

void InitializeFinished() {
    Report("PosixThread: pthread_condattr_init failed : %d", pthread_condattr_init(&finished_attr));
    Report("PosixThread: pthread_cond_init failed : %d",
           pthread_cond_init(&finished_cond, &finished_attr));
    Report("PosixThread: pthread_mutexattr_init failed : %d",
           pthread_mutexattr_init(&finished_mtxattr));
    Report("PosixThread: pthread_mutex_init failed : %d",
           pthread_mutex_init(&finished_mtx, &finished_mtxattr));
}

std::size_t StackSize(long code) {
    switch (code) {
        case 1:
            return 32768;
        case 2:
            return 1048576;
        default:
            return static_cast<std::size_t>(code);
    }
}

}  // namespace

// --- the running thread ------------------------------------------------------------------------

struct PosixStartRecord : StartRecord {
    PosixThread* systemThread;
    ThreadLife* life;  // with a reference for the new thread
};

// A cancelled thread leaves marks of its frames on its stack, which AddressSanitizer takes for an
// error of the code that runs while the stack is unwound.
#define RUNS_WHILE_UNWOUND __attribute__((no_sanitize_address))

// Lives in the first frame of a system thread, so that it says that the thread ends when nothing
// else is left to do, also when the thread is cancelled and its stack is unwound.
class RunningThread {
public:
    explicit RunningThread(PosixStartRecord const& record) : life(record.life) {
        if (!IsCreatedDetached(*record.systemThread)) pthread_detach(pthread_self());
        MutexHold const hold(life->mutex);
        record.systemThread->handle = pthread_self();
        life->state = ThreadLife::Running;
        ThreadLife::current = life;
    }
    RunningThread(RunningThread const&) = delete;
    RunningThread& operator=(RunningThread const&) = delete;
    RUNS_WHILE_UNWOUND ~RunningThread() {
        ThreadLife::current = nullptr;
        {
            MutexHold const hold(life->mutex);
            life->state = ThreadLife::Ended;
        }
        life->Release();
    }

private:
    // False where the attributes could not be made so, which is no reason to keep the thread's
    // stack.
    static bool IsCreatedDetached(PosixThread const& thread) {
        int state = PTHREAD_CREATE_JOINABLE;
        pthread_attr_getdetachstate(&thread.attributes, &state);
        return state == PTHREAD_CREATE_DETACHED;
    }

    ThreadLife* life;
};

RUNS_WHILE_UNWOUND void* PosixTrampoline(void* startRecord) {
    auto* const record = static_cast<PosixStartRecord*>(startRecord);
    RunningThread const running(*record);
    Trampoline(static_cast<StartRecord*>(record));
    pthread_cond_signal(&finished_cond);
    pthread_exit(nullptr);
}

namespace {

// The new thread usually needs only a few more instructions. But it may have a lower real-time
// priority than the starter, or wait for a thread that has.
void AwaitStarted(PosixStartRecord const& record) {
    auto const isStarted = [&] { return __atomic_load_n(&record.started, __ATOMIC_ACQUIRE) != 0; };
    for (Patience patience; !isStarted() && !patience.IsOver();) patience.Wait();
    if (!isStarted()) record.life->AwaitStarted(isStarted);
    checkers::Acquire(&record.started);
}

// Whether `life` belongs to a thread of this process.
bool IsUsable(ThreadLife const* life) {
    return life != nullptr && !life->IsAbsent();
}

}  // namespace

// --- the system thread object ------------------------------------------------------------------

_Thread* _Thread::MakeSysThread(ZoThread* owner) {
    PosixThread* const made = new (std::nothrow) PosixThread(owner);
    if (made != nullptr && made->life != nullptr) return made;
    delete made;
    return nullptr;
}

PosixThread::PosixThread(ZoThread* owner)
    : _Thread(owner), attributes(), handle(NoThread), lastError(0), life(nullptr) {
    pthread_once(&initialized, InitializeFinished);
    std::memset(&attributes, 0, sizeof attributes);
    Report("PosixThread: pthread_attr_init failed : %d", pthread_attr_init(&attributes));
    Report("PosixThread: pthread_attr_setdetachstate failed : %d",
           pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED));
    life = new (std::nothrow) ThreadLife;
}

PosixThread::~PosixThread() {
    Report("PosixThread: pthread_attr_destroy failed : %d", pthread_attr_destroy(&attributes));
    if (life == nullptr) return;
    ZoInt32 const status = owner->status;
    if (status != ZoThread::NotStarted && status != ZoThread::Failed && !life->IsAbsent()) {
        MutexHold const hold(life->mutex);
        if (life->HandleIsValid()) pthread_detach(handle);
    }
    life->Release();
}

int PosixThread::Start(long stackSizeCode) {
    if (life == nullptr) return FailToCreate(ENOMEM);
    {
        MutexHold const hold(life->mutex);
        owner->status = ZoThread::NotStarted;
        life->state = ThreadLife::Starting;
        handle = NoThread;
    }
    if (stackSizeCode != 0) {
        int const error = pthread_attr_setstacksize(&attributes, StackSize(stackSizeCode));
        lastError = error;
        if (error != 0) {
            Report("PosixThread: pthread_attr_setstacksize failed : %d", error);
            LeaveIdle();
            return ZoRefused;
        }
    }
    lastError = 0;
    PosixStartRecord record{{owner, 0}, this, life};
    checkers::AreAtomic(record.started);
    life->Share();
    life->Share();  // for the wait below
    // The new thread may have run and deleted this object before pthread_create returns. So it
    // stores its handle itself, and the attributes, which glibc reads once more at the end, are a
    // copy.
    pthread_t created = NoThread;
    pthread_attr_t const copy = attributes;
    int const error =
        pthread_create(&created, &copy, PosixTrampoline, static_cast<StartRecord*>(&record));
    if (error != 0) {
        life->Release();
        life->Release();
        LeaveIdle();
        return FailToCreate(error);
    }
    AwaitStarted(record);
    record.life->Release();
    return ZoSuccess;
}

void PosixThread::LeaveIdle() {
    MutexHold const hold(life->mutex);
    life->state = ThreadLife::Idle;
    life->aborted = false;
}

int PosixThread::FailToCreate(int error) {
    lastError = error;
    Report("PosixThread: couldnt create thread : %d", error);
    owner->status = ZoThread::Failed;
    return ZoRefused;
}

int PosixThread::Abort() {
    bool started = false;
    int const error = Cancel(started);
    if (error == 0) return 0;
    Trace(TraceArea::FailedAborts, "Couldn't terminate thread ", this, " ", error);
    MarkAbortFailed(started);
    lastError = error;
    return error;
}

// Not over the status of a start that came in between, nor over that of a second abort, which may
// have ended the thread of that start.
void PosixThread::MarkAbortFailed(bool started) {
    ZoInt32 aborted = ZoThread::Aborted;
    if (!IsUsable(life)) {
        owner->status.compare_exchange_strong(aborted, ZoThread::Failed);
        return;
    }
    MutexHold const hold(life->mutex);
    if (started != (life->state != ThreadLife::Idle)) return;
    owner->status.compare_exchange_strong(aborted, ZoThread::Failed);
}

// `started`: whether the thread had been started when it was found.
int PosixThread::Cancel(bool& started) {
    if (!IsUsable(life)) {
        owner->status = ZoThread::Aborted;
        return ESRCH;
    }
    MutexHold const hold(life->mutex);
    started = life->state != ThreadLife::Idle;
    owner->status = ZoThread::Aborted;
    if (!life->CanBeAborted()) return ESRCH;
    int const error = life->state == ThreadLife::Running ? pthread_cancel(handle) : 0;
    if (error == 0) life->aborted = true;
    return error;
}

int PosixThread::Suspend() {
    return _Thread::Suspend();
}

int PosixThread::Continue() {
    return _Thread::Continue();
}

int PosixThread::Giveup() {
    if (IsCallingThread()) {
        sched_yield();
    } else {
        sleep(0);
    }
    return 0;
}

bool PosixThread::IsCallingThread() {
    if (!IsUsable(life)) return false;
    MutexHold const hold(life->mutex);
    return life->HandleIsValid() && pthread_equal(handle, pthread_self()) != 0;
}

// --- priorities and processors -----------------------------------------------------------------

void ZoThreadPriority(ZoThreadPriorityValue) {}

void ZoThreadPriorityBoostDisable() {}

ZoThreadPriorityValue long2ZoThreadPriority(long number) {
    bool const known = number >= ZoPriorityLowest && number <= ZoPriorityHighest;
    return known ? static_cast<ZoThreadPriorityValue>(number) : ZoPriorityUnchanged;
}

int ZoGetNumberOfPhysicalProcessors() {
    return get_nprocs();
}

int ZoGetNumberOfLogicalProcessors() {
    return get_nprocs();
}
