// Thread objects and the system threads below them.

#include "zothread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "alloc_fault.h"
#include "services.h"
#include "thrdimp.h"
#include "thread_entry.h"
#include "watchdog.h"
#include "zocond.h"
#include "zoevmdis.h"
#include "zotls.h"

using namespace zotest;

// The linker puts these in front of the system's functions. While `calls` is set, the calling
// thread's calls are recorded in it and those of `failing` fail.
namespace {
thread_local Services::Lines* calls = nullptr;
thread_local int failing = 0;
thread_local std::size_t stackSize = 0;

#ifdef __clang__  // not instrumented: Clang's ThreadSanitizer calls some before it is ready itself
#define NOT_INSTRUMENTED __attribute__((disable_sanitizer_instrumentation))
#else
#define NOT_INSTRUMENTED
#endif
// Keeps the size that the library asks for: Clang's ThreadSanitizer then raises it through the same
// function.
NOT_INSTRUMENTED std::size_t SeenFirst(std::size_t size) {
    if (stackSize == 0) stackSize = size;
    return size;
}
int Intercept(char const* name) {
    calls->push_back(name);
    return failing;
}
}  // namespace
#define WRAP(name, parameters, arguments)                              \
    extern "C" int __real_pthread_##name parameters;                   \
    extern "C" NOT_INSTRUMENTED int __wrap_pthread_##name parameters { \
        int const error = calls == nullptr ? 0 : Intercept(#name);     \
        return error != 0 ? error : __real_pthread_##name arguments;   \
    }
WRAP(condattr_init, (pthread_condattr_t * a), (a))
WRAP(cond_init, (pthread_cond_t * c, pthread_condattr_t const* a), (c, a))
WRAP(mutexattr_init, (pthread_mutexattr_t * a), (a))
WRAP(mutex_init, (pthread_mutex_t * m, pthread_mutexattr_t const* a), (m, a))
WRAP(attr_init, (pthread_attr_t * a), (a))
WRAP(attr_setdetachstate, (pthread_attr_t * a, int state), (a, state))
WRAP(attr_destroy, (pthread_attr_t * a), (a))
WRAP(attr_setstacksize, (pthread_attr_t * a, std::size_t size), (a, SeenFirst(size)))
WRAP(create, (pthread_t * t, pthread_attr_t const* a, void* (*f)(void*), void* x), (t, a, f, x))
WRAP(detach, (pthread_t t), (t))
WRAP(cancel, (pthread_t t), (t))

namespace {

using Lines = Services::Lines;

// Records the calling thread's calls for its lifetime; a non-zero `error` makes them fail.
class Recording {
public:
    explicit Recording(int error = 0) {
        calls = &lines;
        failing = error;
    }
    ~Recording() {
        calls = nullptr;
        failing = 0;
    }
    Lines lines;
};

// What a thread does; the argument of Start, so that it may outlive the object.
struct Script {
    std::function<int()> work = [] { return 0; };
    std::function<void()> init = [] {}, cleanup = [] {};
};

class Scripted : public ZoThread {
public:
    explicit Scripted(int autoDelete = 0) : ZoThread("scripted", "text", autoDelete) {}
    int Work(void* script) override { return static_cast<Script*>(script)->work(); }
    void Init(void* script) override { static_cast<Script*>(script)->init(); }
    void Cleanup(void* script) override { static_cast<Script*>(script)->cleanup(); }

    using ZoThread::blockingObject;
    using ZoThread::pendingPriority;
    using ZoThread::systemThread;
};

// Counts the threads that have made one and whose record is not yet released.
class AliveMark : public ZoExtendedBase {
public:
    static void Leave() {
        ZoTLS::GetThreadLocalStorage()->ownedObject = new AliveMark;
        ++made;
    }
    ~AliveMark() override { ++released; }
    static void AwaitReleased() {
        Await([] { return made == released; });
    }
    static inline std::atomic<int> made{0}, released{0};
};

// Waits until it is cancelled.
int Stay() {
    static POSIXCondition never("never");
    return never.WaitForCondition(0, ZoNoLimit);
}

// Waits for threads that aborts may have ended, by their records.
class Threads : public testing::Test {
protected:
    Threads() { AliveMark::made = AliveMark::released = 0; }
    ~Threads() override { AliveMark::AwaitReleased(); }

