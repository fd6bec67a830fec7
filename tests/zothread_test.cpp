// Thread objects and the system threads below them.

#include "zothread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <memory>
#include <random>

#include "alloc_fault.h"
#include "services.h"
#include "thrdimp.h"
#include "thread_entry.h"
#include "watchdog.h"
#include "zocond.h"
#include "zotls.h"

using namespace zotest;

// The linker puts this in front of the system's function.
namespace {
thread_local std::size_t stackSize = 0;

#ifdef __clang__  // not instrumented: Clang's ThreadSanitizer calls it before it is ready itself
#define NOT_INSTRUMENTED __attribute__((disable_sanitizer_instrumentation))
#else
#define NOT_INSTRUMENTED
#endif
}  // namespace
// Keeps the size that the library asks for: Clang's ThreadSanitizer then raises it through the same
// function.
extern "C" int __real_pthread_attr_setstacksize(pthread_attr_t*, std::size_t);
extern "C" NOT_INSTRUMENTED int __wrap_pthread_attr_setstacksize(pthread_attr_t* attributes,
                                                                 std::size_t size) {
    if (stackSize == 0) stackSize = size;
    return __real_pthread_attr_setstacksize(attributes, size);
}

namespace {

using Lines = Services::Lines;

// What a thread does; the argument of Start, so that it may outlive the object.
struct Script {
    std::function<int()> work = [] { return 0; };
    std::function<void()> init = [] {}, cleanup = [] {};
};

class Scripted : public ZoThread {
public:
    explicit Scripted(ZoResourceWatcher* watcher, int autoDelete = 0, char const* name = "scripted")
        : ZoThread(name, "text", autoDelete) {
        SetResourceWatcher(watcher);
    }
    int Work(void* script) override { return static_cast<Script*>(script)->work(); }
    void Init(void* script) override { static_cast<Script*>(script)->init(); }
    void Cleanup(void* script) override { static_cast<Script*>(script)->cleanup(); }

    using ZoThread::argument;
    using ZoThread::blockingObject;
    using ZoThread::pendingPriority;
    using ZoThread::systemThread;
    using ZoThread::systemThreadUses;
};

// Also waits for threads that were aborted and stay counted: a thread's record, which owns its
// mark, is the last that it releases.
class Watcher : public ZoResourceWatcher {
public:
    int IncrementCounter() override {
        onStart();
        ++made;
        ZoTLS::GetThreadLocalStorage()->ownedObject = new Mark(*this);
        return ZoResourceWatcher::IncrementCounter();
    }
    void AwaitReleased() {
        Await([this] { return released == made; });
    }
    std::function<void()> onStart = [] {};
    std::atomic<int> made{0}, released{0};  // marks

private:
    struct Mark : ZoExtendedBase {
        explicit Mark(Watcher& watcher) : watcher(watcher) {}
        ~Mark() override { ++watcher.released; }
        Watcher& watcher;
    };
};

// Waits until it is cancelled.
int Stay() {
    static POSIXCondition never("never");
    return never.WaitForCondition(0, ZoNoLimit);
}

class Threads : public testing::Test {
protected:
    ~Threads() override { watcher.AwaitReleased(); }

    // A script that stays in Work until it is cancelled, and tells when it is there.
    Script Staying() {
        Script script;
        script.work = [this] {
            ++inside;
            return Stay();
        };
        return script;
    }

