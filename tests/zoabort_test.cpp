// Abortion handlers. What ends a process happens in one of its own, a death test that must end with
// status 0; what it wrote to standard error tells who was asked.

#include "zoabort.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>

#include "abort_handlers.h"
#include "services.h"
#include "zosyncob.h"

using namespace zotest;

// The linker puts this in front of the system's function, so that a test can make it fail.
namespace {
bool failThreads = false;
void (*onThread)() = [] {};  // before a thread is made
}  // namespace
extern "C" {
int __real_pthread_create(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, pthread_attr_t const* attributes, void* (*body)(void*),
                          void* argument) {
    onThread();
    return failThreads ? EAGAIN : __real_pthread_create(thread, attributes, body, argument);
}
}

namespace {

void Write(char const* text) {
    if (write(STDERR_FILENO, text, std::strlen(text)) < 0) std::abort();
}

// The system log, on standard error. Never destroyed: a signal is answered while exit() runs.
class WrittenLog : public ZoLog {
    __attribute__((format(printf, 3, 4))) int Printf(int level, char const* format, ...) override {
        std::va_list values;
        va_start(values, format);
        Write((std::to_string(level) + " " + Format(format, values) + "\n").c_str());
        va_end(values);
        return 0;
    }
};
ZoLog* const previousLog = ZoSetSystemLog(new WrittenLog);

#define ENDED_BY(signal) "3 Signal " signal " ends the process: no abortion handler objected\n"

int Agree(void* text) {
    Write(static_cast<char const*>(text));
    return 0;
}
int Refuse(void* text) {
    Write(static_cast<char const*>(text));
    return 7;
}
int Exit(void* text) {
    Write(static_cast<char const*>(text));
    std::exit(0);
}
int Add(int (*handler)(void*), char const* text = "") {
    return ZoAddAbortionHandler(handler, const_cast<char*>(text));
}
int Remove(int (*handler)(void*), char const* text = "") {
    return ZoRemoveAbortionHandler(handler, const_cast<char*>(text));
}
void DropAllReferences() {
    while (AbortHandlerInitialization(1) != 0) {
    }
}

// The signal is the end, within a minute.
[[noreturn]] void Send(int signal) {
    alarm(60);
    raise(signal);
    for (;;) pause();
}

// For signals that are answered on this thread.
void RaiseHere(int signal) {
    if (threadSanitizer) {
        LowLevelHandler(signal);
    } else {
        raise(signal);
    }
}

// --- the end of a process ------------------------------------------------------------------------

// The end of a process whose child calls `body`: as that of the child.
template <class Body>
[[noreturn]] void EndAsChild(Body body) {
    _exit(ChildSucceeds(body) ? 0 : 1);
}

// Without a thread the handlers have answered by the time the signal handler returns. The first
// function that exit() calls ends the process: the sanitizers' own exit functions object to one in
// a signal handler, and to the threads that a forked child lacks.
[[noreturn]] void RefuseThenAgree(char const* end) {
    on_exit([](int status, void*) { _exit(status); }, nullptr);
    Add(Refuse, "refused ");
    RaiseHere(SIGINT);
    RaiseHere(SIGQUIT);
    Remove(Refuse, "refused ");
    Add(Agree, end);
    RaiseHere(SIGINT);
    _exit(1);
}

// A signal must not come while its thread has the locks that the answer needs.
void SignalsWhileTheirThreadChangesTheList() {
    failThreads = true;
    Add(Refuse);
    std::atomic<bool> sent{false};
    std::thread sender([&, changer = pthread_self()] {
        for (int i = 0; i < 2000; ++i) pthread_kill(changer, i % 2 == 0 ? SIGINT : SIGQUIT);
        sent = true;
    });
    alarm(60);
    while (!sent) Add(Agree), Remove(Agree);
    sender.join();
    _exit(0);
}

// Sets the facility up and waits for its thread to be at rest: a sanitizer's allocator must not be
// in use while the process forks.
void SetUpBeforeFork() {
    static std::atomic<bool> running{false};
    auto const handler = [](void*) {
        running = true;
        return 1;
    };
    Add(nullptr);
    Add(handler);
    raise(SIGINT);
    Await([] { return running.load(); });
    Remove(handler);
}

// A child that sets the facility up anew has a thread of its own.
void OnThreadOfForkedChild() {
    SetUpBeforeFork();
    EndAsChild([] {
        static pthread_t const raiser = pthread_self();
        AbortHandlerInitialization(1);
        Add([](void*) -> int { _exit(pthread_equal(raiser, pthread_self()) ? 1 : 0); });
        Send(SIGINT);
    });
}

// A child gets the section as it is when it is forked, but not the thread that holds it.
void ForkedWhileAHandlerRuns() {
    static std::atomic<bool> running{false}, forking{false};
    Add([](void*) {
        running = true;
        Await([] { return forking.load(); });
        for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        return 1;
    });
    raise(SIGINT);
    Await([] { return running.load(); });
    forking = true;
    EndAsChild([] { _exit(AbortHandlerInitialization(0) == 2 ? 0 : 1); });
}

// The thread that makes the first facility holds its lock when the process forks.
void ForkedDuringTheFirstSetUp() {
    static std::atomic<bool> forking{false}, settingUp{false};
    std::thread first([] {
        Await([] { return forking.load(); });
        onThread = [] {
            settingUp = true;
            usleep(50000);
        };
        Add(nullptr);
    });
    pthread_atfork(
        [] {
            forking = true;
            Await([] { return settingUp.load(); });
        },
        nullptr, nullptr);
    bool const succeeds = ChildSucceeds([] { _exit(AbortHandlerInitialization(0) > 0 ? 0 : 1); });
    first.join();
    _exit(succeeds ? 0 : 1);
}

// A child that a handler forks can be interrupted and ended like another.
void ForkedByAHandler() {
    Add([](void*) -> int {
        EndAsChild([] {
            sigset_t blocked;
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
            _exit(sigismember(&blocked, SIGINT) + sigismember(&blocked, SIGTERM));
        });
    });
    Send(SIGINT);
}

// A handler that has given up its locks forks while another thread, which has torn the facility
// down, still holds its section.
void ForkedByAHandlerWithoutItsLocks() {
    static pthread_t const forker = pthread_self();
    static std::atomic<bool> isFree{false}, isTornDown{false}, forks{false};
    static pid_t child = -1;
    ___ZoExtendedContext(1);  // the chain through which locks are given up
    Add([](void*) {
        if (pthread_equal(forker, pthread_self()) != 0) {
            ReleaseAllSynchronizationObjects();
            isFree = true;
            Await([] { return isTornDown.load(); });
            forks = true;
            child = fork();
            if (child == 0) alarm(60);
        } else {
            DropAllReferences();
            isTornDown = true;
            Await([] { return forks.load(); });
            for (int i = 0; i < 1000; ++i) std::this_thread::yield();
        }
        return 0;
    });
    std::thread other([] {
        Await([] { return isFree.load(); });
        LowLevelAbortionHandler();
    });
    LowLevelAbortionHandler();
    if (child == 0) _exit(0);
    other.join();
    int status = -1;
    waitpid(child, &status, 0);
    _exit(status == 0 ? 0 : 1);
}

// Signals, and time for an answer to them.
void Interrupt() {
    Write(".");
    raise(SIGINT), raise(SIGQUIT);
    usleep(3000);
}
struct InterruptsAtTheEnd {
    ~InterruptsAtTheEnd() { Interrupt(); }
};

template <class Body>
void OnOtherThread(Body body) {
    std::thread(body).join();
}

TEST(AbortHandlersDeathTest, ProcessEndsWithStatusZero) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    struct {
        char const* written;
        void (*body)();
    } const cases[] = {
        {"first second " ENDED_BY("2 (SIGINT)") "at exit",
         [] {
             std::atexit([] { Write("at exit"); });
             Add(Agree, "first ");
             Add(Agree, "second ");
             Send(SIGINT);
         }},
        {ENDED_BY("3 (SIGQUIT)"), [] { Add(nullptr), Send(SIGQUIT); }},
        // Threads that might have been in exit() have not.
        {"agreed" ENDED_BY("2 (SIGINT)"),
         [] { OnOtherThread([] { Add(Agree, "agreed"); }), Send(SIGINT); }},
        {".asked asked " ENDED_BY("3 (SIGQUIT)"),
         [] {
             alarm(60);
             OnOtherThread([] {
                 thread_local InterruptsAtTheEnd const last;
                 Add([](void*) {
                     static int asked = 0;
                     Write("asked ");
                     return ++asked == 1 ? 1 : 0;
                 });
             });
             for (;;) pause();
         }},
        {ENDED_BY("2 (SIGINT)"), [] { Add(Agree, "torn down"), Remove(Agree), Send(SIGINT); }},
        {"caught" ENDED_BY("2 (SIGINT)"),
         [] { std::signal(SIGINT, SIG_IGN), Add(Agree, "caught"), Send(SIGINT); }},
        {"exits removed",
         [] {
             std::atexit([] { Write(Remove(Exit, "exits ") == 0 ? "removed" : "kept"); });
             Add(Exit, "exits ");
             Send(SIGQUIT);
         }},
        {"refused refused agreed", [] { failThreads = true, RefuseThenAgree("agreed"); }},
        {"", SignalsWhileTheirThreadChangesTheList},
        {"parent's refused parent's refused parent's child's",
         [] {
             SetUpBeforeFork();
             Add(Agree, "parent's ");
             EndAsChild([] { RefuseThenAgree("child's"); });
         }},
        {"", OnThreadOfForkedChild},
        {"", ForkedWhileAHandlerRuns},
        {"", ForkedDuringTheFirstSetUp},
        {"", ForkedByAHandler},
        {"", ForkedByAHandlerWithoutItsLocks},
    };
    for (auto const& one : cases) {
        if (threadSanitizer && one.body == OnThreadOfForkedChild) continue;
        std::string const written = one.written;
        // It does not see who deletes the death test.
        // NOLINTNEXTLINE(clang-analyzer-unix.Malloc, clang-analyzer-cplusplus.NewDeleteLeaks)
        EXPECT_EXIT(one.body(), testing::ExitedWithCode(0), testing::Eq(written));
    }
}