    // A script that stays in Work until it is cancelled, and tells when it is there.
    Script Staying() {
        Script script;
        script.work = [this] {
            AliveMark::Leave();
            ++inside;
            return Stay();
        };
        return script;
    }

    Services services;
    Watchdog watchdog;
    std::atomic<int> inside{0};
};

// Must be the first use of a system thread in this program.
TEST_F(Threads, SystemCallsThatFailAreLoggedInOrder) {
    Scripted owner;
    {
        Recording recording(EAGAIN);
        PosixThread thread(&owner);
        EXPECT_EQ(thread.Start(1), ZoRefused);
        EXPECT_EQ(owner.GetStatus(), 7);
        EXPECT_EQ(thread.Start(0), ZoRefused);
        EXPECT_EQ(owner.GetStatus(), 6);
    }
    Lines expected;
    for (char const* text :
         {"pthread_condattr_init failed", "pthread_cond_init failed",
          "pthread_mutexattr_init failed", "pthread_mutex_init failed", "pthread_attr_init failed",
          "pthread_attr_setdetachstate failed", "pthread_attr_setstacksize failed",
          "couldnt create thread", "pthread_attr_destroy failed"}) {
        expected.push_back(std::string("4 PosixThread: ") + text + " : 11");
    }
    EXPECT_EQ(services.Log(), expected);

    // Set up once; an abort of no thread touches no handle.
    Recording recording;
    {
        PosixThread thread(&owner);
        EXPECT_EQ(thread.Abort(), ESRCH);
        EXPECT_EQ(owner.GetStatus(), 6);
    }
    EXPECT_EQ(recording.lines, (Lines{"attr_init", "attr_setdetachstate", "attr_destroy"}));
}

TEST_F(Threads, StackSizesAndStartsThatFail) {
    Script script;
    for (auto const& [code, size] :
         {std::pair<long, std::size_t>{1, 32768}, {2, 1048576}, {0, 0}, {262144, 262144}}) {
        ZoResourceWatcher watcher;
        Scripted thread;
        thread.SetStackSizeCode(code);
        thread.SetResourceWatcher(&watcher);
        stackSize = 0;
        EXPECT_EQ(thread.Start(&script), 0);
        EXPECT_EQ(stackSize, size);
        watcher.WaitForZero(0);
        EXPECT_EQ(thread.GetStatus(), 4);
    }
    Scripted thread;
    thread.SetStackSizeCode(100);
    EXPECT_EQ(thread.Start(&script), ZoStartFailed);
    EXPECT_EQ(thread.GetStatus(), 7);
    EXPECT_EQ(services.Log(), Lines{"4 PosixThread: pthread_attr_setstacksize failed : 22"});
    thread.SetStackSizeCode(0);
    Recording recording(EAGAIN);
    EXPECT_EQ(thread.Start(&script), ZoStartFailed);
    EXPECT_EQ(thread.GetStatus(), 6);
    EXPECT_EQ(thread.Start(&script), 0) << "a failed one is left alone";
    thread._Finish();
    EXPECT_EQ(recording.lines.back(), "attr_destroy") << "no detach";
}

TEST_F(Threads, WithoutMemoryAreNotStarted) {
    NEEDS_ALLOC_FAULTS();
    Script script;
    long const faults = FailEachAllocation([&](AllocFault const& fault) {
        Scripted thread;
        int const result = thread.Start(&script);
        EXPECT_EQ(result, fault.Happened() ? ZoOutOfMemory : 0);
        EXPECT_TRUE(!fault.Happened() || thread.GetStatus() == 7);
        Await([&] { return result != 0 || thread.GetStatus() == 4; });
    });
    EXPECT_EQ(faults, 2);  // the system thread and its life
}

// Keeps every debug event's text.
class Tracer {
public:
    explicit Tracer(ZoUInt32 flags) {
        GetDebugger()->current = flags;
        ZoEventMessageDispatcher::GetDispatcher()->RegisterListener(0xF, 0x600,
                                                                    new Listener(*this));
        ZoEventMessageDispatcher::GetDispatcher()->RegisterListener(0xF, 0x900,
                                                                    new Listener(*this));
    }
    Lines Texts() {
        std::lock_guard<std::mutex> hold(mutex);
        return texts;
    }

private:
    class Listener : public ZoEventListener {
    public:
        explicit Listener(Tracer& tracer) : tracer(tracer) {}
        int Notify(ZoEvent const* event) override {
            std::lock_guard<std::mutex> hold(tracer.mutex);
            tracer.texts.emplace_back(event->GetMessageText());
            return 0;
        }
        Tracer& tracer;
    };
    std::mutex mutex;
    Lines texts;
};

TEST_F(Threads, TraceLinesToTheByte) {
    for (int autoDelete : {0, 1}) {
        Context context(false);
        Tracer tracer(0x900100);
        ZoResourceWatcher watcher;
        Script script;
        script.work = [] { return 42; };
        auto* const thread = new Scripted(autoDelete);
        thread->SetResourceWatcher(&watcher);
        thread->SetStackSizeCode(1);
        std::string const at = Pointer(thread);
        thread->Start(&script);
        watcher.WaitForZero(0);
        Lines expected{"ZoThread::Start " + at + "\n"};
        auto const entry = [&](char const* start, std::string const& text) {
            expected.push_back(start + at + ",scripted : Trampoline, " + text + "\n");
        };
        entry("ZoThread ", "Work started ...");
        entry("ZoThread ", "Work done");
        entry("ZoThread ", "Result = 0x2a");
        entry("ZoThread ", "Cleanup done");
        entry("ZoThread ", "Status set");
        entry("ZoThread", "ZoThreadDetach done");
        if (autoDelete != 0) {
            entry("ZoThread ", "delete before...");
            expected.push_back("ZoThread " + at + " : Trampoline, delete done\n");
        } else {
            std::string const system = Pointer(thread->systemThread);
            EXPECT_EQ(thread->Abort(), 0);
            EXPECT_EQ(thread->GetStatus(), 6) << "nothing left to abort";
            expected.push_back("ZoThread::Abort " + at + "\n");
            expected.push_back("Couldn't terminate thread " + system + " 3\n");
            delete thread;
        }
        EXPECT_EQ(tracer.Texts(), expected);
    }
    Context context(false);
    Tracer tracer(0);
    GetDebugger()->current = 0x800000;
    ZoThread base(nullptr, nullptr, 0);
    EXPECT_EQ(CplusplusTrampoline(&base, nullptr), 0);
    std::string const at = Pointer(&base) + "\n";
    EXPECT_EQ(tracer.Texts(),
              (Lines{"ZoThread::Init " + at, "ZoThread::Work " + at, "ZoThread::Cleanup " + at}));
    GetDebugger()->current = 0;
    EXPECT_EQ(CplusplusTrampoline(&base, nullptr), 0);
    EXPECT_EQ(tracer.Texts().size(), 3U);
}

TEST_F(Threads, RunTheirOperationsAndCanBeStartedAgain) {
    Scripted thread;
    EXPECT_EQ(thread.GetStatus(), 7);
    EXPECT_EQ(thread.pendingPriority, ZoPriorityUnchanged);
    EXPECT_EQ(thread.GetOSThreadInfo(nullptr, nullptr, nullptr), ZoRefused);
    EXPECT_EQ(thread.Suspend() + thread.Continue() + thread.Giveup() + thread.Abort(), 0);
    EXPECT_EQ(thread.GetStatus(), 7);
    EXPECT_EQ(thread.WaitForThreadExit(5), 0);
    EXPECT_EQ(services.Assertions(), Lines{"0 src/zothread 228"});

    ZoResourceWatcher watcher;
    std::string order;
    std::atomic<bool> go{false};
    Script script;
    script.init = [&] { order += "i"; };
    script.work = [&] {
        Await([&] { return go.load(); });
        EXPECT_EQ(thread.Giveup(), 0);
        order += "w";
        return 42;
    };
    script.cleanup = [&] { order += "c"; };
    thread.SetResourceWatcher(&watcher);
    for (int run = 0; run < 2; ++run) {
        go = false;
        thread.SetPendingPriority(ZoPriorityHigh);
        thread.SetPriorityBoostOff(1);
        EXPECT_EQ(thread.Start(&script), 0);
        EXPECT_EQ(watcher.Counter(), 1) << "counted before the starter goes on";
        EXPECT_EQ(thread.pendingPriority, ZoPriorityUnchanged);
        EXPECT_EQ(thread.GetStatus(), 1);
        _Thread* const system = thread.systemThread;
        EXPECT_EQ(thread.Start(nullptr), 0);
        EXPECT_EQ(thread.systemThread, system) << "a running one is left alone";
        EXPECT_EQ(thread.Block(nullptr), 0);
        EXPECT_EQ(thread.GetStatus(), 2);
        EXPECT_EQ(thread.Start(nullptr) + thread.Continue() + thread.Giveup(), 0);
        EXPECT_EQ(thread.GetStatus(), 1);
        EXPECT_EQ(thread.GetOSThreadInfo(nullptr, nullptr, nullptr), ZoNotSupported);
        go = true;
        watcher.WaitForZero(0);
        EXPECT_EQ(thread.GetStatus(), 4);
        EXPECT_EQ(thread.GetResult(), 42);
    }
    EXPECT_EQ(order, "iwciwc");
    for (long number : {-3L, -2L, -1L, 0L, 1L, 2L})
        EXPECT_EQ(long2ZoThreadPriority(number), number);
    for (long number : {3L, -4L, 1000L}) EXPECT_EQ(long2ZoThreadPriority(number), -3);
    EXPECT_EQ(ZoGetNumberOfLogicalProcessors(), ZoGetNumberOfPhysicalProcessors());
}

struct Deleting : Scripted {
    explicit Deleting(ZoResourceWatcher& watcher) : Scripted(1), watcher(watcher) {
        SetResourceWatcher(&watcher);
    }
    ~Deleting() override {
        EXPECT_GE(watcher.Counter(), 1);
        EXPECT_NE(ZoTLS::GetThreadLocalStorage()->ownedObject, nullptr);
        ++deleted;
    }
    ZoResourceWatcher& watcher;
    static inline std::atomic<int> deleted{0};
};

// A thread's own deletion: on its thread, with its record, and while it is still counted.
TEST_F(Threads, DeleteThemselvesBeforeTheyAreUncounted) {
    Script script;
    script.work = [] {
        AliveMark::Leave();
        return 0;
    };
    ZoResourceWatcher watcher;
    for (int i = 0; i < 2000; ++i) EXPECT_EQ((new Deleting(watcher))->Start(&script), 0);
    watcher.WaitForZero(0);
    EXPECT_EQ(Deleting::deleted, 2000);
}

class Blocker : public ZoSynchroObj {
public:
    Blocker() : ZoSynchroObj("blocker") {}
    void ForceRelease() override { ++released; }
    std::atomic<int> released{0};
};

TEST_F(Threads, AnAbortEndsTheOperationAndNothingFollows) {
    ZoResourceWatcher watcher;
    Blocker blocker;
    Script script = Staying();
    script.cleanup = [] { ADD_FAILURE(); };
    auto thread = std::make_unique<Scripted>();
    thread->SetResourceWatcher(&watcher);
    thread->Start(&script);
    Await([&] { return inside == 1; });
    thread->blockingObject = &blocker;
    EXPECT_EQ(thread->Abort(), 0);
    EXPECT_EQ(blocker.released, 1);
    EXPECT_EQ(thread->blockingObject, nullptr);
    EXPECT_EQ(thread->GetStatus(), 5);
    AliveMark::AwaitReleased();
    EXPECT_EQ(thread->GetStatus(), 5);
    EXPECT_EQ(watcher.Counter(), 1) << "stays counted";

    // Again, while the first thread is long gone; then by itself, with no cancellation point after.
    script.work = [&] {
        AliveMark::Leave();
        thread->Abort();
        return 1;
    };
    EXPECT_EQ(thread->Start(&script), 0);
    Await([] { return AliveMark::made == 2; });
    AliveMark::AwaitReleased();
    EXPECT_EQ(thread->GetStatus(), 5);
    EXPECT_EQ(thread->GetResult(), 0);
    EXPECT_EQ(thread->Abort(), 0);
    EXPECT_EQ(thread->GetStatus(), 6) << "there was no thread left";
    blocker.released = 0;
    thread->blockingObject = &blocker;
    thread.reset();
    EXPECT_EQ(blocker.released, 1);
}

// A watcher that has the thread aborted while its start is under way.
class Aborting : public ZoResourceWatcher {
public:
    explicit Aborting(ZoThread& thread) : thread(thread) {}
    int IncrementCounter() override {
        AliveMark::Leave();
        std::thread([&] { thread.Abort(); }).join();
        usleep(0);  // a cancellation point
        return ZoResourceWatcher::IncrementCounter();
    }
    ZoThread& thread;
};

TEST_F(Threads, AnAbortDuringTheStartLetsTheStarterGoOn) {
    Script script;
    script.init = [] { ADD_FAILURE(); };
    Scripted thread;
    Aborting watcher(thread);
    thread.SetResourceWatcher(&watcher);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(thread.Start(&script), 0);
        EXPECT_EQ(thread.GetStatus(), 5);
        watchdog.Progress();
    }
    AliveMark::AwaitReleased();
    EXPECT_EQ(thread.GetStatus(), 5);
    EXPECT_EQ(watcher.Counter(), 50);
}