    Services services;
    Watchdog watchdog;
    Watcher watcher;
    std::atomic<int> inside{0};
};

TEST_F(Threads, HaveTheStackSizeOfTheirCode) {
    Script script;
    for (auto const& [code, size] :
         {std::pair<long, std::size_t>{1, 32768}, {2, 1048576}, {0, 0}, {262144, 262144}}) {
        // AArch64 has no threads with so small a stack.
        if (code == 1 && sysconf(_SC_THREAD_STACK_MIN) > 32768) continue;
        Scripted thread(&watcher);
        if (code != 2) thread.SetStackSizeCode(code);
        stackSize = 0;
        EXPECT_EQ(thread.Start(&script), 0);
        EXPECT_EQ(stackSize, size);
        watcher.WaitForZero(0);
        EXPECT_EQ(thread.GetStatus(), 4);
    }
}

TEST_F(Threads, TraceLinesToTheByte) {
    Script script;
    script.work = [] { return 42; };
    services.Configure("mode", 0x900100);
    for (int autoDelete : {0, 1}) {
        Context context(false);
        auto* const thread = new Scripted(&watcher, autoDelete);
        std::string const at = Pointer(thread), named = at + ",scripted : Trampoline, ";
        thread->Start(&script);
        watcher.WaitForZero(0);
        Lines expected{"ZoThread::Start " + at,
                       "ZoThread " + named + "Work started ...",
                       "ZoThread " + named + "Work done",
                       "ZoThread " + named + "Result = 0x2a",
                       "ZoThread " + named + "Cleanup done",
                       "ZoThread " + named + "Status set",
                       "ZoThread" + named + "ZoThreadDetach done"};
        if (autoDelete != 0) {
            expected.push_back("ZoThread " + named + "delete before...");
            expected.push_back("ZoThread " + at + " : Trampoline, delete done");
        } else {
            expected.push_back("ZoThread::Abort " + at);
            expected.push_back("Couldn't terminate thread " + Pointer(thread->systemThread) + " 3");
            EXPECT_EQ(thread->Abort(), 0);
            EXPECT_EQ(thread->GetStatus(), 6) << "nothing left to abort";
            delete thread;
        }
        std::string shown = "DEBUG LEVEL --> 0x900100\n";
        for (std::string const& line : expected) shown += line + "\n\n";
        EXPECT_EQ(context.console->text, shown);
    }
    services.Configure("mode", 0x800000);
    Context context(false);
    ZoThread base(nullptr, nullptr, 0);
    EXPECT_EQ(CplusplusTrampoline(&base, nullptr), 0);
    std::string const at = Pointer(&base) + "\n\n";
    EXPECT_EQ(context.console->text, "DEBUG LEVEL --> 0x800000\nZoThread::Init " + at +
                                         "ZoThread::Work " + at + "ZoThread::Cleanup " + at);
}

TEST_F(Threads, RunTheirOperationsAndCanBeStartedAgain) {
    Scripted thread(&watcher, 0, "scripted at length");
    EXPECT_EQ(thread.GetOSThreadInfo(nullptr, nullptr, nullptr), ZoRefused);
    EXPECT_EQ(thread.Suspend() + thread.Continue() + thread.Giveup() + thread.Abort(), 0);
    EXPECT_EQ(thread.GetStatus(), 7);
    EXPECT_EQ(thread.WaitForThreadExit(5), 0);
    EXPECT_EQ(services.Assertions(), Lines{"0 src/zothread 228"});

    std::string order;
    std::atomic<bool> go{false};
    Script script;
    script.init = [&] { order += "i"; };
    script.work = [&] {
        Await([&] { return go.load(); });
        EXPECT_EQ(thread.Giveup(), 0);
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        EXPECT_STREQ(name, "scripted at len");
        order += "w";
        return 42;
    };
    script.cleanup = [&] { order += "c"; };
    for (int run = 0; run < 2; ++run) {
        go = false;
        thread.SetPendingPriority(ZoPriorityHigh);
        thread.SetPriorityBoostOff(1);
        EXPECT_EQ(thread.Start(&script), 0);
        EXPECT_EQ(watcher.Counter(), 1) << "counted before the starter goes on";
        EXPECT_EQ(thread.pendingPriority, ZoPriorityUnchanged);
        EXPECT_EQ(thread.GetStatus(), 1);
        _Thread* const system = thread.systemThread;
        EXPECT_EQ(thread.Start(nullptr) + thread.Block(nullptr) + thread.Start(nullptr), 0);
        EXPECT_EQ(thread.GetStatus(), 2);
        EXPECT_EQ(thread.Continue() + thread.Giveup(), 0);
        EXPECT_EQ(thread.GetStatus(), 1);
        EXPECT_EQ(thread.systemThread, system) << "a running one is left alone";
        EXPECT_EQ(thread.GetOSThreadInfo(nullptr, nullptr, nullptr), ZoNotSupported);
        go = true;
        watcher.WaitForZero(0);
        EXPECT_EQ(thread.GetStatus(), 4);
        EXPECT_EQ(thread.GetResult(), 42);
    }
    EXPECT_EQ(order, "iwciwc");
    for (long number = -4; number <= 3; ++number) {
        EXPECT_EQ(long2ZoThreadPriority(number), number < -2 || number > 2 ? -3 : number);
    }
}

class Blocker : public ZoSynchroObj {
public:
    Blocker() : ZoSynchroObj("blocker") {}
    void ForceRelease() override { ++released; }
    std::atomic<int> released{0};
};

TEST_F(Threads, AnAbortEndsTheOperationAndNothingFollows) {
    Blocker blocker;
    Script script = Staying();
    script.cleanup = [] { ADD_FAILURE(); };
    auto thread = std::make_unique<Scripted>(&watcher);
    thread->Start(&script);
    Await([&] { return inside == 1; });
    thread->blockingObject = &blocker;
    EXPECT_EQ(thread->Abort(), 0);
    EXPECT_EQ(blocker.released, 1);
    EXPECT_EQ(thread->blockingObject, nullptr);
    EXPECT_EQ(thread->GetStatus(), 5);
    watcher.AwaitReleased();
    EXPECT_EQ(watcher.Counter(), 1) << "stays counted";

    // Again, while the first thread is long gone; then by itself, with no cancellation point after.
    script.work = [&] {
        thread->Abort();
        return 1;
    };
    EXPECT_EQ(thread->Start(&script), 0);
    watcher.AwaitReleased();
    EXPECT_EQ(thread->GetStatus(), 5);
    EXPECT_EQ(thread->GetResult(), 0);
    EXPECT_EQ(thread->Abort(), 0);
    EXPECT_EQ(thread->GetStatus(), 6) << "there was no thread left";
    blocker.released = 0;
    thread->blockingObject = &blocker;
    thread.reset();
    EXPECT_EQ(blocker.released, 1);
}

TEST_F(Threads, AnAbortDuringTheStartLetsTheStarterGoOn) {
    Script script;
    script.init = [] { ADD_FAILURE(); };
    Scripted thread(&watcher);
    watcher.onStart = [&] {
        std::thread([&] { thread.Abort(); }).join();
        usleep(0);  // a cancellation point
    };
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(thread.Start(&script), 0);
        EXPECT_EQ(thread.GetStatus(), 5);
        watchdog.Progress();
    }
    watcher.AwaitReleased();
    EXPECT_EQ(watcher.Counter(), 50);
}