// --- signals while the process ends --------------------------------------------------------------

void InterruptBefore() {
    std::atexit(Interrupt);
    Add(Agree, "asked");
}
void InterruptAfter() {
    Add(Agree, "asked");
    std::atexit(Interrupt);
}
TEST(AbortHandlersDeathTest, ASignalDoesNotDisturbExit) {
    if (threadSanitizer) GTEST_SKIP() << "its child takes no signals, or no threads";
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    static void (*const bodies[])() = {
        [] { InterruptAfter(), std::exit(3); },
        [] { InterruptBefore(), std::exit(3); },
        [] { OnOtherThread([] { InterruptBefore(), InterruptAfter(), std::exit(3); }); },
        [] { InterruptBefore(), OnOtherThread([] { std::exit(3); }); },
    };
    constexpr int Rounds = 30;
    auto const allEndWithThree = [] {
        for (int i = 0; i < Rounds; ++i) {
            for (auto const body : bodies) {
                int const end = EndOfChild(body);
                if (!WIFEXITED(end) || WEXITSTATUS(end) != 3) _exit(1);
            }
        }
        _exit(0);
    };
    EXPECT_EXIT(allEndWithThree(), testing::ExitedWithCode(0),
                testing::Eq(std::string(std::size_t{Rounds} * 5, '.')));
}