// While an abort that found no thread tells of its failure, the thread is started and aborted.
class StartsAndAborts : public ZoEventListener {
public:
    explicit StartsAndAborts(PosixThread& thread) : thread(thread) {}
    int Notify(ZoEvent const*) override {
        EXPECT_EQ(thread.Start(0), 0);
        EXPECT_EQ(thread.Abort(), 0);
        return 0;
    }
    PosixThread& thread;
};

TEST_F(Threads, ALateFailureLeavesTheMarkOfASecondAbort) {
    services.Configure("mode", 0x100000);
    Context context(false);
    Script script = Staying();
    Scripted owner;
    EXPECT_EQ(owner.Start(&script), 0);  // gives it the argument
    Await([&] { return inside == 1; });
    owner.Abort();
    AliveMark::AwaitReleased();
    PosixThread thread(&owner);
    ZoEventMessageDispatcher::GetDispatcher()->RegisterListener(1, 0x900,
                                                                new StartsAndAborts(thread));
    EXPECT_EQ(thread.Abort(), ESRCH);
    EXPECT_EQ(owner.GetStatus(), 5);
    AliveMark::AwaitReleased();
}

// The object goes while its thread is in Work. A thread that does not notice its cancellation
// returns to the library, which must not touch the object: AddressSanitizer holds that.
TEST_F(Threads, AnObjectMayGoWhileItsThreadIsInWork) {
    std::atomic<int> gone{0};
    Script staying = Staying();
    Script deaf;
    deaf.work = [&] {
        AliveMark::Leave();
        int const until = ++inside;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        Await([&] { return gone >= until; });
        return 1;
    };
    for (int i = 1; i <= 200; ++i) {
        auto thread = std::make_unique<Scripted>();
        thread->SetStackSizeCode(i % 3);
        thread->Start(i % 2 == 0 ? &staying : &deaf);
        Await([&] { return inside == i; });
        if (i % 4 < 2) thread->Abort();
        thread.reset();
        gone = i;
    }
}