// While an abort that found no thread tells of its failure, the thread is started and aborted.
TEST_F(Threads, ALateFailureLeavesTheMarkOfASecondAbort) {
    services.Configure("mode", 0x100000);
    Context context(false);
    Script script = Staying();
    Scripted owner(&watcher);
    owner.argument = &script;
    PosixThread thread(&owner);
    auto* const listener = new Listener([&](ZoEvent const*) {  // the dispatcher's from here on
        EXPECT_EQ(thread.Start(0), 0);
        Await([&] { return inside == 1; });
        EXPECT_EQ(thread.Abort(), 0);
    });
    ZoEventMessageDispatcher::GetDispatcher()->RegisterListener(1, 0x900, listener);
    EXPECT_EQ(thread.Abort(), ESRCH);
    EXPECT_EQ(owner.GetStatus(), 5);
    watcher.AwaitReleased();
}

// A thread that stays does so until it is cancelled. A deaf one does not notice its cancellation
// and returns to the library, also when its object is gone, which the library must not touch then:
// AddressSanitizer holds that.
struct Run : Script {
    enum Kind { Returns, Stays, Deaf } kind;
    std::atomic<bool> inside{false}, gone{false};
    Blocker blocker{};

    int Work(Scripted* object) {
        object->blockingObject = &blocker;
        if (kind == Deaf) pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        inside = true;
        if (kind == Deaf) Await([&] { return gone.load(); });
        return kind == Stays ? Stay() : 7;
    }
};

struct Restart {
    std::mutex deletion;  // held by others than the owner while they use the object
    std::unique_ptr<Scripted> thread;
    Watcher watcher;
    std::vector<std::unique_ptr<Run>> runs;