// --- vetoes --------------------------------------------------------------------------------------

std::atomic<int> asked{0};

// Moves to the end of the list, so that it is always in it, behind whatever others have added.
int MoveAndRefuse(void*) {
    ++asked;
    EXPECT_EQ(Add(MoveAndRefuse), 1);
    Remove(MoveAndRefuse);
    return 1;
}

TEST(AbortHandlers, NoVetoIsLostInAStorm) {
    EXPECT_EQ(Add(MoveAndRefuse), 0);
    OnThreads(6, [](int thread) {
        if (thread < 4) {
            for (int i = 0; i < 250; ++i) raise(thread % 2 == 0 ? SIGINT : SIGQUIT);
        } else {
            while (asked < 1000) Add(Agree), Remove(Agree);
        }
    });
    EXPECT_EQ(asked, 1000);
    EXPECT_EQ(Remove(MoveAndRefuse), 0);
}

// --- one round -----------------------------------------------------------------------------------

int RemoveNext(void*) {
    Remove(Refuse);
    return 0;
}
int AddRefusal(void*) {
    EXPECT_EQ(Add(Refuse), 1);
    return 0;
}
int DropAll(void*) {
    DropAllReferences();
    Add(Refuse);  // to a new list, which is asked the next time
    return 0;
}

TEST(AbortHandlers, ARoundSeesWhatItsHandlersChange) {
    using Handler = int (*)(void*);
    struct {
        std::vector<Handler> handlers;
        int answer, next;
    } const cases[] = {
        {{Agree, Refuse, Agree}, 7, 7},
        {{RemoveNext, Refuse}, 0, 0},
        {{RemoveNext, Refuse, Refuse}, 7, 0},
        {{AddRefusal, Agree}, 7, 7},
        {{Agree, AddRefusal}, 0, 7},
        {{DropAll, Refuse}, 0, 7},
        {{DropAll, Agree, Agree, Refuse}, 0, 7},
    };
    for (auto const& one : cases) {
        EXPECT_EQ(LowLevelAbortionHandler(), 0);
        for (Handler handler : one.handlers) EXPECT_EQ(Add(handler), 0);
        EXPECT_EQ(LowLevelAbortionHandler(), one.answer);
        EXPECT_EQ(LowLevelAbortionHandler(), one.next);
        DropAllReferences();
    }
}

