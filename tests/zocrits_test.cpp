// Plain and detecting sections where no ring of waits comes up; rings are in deadlock_test.cpp.

#include "zocrits.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <typeinfo>

#include "services.h"
#include "zotls.h"

using namespace zotest;

namespace {

TEST(CritSect, FactoriesFollowTheSwitch) {
    Context context(false);
    auto const expect = [](ZoCritSect* made, std::type_info const& type) {
        ZoCritSect const& section = *made;
        EXPECT_TRUE(typeid(section) == type) << typeid(section).name();
        delete made;
    };
    for (int detection : {0, 1}) {
        *ZoGetDeadLockDetectionEnabled() = detection;
        auto const& following = detection != 0 ? typeid(ZoDLDCritSect) : typeid(PosixCritSect);
        expect(ZoCritSect::Make("x"), following);
        expect(ZoCritSect::MakeLight("x"), following);
        expect(ZoCritSect::MakeImplementation("x"), typeid(PosixCritSect));
        expect(ZoCritSect::MakeDummy("x"), typeid(ZoCritSect));
        expect(ZoMakeCritSectCritSect(), typeid(PosixCritSect));
    }
}

class EitherKind : public testing::TestWithParam<bool> {
protected:
    Services services;
    Context context{GetParam()};
    ZoCritSect* section = ZoCritSect::Make("section");

    ~EitherKind() override { delete section; }