    void Delete() {
        std::lock_guard<std::mutex> hold(deletion);
        thread.reset();
    }
    void DeleteAfterItsEnd() {
        thread->Abort();
        watcher.AwaitReleased();
        Delete();
    }
    void Round(std::mt19937& random) {
        if (thread == nullptr) {
            std::lock_guard<std::mutex> hold(deletion);
            thread = std::make_unique<Scripted>(&watcher);
        }
        std::atomic<int> const &made = watcher.made, &released = watcher.released;
        int const before = made;
        auto const kind = static_cast<Run::Kind>(random() % 3);
        Run* const run = runs.emplace_back(new Run{{}, kind}).get();
        run->work = [run, object = thread.get()] { return run->Work(object); };
        EXPECT_EQ(thread->Start(run), 0);
        if (made == before) return DeleteAfterItsEnd();  // its status did not allow a start
        unsigned long const step = random() % 5;
        if (step == 1 || step == 3) Await([&] { return run->inside || released == made; });
        if (step <= 2) thread->Abort();
        if (step == 2) thread->_Finish();
        if (step != 3) {
            run->gone = true;
            return;
        }
        // No other thread of the object is left, and this one stays where it is.
        Await([&] { return released >= made - 1; });
        if (kind == Run::Returns) return;
        if (random() % 2 == 0) thread->Abort();
        Delete();
        run->gone = true;
    }
};

// An owner an object, which starts, finishes and deletes it, and others that abort and mark it at
// any time. Every thread comes to its end, by itself or aborted.
TEST_F(Threads, StartAbortRestartAndDeleteInAnyOrder) {
    constexpr int Owners = 3, Meddlers = 2;
    Restart restarts[Owners];
    std::atomic<int> running{Owners};
    auto const own = [&](Restart& restart, std::mt19937& random) {
        for (int i = 0; i < 2000; ++i) {
            restart.Round(random);
            watchdog.Progress();
        }
        if (restart.thread != nullptr) restart.DeleteAfterItsEnd();
        restart.watcher.AwaitReleased();
        --running;
    };
    auto const meddle = [](Restart& restart, unsigned long step) {
        std::lock_guard<std::mutex> hold(restart.deletion);
        if (restart.thread == nullptr) return;
        if (step == 0) restart.thread->Abort();
        if (step == 1) restart.thread->Suspend();
        if (step == 2) restart.thread->Continue();
        if (step == 3) restart.thread->GetOSThreadInfo(nullptr, nullptr, nullptr);
        if (step > 3) restart.thread->Giveup();
    };
    OnThreads(Owners + Meddlers, [&](int number) {
        std::mt19937 random(static_cast<unsigned int>(number));
        if (number < Owners) return own(restarts[number], random);
        while (running != 0) meddle(restarts[random() % Owners], random() % 16);
    });
}

// A thread's own deletion: on its thread, with its record, and while it is still counted.
struct Deleting : Scripted {
    explicit Deleting(ZoResourceWatcher& watcher) : Scripted(&watcher, 1), watcher(watcher) {}
    ~Deleting() override {
        EXPECT_GE(watcher.Counter(), 1);
        EXPECT_NE(ZoTLS::GetThreadLocalStorage()->ownedObject, nullptr);
        ++deleted;
    }
    ZoResourceWatcher& watcher;
    static inline std::atomic<int> deleted{0};
};

TEST_F(Threads, LeaveNothingBehind) {
    Script script;
    long const before = AllocFault::Live();
    auto const start = [&](Scripted& thread) {
        thread.SetStackSizeCode(131072);  // the least on AArch64
        EXPECT_EQ(thread.Start(&script), 0);
        watchdog.Progress();
    };
    auto const awaitNothingLeft = [&] {
        watcher.WaitForZero(0);
        watcher.AwaitReleased();
        Await([&] { return AllocFault::Live() == before; });
    };
    for (int i = 0; i < 10000; ++i) {
        Scripted thread(&watcher);
        start(thread);
        watcher.WaitForZero(0);
    }
    awaitNothingLeft();
    std::atomic<bool> go{false};
    script.work = [&] {
        go.wait(false);
        return 0;
    };
    for (int i = 0; i < 1000; ++i) start(*new Deleting(watcher));
    EXPECT_EQ(watcher.Counter(), 1000);
    go = true;
    go.notify_all();
    awaitNothingLeft();
    EXPECT_EQ(Deleting::deleted, 1000);
}

