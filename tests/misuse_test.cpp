// What is told of a lock that is used as it must not be, and what becomes of the lock. Detection is
// on. ThreadSanitizer reports the destruction of a locked mutex itself, so it does not see those.

#include <gtest/gtest.h>

#include "services.h"
#include "zothrdmg.h"
#include "zotls.h"

using namespace zotest;

namespace {

// The first entry succeeds, the next one never ends and does not touch the section any more.
class Stuck : public ZoCritSect {
public:
    Stuck() : ZoCritSect("stuck") { entries = 0; }
    void Begin() override {
        while (++entries != 1) pause();
    }
    inline static std::atomic<int> entries{0};
};

class Misuse : public testing::Test {
protected:
    // On a thread that the lines call OTHER; it has ended then.
    template <class Body>
    void OnOther(Body body) {
        std::thread([&] {
            other = ZoTLS::GetThreadLocalStorage();
            body();
        }).join();
    }
    // What has been told since the last call.
    void ExpectTold(Services::Lines const& lines) {
        for (std::string line : lines) {
            std::pair<char const*, void const*> const names[] = {
                {"MANAGER", &manager}, {"OTHER", other}, {"LOCK", lock}, {"ME", me}};
            for (auto const& [word, address] : names) {
                for (std::size_t at; (at = line.find(word)) != std::string::npos;) {
                    line.replace(at, std::strlen(word), Pointer(address));
                }
            }
            told.push_back("4 ZoThread " + line);
        }
        EXPECT_EQ(services.Log(), told);
    }
    template <class Lock>
    Lock* Use(Lock* made) {
        lock = made;
        return made;
    }
    ZoCritSect* MakeSection() { return Use(ZoCritSect::Make("books")); }
    ZoRW_Mutex* MakeMutex() { return Use(ZoRW_Mutex::Make(nullptr)); }
    // The manager's first field.
    void const* ManagersMutex() { return WordOf<void>(&manager, 1); }

    Services services;
    Context context{true};
    ZoThreadMgr manager{nullptr, ZoThreadMgr::LessExclusiveCommit};
    Services::Lines told;
    void const* const me = ZoTLS::GetThreadLocalStorage();
    void const* other = nullptr;
    void const* lock = nullptr;
};

TEST_F(Misuse, LeavingWhatIsNotOwnedChangesNothing) {
    ZoCritSect* const section = MakeSection();
    section->Begin();
    OnOther([&] { section->Exit(); });
    ExpectTold({"OTHER leaves critical section books LOCK owned by thread ME: nothing changes"});
    EXPECT_EQ(NumberAfter(InfoOf(section), "owning count: "), 1);
    section->Exit();
    section->Exit();
    ExpectTold({"ME leaves critical section books LOCK owned by nobody: nothing changes"});
    // A thread that has given its record up still owns the section.
    OnOther([&] {
        section->Begin();
        ZoThreadDetach(ZoTLS::GetThreadLocalStorage());
        section->Exit();
    });
    EXPECT_EQ(InfoOf(section), "books: is available");
    ExpectTold({});
    delete section;
}

#define BRACKET(call) [](ZoThreadMgr& m) { m.call; }

// In the order of the lines of misuse.txt.
TEST_F(Misuse, BracketsAreToldWithTheirLabels) {
    struct {
        void (*before)(ZoThreadMgr&);
        void (*misuse)(ZoThreadMgr&);
    } const cases[] = {
        {BRACKET(HasAllCS()), BRACKET(EndReader("sum"))},
        {BRACKET(BeginWriter("add", 0)), BRACKET(EndWriter("added", 1))},
        {BRACKET(BeginWriter("add", 1)), BRACKET(EndWriter("added", 0))},
        {BRACKET(BeginWriter("add", 0)), BRACKET(UpgradeWriter("add"))},
        {BRACKET(BeginReader("sum")), BRACKET(EndReader(nullptr))},
        {BRACKET(BeginAdmin("copy")), BRACKET(EndCriticalSection(25, "copy"))},
        {BRACKET(HasAllCS()), BRACKET(BeginCriticalSection(26, "copy"))},
    };
    std::ifstream lines(ZO_TESTS "/misuse.txt");
    for (auto const& one : cases) {
        std::string line;
        std::getline(lines, line);
        lock =
            line.find("mutex") != line.npos ? ManagersMutex() : manager.GetCriticalSection(25, 0);
        one.before(manager);
        line[0] == 'O' ? OnOther([&] { one.misuse(manager); }) : one.misuse(manager);
        ExpectTold({line});
        ReleaseAllSynchronizationObjects();
    }
    EXPECT_EQ(services.Assertions().size(), 6U);
    EXPECT_EQ(InfoOf(manager.GetCriticalSection(25, 0)), "ZoCSServerWriter: is available");
}

TEST_F(Misuse, AThreadThatEndsAsAReaderIsToldAndSoIsTheMutex) {
    ZoRW_Mutex* const mutex = MakeMutex();
    auto const read = [&] { mutex->StartRW(0, ZoNoLimit); };
    OnOther([&] { read(), read(); });
    std::string const holds = " and still holds reader/writer mutexes: LOCK (read depth ";
    ExpectTold({"OTHER ended" + holds + "2, write depth 0)"});
    OnOther([&] {
        read();
        ZoThreadDetach(ZoTLS::GetThreadLocalStorage());
        ZoTLS::GetThreadLocalStorage();
    });
    ExpectTold({"OTHER was detached" + holds + "1, write depth 0)"});
    OnOther([&] { read(), mutex->EndRW(0), ZoTLSReaderWriterRecord(mutex); });
    ExpectTold({});
    delete mutex;
    ExpectTold(
        {"ME destroys reader/writer mutex LOCK written by nobody; write depth: 0; threads "
         "that read: 2; that wait to read: 0; that wait to write: 0"});
}

// In a child, because what is destroyed in there is still used by threads that wait for ever.
TEST_F(Misuse, DestroyingWhatIsHeldOrWaitedForIsTold) {
    if (threadSanitizer) GTEST_SKIP() << "starts a thread in a child";
    std::atomic<bool> held{false};
    ZoCritSect* const parents = MakeSection();
    std::thread holder([&] {
        parents->Begin();
        held = true;
        Await([&] { return !held; });
        parents->Exit();
    });
    Await([&] { return held.load(); });
    EXPECT_TRUE(ChildSucceeds([&] {
        delete parents;  // its owner is not there
        ExpectTold({});

        ZoCritSect* section = MakeSection();
        section->Begin();
        section->Begin();
        delete section;
        ExpectTold(
            {"ME destroys critical section books LOCK owned by thread ME; owning count: 2; "
             "wait count: 0"});

        section = Use(new ZoDLDCritSect("books", new Stuck));
        section->Begin();
        std::thread([&] { section->Begin(); }).detach();
        Await([] { return Stuck::entries == 2; });
        delete section;
        ExpectTold(
            {"ME destroys critical section books LOCK owned by thread ME; owning count: "
             "1; wait count: 1"});

        section = MakeSection();
        OnOther([&] { section->Begin(); });
        ExpectTold({"OTHER ended and still owns critical sections: books"});
        delete section;
        ExpectTold({});

        ZoRW_Mutex* const mutex = MakeMutex();
        mutex->StartRW(1, ZoNoLimit);
        delete mutex;
        ExpectTold(
            {"ME destroys reader/writer mutex LOCK written by thread ME; write depth: 1; "
             "threads that read: 0; that wait to read: 0; that wait to write: 0"});
        _exit(HasFailure() ? 1 : 0);
    }));
    held = false;
    holder.join();
    delete parents;
}

}  // namespace