// Counts its threads' records until they are released, which is the last they do: every thread that
// is started leaves a mark, however early it is aborted.
class Marking : public ZoResourceWatcher {
public:
    int IncrementCounter() override {
        ++made;
        ZoTLS::GetThreadLocalStorage()->ownedObject = new Mark(*this);
        return ZoResourceWatcher::IncrementCounter();
    }
    void AwaitAllEnded() {
        Await([this] { return released == made; });
    }
    std::atomic<int> made{0}, released{0};

private:
    struct Mark : ZoExtendedBase {
        explicit Mark(Marking& watcher) : watcher(watcher) {}
        ~Mark() override { ++watcher.released; }
        Marking& watcher;
    };
};

struct Run {
    bool stays;
    std::atomic<bool> inside{false};
    Blocker blocker{};
};

class Restless : public ZoThread {
public:
    explicit Restless(Marking& watcher) : ZoThread("restless", nullptr, 0) {
        SetResourceWatcher(&watcher);
    }
    int Work(void* run) override {
        blockingObject = &static_cast<Run*>(run)->blocker;
        static_cast<Run*>(run)->inside = true;
        return static_cast<Run*>(run)->stays ? Stay() : 7;
    }
};

struct Restart {
    std::mutex deletion;  // held by others than the owner while they use the object
    std::unique_ptr<Restless> thread;
    Marking watcher;
    std::vector<std::unique_ptr<Run>> runs;