// Of the parent's threads, which are absent, one would run the object and one would use it.
TEST_F(Threads, AChildDestroysItsParentsObjects) {
    Script script = Staying();
    auto thread = std::make_unique<Scripted>(&watcher);
    thread->Start(&script);
    Await([&] { return inside == 1; });
    ++thread->systemThreadUses;
    EXPECT_TRUE(ChildSucceeds([&] {
        EXPECT_EQ(thread->Abort(), 0);
        EXPECT_EQ(thread->GetStatus(), 6) << "there is no thread";
        thread.reset();
        _exit(HasFailure() ? 1 : 0);
    }));
    --thread->systemThreadUses;
    thread->Abort();
    watcher.AwaitReleased();
}

// The tear-down does not wait for a thread that ends in the parent.
TEST_F(Threads, AChildTearsDownWhileAParentsThreadEnds) {
    struct Slow : ZoResourceWatcher {
        int DecrementCounter() override {
            ending = true;
            Await([this] { return go.load(); });
            return ZoResourceWatcher::DecrementCounter();
        }
        std::atomic<bool> ending{false}, go{false};
    };
    Context context(false);
    Slow slow;
    Script script;
    Scripted thread(&slow);
    thread.Start(&script);
    Await([&] { return slow.ending.load(); });
    EXPECT_TRUE(ChildSucceeds([] {
        ___ZoExtendedContext(0);
        _exit(0);
    }));
    slow.go = true;
    slow.WaitForZero(0);
}

// What `body` costs a thread of a high real-time priority that has one processor together with all
// the others; negative when the system does not let it have that.
double SecondsOfRealTime(std::function<void()> body) {
    double seconds = -1;
    std::thread([&] {
        sched_param const high{99};
        int const policy = SCHED_FIFO | SCHED_RESET_ON_FORK;
        if (sched_setscheduler(0, policy, &high) != 0) return;
        body();
        timespec used{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        seconds = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
    }).join();
    return seconds;
}

// A thread that yields to one of a lower priority keeps it from the processor; the system ends that
// after a second.
TEST_F(Threads, LetThreadsOfLowerPriorityRun) {
    cpu_set_t all, one;
    sched_getaffinity(0, sizeof all, &all);
    CPU_ZERO(&one);
    for (unsigned cpu = 0; CPU_COUNT(&one) == 0; ++cpu) {
        if (CPU_ISSET(cpu, &all)) CPU_SET(cpu, &one);
    }
    sched_setaffinity(0, sizeof one, &one);
    struct Opened final : ConditionLogic {
        int SafeTest(int*) override { return open ? 0 : 1; }
        std::atomic<bool> open{false};
    } opened;
    Condition polled("polled");
    polled.logic = &opened;
    Script script;
    Scripted thread(&watcher);
    watcher.onStart = [] {
        for (int i = 0; i < 1000; ++i) usleep(0);
    };
    ++thread.systemThreadUses;
    std::atomic<bool> waiting{false};
    std::thread low([&] {
        while (!waiting) usleep(100);
        --thread.systemThreadUses;
        opened.open = true;
    });
    double const seconds = SecondsOfRealTime([&] {
        waiting = true;
        thread._Finish();
        polled.WaitForCondition(0, ZoNoLimit);
        thread.Start(&script);
    });
    waiting = true;
    low.join();
    watcher.WaitForZero(0);
    sched_setaffinity(0, sizeof all, &all);
    if (seconds < 0) GTEST_SKIP() << "needs the right to real-time priorities";
    EXPECT_LT(seconds, 0.5);
}

// What a thread takes with it is told before the context is gone that the telling needs.
TEST_F(Threads, WhoEndsAsAnOwnerIsAwaitedByTheTearDown) {
    static auto& left = *new std::vector<ZoCritSect*>;  // locked for ever
    Lines expected;
    for (bool const detection : {false, true}) {
        auto context = std::make_unique<Context>(detection);
        left.push_back(ZoCritSect::Make("left"));
        void* record = nullptr;
        Script script;
        script.work = [&] {
            left.back()->Begin();
            record = ZoTLS::GetThreadLocalStorage();
            return 0;
        };
        Scripted thread(&watcher);
        ASSERT_EQ(thread.Start(&script), 0);
        watcher.WaitForZero(0);
        context.reset();
        expected.push_back("4 ZoThread " + Pointer(record) +
                           " ended and still owns critical sections: left");
        EXPECT_EQ(services.Log(), expected);
    }
}

}  // namespace