    std::string Owned(int count, int waiting) {
        std::string const counts =
            "owning count: " + std::to_string(count) + "; wait count: " + std::to_string(waiting);
        if (!GetParam()) return "section: " + counts;
        return "section: owning thread: " + Pointer(ZoTLS::GetThreadLocalStorage()) + ", " + counts;
    }
    std::string Free() {
        return GetParam() ? "section: is available" : "section: owning count: 0; wait count: 0";
    }
};

TEST_P(EitherKind, IsRecursiveAndDescribesItself) {
    EXPECT_EQ(InfoOf(section), Free());
    for (int i = 0; i < 3; ++i) section->Begin();
    section->Exit();
    section->Exit();
    EXPECT_EQ(InfoOf(section), Owned(1, 0));

    std::thread other([&] {
        ReleaseAllSynchronizationObjects();  // by another than the owner: nothing happens
        section->Begin();
        section->Exit();
    });
    Await([&] { return InfoOf(section) == Owned(1, 1); });
    section->Begin();
    section->Begin();
    ReleaseAllSynchronizationObjects();  // which calls ForceRelease
    other.join();
    EXPECT_EQ(InfoOf(section), Free());

    char small[10] = "#########";
    section->GetInfo(small, 8);
    EXPECT_STREQ(small, "section");
    EXPECT_EQ(small[8], '#');
    section->GetInfo(nullptr, 256);
    EXPECT_TRUE(services.Log().empty());
    EXPECT_TRUE(services.Messages().empty());
}

TEST_P(EitherKind, ExcludesAndCountsBackToZero) {
    constexpr int Threads = 4, Rounds = 20000;
    long entries = 0;
    OnThreads(Threads, [&](int thread) {
        for (int i = 0; i < Rounds; ++i) {
            int const depth = 1 + (i + thread) % 3;
            for (int d = 0; d < depth; ++d) section->Begin();
            ++entries;
            for (int d = 0; d < depth; ++d) section->Exit();
        }
    });
    EXPECT_EQ(entries, Threads * Rounds);
    section->Begin();
    EXPECT_EQ(InfoOf(section), Owned(1, 0));
    section->Exit();
    EXPECT_EQ(InfoOf(section), Free());
}

// Whether the system has put the thread to sleep.
bool Sleeps(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    return text.find(") S ") != std::string::npos;
}

// A thread that enters and leaves the section, and sleeps for it when this returns.
std::thread Sleeper(ZoCritSect* section, int& entries) {
    std::atomic<pid_t> id{0};
    std::thread thread([section, &entries, &id] {
        errno = E2BIG;
        id = gettid();
        section->Begin();
        ++entries;
        EXPECT_EQ(errno, E2BIG);
        section->Exit();
    });
    Await([&] { return Sleeps(id); });
    return thread;
}

TEST_P(EitherKind, WakesAllWhoSleep) {
    constexpr int Sleepers = 3;
    struct sigaction handled {};  // without SA_RESTART
    handled.sa_handler = [](int) {};
    sigaction(SIGUSR2, &handled, nullptr);
    int entries = 0;
    section->Begin();
    std::vector<std::thread> threads;
    for (int i = 0; i < Sleepers; ++i) {
        threads.push_back(Sleeper(section, entries));
        pthread_kill(threads.back().native_handle(), SIGUSR2);
    }
    Await([&] { return InfoOf(section) == Owned(1, Sleepers); });
    section->Exit();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(entries, Sleepers);
    EXPECT_EQ(InfoOf(section), Free());
}

// The threads that sleep for the section do not exist in the child.
TEST_P(EitherKind, AChildGoesOnWithTheSectionItOwns) {
    if (threadSanitizer) GTEST_SKIP() << "starts a thread in a child";
    int entries = 0;
    section->Begin();
    std::thread parents = Sleeper(section, entries);
    EXPECT_TRUE(ChildSucceeds([&] {
        std::thread childs = Sleeper(section, entries);
        section->Exit();
        childs.join();
        _exit(entries - 1);
    }));
    section->Exit();
    parents.join();
}

// The child gets the library's own locks as other threads of the parent hold them.
TEST_P(EitherKind, AChildIsNotHeldUpByLocksOfAbsentThreads) {
    if (threadSanitizer) GTEST_SKIP() << "starts a thread in a child";
    std::atomic<int> steps{0};
    std::thread holder([&] {
        fscs->Begin();
        csDLD->Begin();
        ++steps;
        Await([&] { return steps == 2; });
        csDLD->Exit();
        fscs->Exit();
    });
    Await([&] { return steps == 1; });
    EXPECT_TRUE(ChildSucceeds([&] {
        ZoCritSect* const made = ZoCritSect::Make("made");
        made->Begin();
        std::thread waiting([&] { made->Begin(); });
        Await([&] { return NumberAfter(InfoOf(made), "wait count: ") == 1; });
        made->Exit();
        waiting.join();
        delete ZoCritSect::Make("another");
        _exit(0);
    }));
    ++steps;
    holder.join();
}

// The next thread mostly gets the handle of the one that ended, and its record's address. It must
// wait for the section like any other, and a wait for it that leads to the ended one is no ring. In
// a process of its own, because they wait for ever.
TEST_P(EitherKind, StaysWithAnOwnerThatHasEnded) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    auto const waits = [](ZoCritSect* wanted) {
        Await([&] { return NumberAfter(InfoOf(wanted), "wait count: ") == 1; });
    };
    auto const mustWait = [](ZoCritSect* wanted) {
        wanted->Begin();
        _exit(1);
    };
    auto const child = [&] {
        Services::Lines log;
        for (bool const asRing : {false, true}) {
            ZoCritSect* const left = ZoCritSect::Make(asRing ? "left in a ring" : "left");
            ZoCritSect* const other = ZoCritSect::Make("other");
            std::thread([&] {
                left->Begin();
                left->Begin();
                void* const name = GetParam() ? static_cast<void*>(ZoTLS::GetThreadLocalStorage())
                                              : reinterpret_cast<void*>(pthread_self());
                log.push_back("4 ZoThread " + Pointer(name) +
                              " ended and still owns critical sections: " + left->GetName());
            }).join();
            std::thread([=] {
                fscs->Begin();  // the thread is known to sections from here on
                fscs->Exit();
                if (asRing) waits(left);
                mustWait(asRing ? other : left);
            }).detach();
            if (asRing) {
                std::thread([=] {
                    other->Begin();
                    mustWait(left);
                }).detach();
            }
            waits(asRing ? other : left);
        }
        _exit(services.Log() == log ? 0 : 2);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(CritSect, EitherKind, testing::Bool(), [](auto const& kind) {
    return kind.param ? std::string("Detecting") : std::string("Plain");
});

// The delay is read once in the process, so this runs where no detecting section was made before.
TEST(DetectingSectionDeathTest, HoldsOnForTheConfiguredDelay) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    auto const child = [] {
        Services services;
        services.Configure("csSleepTime", 50);
        Context context(true);
        ZoCritSect* section = ZoCritSect::Make("slow");
        ZoCritSect* second = ZoCritSect::Make("second");
        section->Begin();
        section->Begin();
        auto const start = std::chrono::steady_clock::now();
        section->Exit();
        section->Exit();
        auto const took = std::chrono::steady_clock::now() - start;
        delete second;
        delete section;
        std::exit(took >= std::chrono::milliseconds(50) && services.Reads("csSleepTime") == 1 ? 0
                                                                                              : 1);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

}  // namespace