TEST(AbortHandlers, ReferencesAreCounted) {
    Context context(false);
    EXPECT_EQ(AbortHandlerInitialization(1), 0);
    EXPECT_EQ(Add(Agree), 0);
    EXPECT_STREQ(FirstSynchro->GetName(), "AbortionHandler");
    EXPECT_EQ(AbortHandlerInitialization(0), 2);
    EXPECT_EQ(Add(nullptr), 3);
    EXPECT_EQ(Add(Refuse), 0);
    EXPECT_EQ(Remove(Refuse, "another argument"), 3);
    EXPECT_EQ(LowLevelAbortionHandler(), 7);
    EXPECT_EQ(Remove(Refuse), 2);
    EXPECT_EQ(LowLevelAbortionHandler(), 0);

    // A handler may make its thread let go of everything; the section stays in order.
    Add([](void*) {
        ReleaseAllSynchronizationObjects();
        return AbortHandlerInitialization(0) == 5 ? 0 : 1;
    });
    Add([](void*) {
        EXPECT_EQ(InfoOf(static_cast<ZoCritSect*>(FirstSynchro)),
                  "AbortionHandler: owning count: 1; wait count: 0");
        return 0;
    });
    EXPECT_EQ(LowLevelAbortionHandler(), 0);
    EXPECT_EQ(InfoOf(static_cast<ZoCritSect*>(FirstSynchro)),
              "AbortionHandler: owning count: 0; wait count: 0");
    std::thread([] { EXPECT_EQ(AbortHandlerInitialization(1), 4); }).join();
    DropAllReferences();
    EXPECT_STRNE(FirstSynchro->GetName(), "AbortionHandler");
}

TEST(AbortHandlers, RemovingWaitsForTheHandlerThatRuns) {
    static std::atomic<bool> running, end, removed;
    auto const handler = [](void*) {
        running = true;
        Await([] { return end.load(); });
        return removed ? 0 : 1;
    };
    Add(handler);
    std::thread asker([] { EXPECT_EQ(LowLevelAbortionHandler(), 1); });
    Await([] { return running.load(); });
    std::thread remover([&] {
        Remove(handler);
        removed = true;
    });
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    end = true;
    asker.join();
    remover.join();
}

// The section may go while a thread is about to enter it, and a release may find a facility that
// has no reference yet.
TEST(AbortHandlers, LastReferenceGoesWhileOthersAskAndAdd) {
    std::atomic<int> busy{2};
    OnThreads(3, [&](int thread) {
        if (thread == 2) {
            while (busy != 0) LowLevelAbortionHandler(), AbortHandlerInitialization(1);
            return;
        }
        for (int i = 0; i < 20000; ++i) {
            EXPECT_EQ(Add(Refuse), 0);
            Remove(Refuse);
        }
        --busy;
    });
    EXPECT_EQ(AbortHandlerInitialization(0), 1);
    EXPECT_EQ(AbortHandlerInitialization(1), 0);
}

}  // namespace