    void Delete() {
        std::lock_guard<std::mutex> hold(deletion);
        thread.reset();
    }
    void DeleteAfterItsEnd() {
        thread->Abort();
        watcher.AwaitAllEnded();
        Delete();
    }
    void Round(std::mt19937& random) {
        if (thread == nullptr) {
            std::lock_guard<std::mutex> hold(deletion);
            thread = std::make_unique<Restless>(watcher);
        }
        int const before = watcher.made;
        Run* const run = runs.emplace_back(new Run{random() % 2 == 0}).get();
        EXPECT_EQ(thread->Start(run), 0);
        if (watcher.made == before) return DeleteAfterItsEnd();  // its status did not allow a start
        auto const awaitWork = [&] {
            Await([&] { return run->inside || watcher.released == watcher.made; });
        };
        switch (random() % 5) {
            case 0:
                thread->Abort();
                break;
            case 1:
                awaitWork();
                thread->Abort();
                break;
            case 2:
                thread->Abort();
                thread->_Finish();
                break;
            case 3:
                awaitWork();
                // No other thread of the object is left, and this one stays where it is.
                Await([&] { return watcher.released >= watcher.made - 1; });
                if (run->stays) return Delete();
                break;
            default:
                break;
        }
    }
};

// An owner an object, which starts, finishes and deletes it, and others that abort and mark it at
// any time. Every thread comes to its end, by itself or aborted.
TEST_F(Threads, StartAbortRestartAndDeleteInAnyOrder) {
    // Passes on a kernel that runs the program itself; under qemu-i386 it stands still.
#ifdef ZO_EMULATED
    GTEST_SKIP() << "not under an emulator";
#endif
    constexpr unsigned int Owners = 3, Meddlers = 2;
    Restart restarts[Owners];
    std::atomic<unsigned int> running{Owners};
    std::vector<std::thread> threads;
    for (unsigned int owner = 0; owner < Owners; ++owner) {
        threads.emplace_back([&, owner] {
            std::mt19937 random(owner);
            for (int i = 0; i < 2000; ++i) {
                restarts[owner].Round(random);
                watchdog.Progress();
            }
            if (restarts[owner].thread != nullptr) restarts[owner].DeleteAfterItsEnd();
            restarts[owner].watcher.AwaitAllEnded();
            --running;
        });
    }
    for (unsigned int meddler = 0; meddler < Meddlers; ++meddler) {
        threads.emplace_back([&, meddler] {
            std::mt19937 random(100 + meddler);
            while (running != 0) {
                Restart& restart = restarts[random() % Owners];
                std::lock_guard<std::mutex> hold(restart.deletion);
                if (restart.thread == nullptr) continue;
                switch (random() % 16) {
                    case 0:
                        restart.thread->Abort();
                        break;
                    case 1:
                        restart.thread->Suspend();
                        break;
                    case 2:
                        restart.thread->Continue();
                        break;
                    case 3:
                        restart.thread->GetOSThreadInfo(nullptr, nullptr, nullptr);
                        break;
                    default:
                        restart.thread->Giveup();
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

TEST_F(Threads, LeaveNothingBehind) {
    Script script;
    Marking watcher;
    long const before = AllocFault::Live();
    auto const awaitNothingLeft = [&] {
        watcher.WaitForZero(0);
        watcher.AwaitAllEnded();
        Await([&] { return AllocFault::Live() == before; });
    };
    for (int i = 0; i < 10000; ++i) {
        Scripted thread;
        thread.SetStackSizeCode(65536);
        thread.SetResourceWatcher(&watcher);
        EXPECT_EQ(thread.Start(&script), 0);
        watcher.WaitForZero(0);
        watchdog.Progress();
    }
    awaitNothingLeft();
    std::atomic<bool> go{false};
    script.work = [&] {
        go.wait(false);
        return 0;
    };
    for (int i = 0; i < 1000; ++i) {
        auto* const thread = new Scripted(1);
        thread->SetStackSizeCode(65536);
        thread->SetResourceWatcher(&watcher);
        EXPECT_EQ(thread->Start(&script), 0);
        watchdog.Progress();
    }
    EXPECT_EQ(watcher.Counter(), 1000);
    go = true;
    go.notify_all();
    awaitNothingLeft();
}

}  // namespace
