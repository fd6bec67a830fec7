// The reader/writer mutex: who is let in beside whom, what stands in the records and in the count
// whatever the order in which levels end, and what is reported. ZO_RW_STEPS sets the length of the
// random test (steps a thread).

#include "rw_mutex.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <random>
#include <utility>

#include "alloc_fault.h"
#include "cancelled.h"
#include "services.h"
#include "watchdog.h"
#include "zocond.h"
#include "zoevmdis.h"
#include "zotls.h"

using namespace zotest;

namespace {

constexpr int Read = 0;
constexpr int Write = 1;

long Number(ZoRW_Mutex* mutex, char const* key) {
    return NumberAfter(InfoOf(mutex), key);
}

long Counted(ZoRW_Mutex* mutex) {
    return Number(mutex, "cond-val: ");
}

// What the calling thread's record holds; -1 when there is no record.
long Holdings(ZoRW_Mutex* mutex) {
    ZoSimpleLinkedListItem* item = ZoTLS::GetThreadLocalStorage()->rwRecords.GetFirst();
    for (; item != nullptr; item = item->GetNext()) {
        auto* const record = static_cast<ZoRWRecord*>(item);
        if (record->mutex == mutex) return static_cast<long>(record->holdings);
    }
    return -1;
}

class RwMutex : public testing::TestWithParam<bool> {
protected:
    RwMutex() : context(GetParam()), mutex(ZoRW_Mutex::Make(nullptr)) {}

    std::string FreeInfo(long counted = 0) {
        return "Owner:(nil); Wx:#0; Rx:cond-val: " + std::to_string(counted) +
               "; Cond:RW_Exclusive: " +
               (GetParam() ? "is available" : "owning count: 0; wait count: 0") +
               ", wait_rd #0, wait_wr #0";
    }
    // Whether a writer has the exclusive section and waits for the readers.
    bool HasPendingWriter() {
        return Number(mutex.get(), "wait_wr #") != 0 && Number(mutex.get(), "owning count: ") == 1;
    }
    // The reports since the last call: P and L in their order, then an A for each assertion.
    std::string Reports() {
        std::string letters;
        Services::Lines const messages = services.Messages();
        for (; messagesSeen < messages.size(); ++messagesSeen) {
            std::string const& message = messages[messagesSeen];
            if (message == "0x10000001 Implicit propagation reader -> writer.\n(CANCEL to debug)") {
                letters += 'P';
            } else {
                letters += message == "0x0 Implicit lowering writer -> reader." ? 'L' : '?';
            }
        }
        std::size_t const assertions = services.Assertions().size();
        letters.append(assertions - assertionsSeen, 'A');
        assertionsSeen = assertions;
        return letters;
    }

    Watchdog watchdog;
    Services services;
    Context context;
    std::unique_ptr<ZoRW_Mutex> mutex;

private:
    std::size_t messagesSeen = 0;
    std::size_t assertionsSeen = 0;
};

INSTANTIATE_TEST_SUITE_P(Detection, RwMutex, testing::Bool());

// Each row: r and w start, R and W end a level; then the record (-1: none), the count, the reports.
TEST_P(RwMutex, LevelsEndInAnyOrder) {
    struct Row {
        char const* steps;
        long holdings;
        long counted;
        char const* reports;
    };
    Row const rows[] = {
        {"", -1, 0, ""},           {"rrr", 3, 1, ""},
        {"rrrRR", 1, 1, ""},       {"rrrRRR", -1, 0, ""},
        {"ww", 131072, 0, ""},     {"wwW", 65536, 0, ""},
        {"wrRW", -1, 0, ""},       {"wrW", 1, 1, "L"},
        {"wrrWR", 1, 1, "L"},      {"wrWR", -1, 0, "L"},
        {"rw", 65537, 0, "P"},     {"rwR", 65536, 0, "P"},
        {"rwRW", -1, 0, "P"},      {"rwRrW", 1, 1, "PL"},
        {"rwRrRW", -1, 0, "P"},    {"rwWR", -1, 0, "PL"},
        {"rrwwWW", 2, 1, "PL"},    {"wwrrr", 131075, 0, ""},
        {"rwWw", 65537, 0, "PLP"}, {"rwWwRrrWRR", -1, 0, "PLPL"},
        {"R", -1, 0, "A"},         {"W", -1, 0, "A"},
        {"rW", 1, 1, "A"},         {"wR", 65536, 0, "A"},
        {"rRRr", 1, 1, "A"},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(row.steps);
        for (char const* step = row.steps; *step != '\0'; ++step) {
            int const mode = *step == 'r' || *step == 'R' ? Read : Write;
            bool const start = *step == 'r' || *step == 'w';
            std::size_t const assertions = services.Assertions().size();
            int const result =
                start ? mutex->StartRW(mode == Read ? 0 : -7, 0) : mutex->EndRW(mode);
            EXPECT_EQ(result, services.Assertions().size() == assertions ? 0 : -1);
        }
        std::thread(ReleaseAllSynchronizationObjects).join();  // of that thread there is nothing
        EXPECT_EQ(Holdings(mutex.get()), row.holdings);
        EXPECT_EQ(Counted(mutex.get()), row.counted);
        EXPECT_EQ(Reports(), row.reports);
        ReleaseAllSynchronizationObjects();
        EXPECT_EQ(Reports(), "") << "reads end before writes, which lowers nothing";
        EXPECT_EQ(Holdings(mutex.get()), -1);
        EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
    }
}

TEST_P(RwMutex, TellsItsState) {
    void* const me = ZoTLS::GetThreadLocalStorage()->threadIdentity;
    mutex->StartRW(Write, 0);
    mutex->StartRW(Write, 0);
    std::string const section =
        GetParam() ? "owning thread: " + Pointer(me) + ", owning count: 1; wait count: 0"
                   : "owning count: 1; wait count: 0";
    EXPECT_EQ(InfoOf(mutex.get()), "Owner:" + Pointer(me) +
                                       "; Wx:#2; Rx:cond-val: 0; Cond:RW_Exclusive: " + section +
                                       ", wait_rd #0, wait_wr #0");
    mutex->ForceRelease();

    EXPECT_EQ(InfoOf(mutex.get(), 12), "Owner:(nil)");
    EXPECT_EQ(InfoOf(mutex.get(), 0), "");
    mutex->GetInfo(nullptr, 256);

    ZoRW_Mutex base;
    EXPECT_EQ(base.StartRW(Write, 0), 0);
    EXPECT_EQ(base.EndRW(Read), 0);
    EXPECT_EQ(InfoOf(&base), "Owner:??; Wx:??; Rx:??");
    EXPECT_EQ(InfoOf(&base, 8), "Owner:?");
}

TEST_P(RwMutex, FollowsTheAnswersToItsReports) {
    std::string const propagation =
        "\"Kelvara RW_Mutex: IMPLICIT PROPAGATION READER->WRITER! Please call technical support. "
        "Save the stack trace.\" && 0 src/rw_mutex 259";
    std::string const lowering = "Kelvara RW_Mutex: IMPLICIT LOWERING WRITER->READER\n\n";
    struct {
        unsigned int answer;
        ZoUInt32 flags;
        bool asserts, traces;
    } const rows[] = {
        {ZoAnswerDebug, 0x10000, true, false},
        {ZoAnswerAbort, 0x10000, true, true},
        {ZoAnswerAbort, ~0x10000U, true, false},
        {1, 0x10000, false, false},
    };
    Services::Lines asserted;
    for (auto const& row : rows) {
        GetDebugger()->current = row.flags;
        services.onMessage = [&](std::string const&) { return row.answer; };
        mutex->StartRW(Read, 0);
        mutex->StartRW(Write, 0);
        mutex->EndRW(Write);
        mutex->EndRW(Read);
        if (row.asserts) asserted.push_back(propagation);
        EXPECT_EQ(services.Assertions(), asserted);
        EXPECT_EQ(std::exchange(context.console->text, ""), row.traces ? lowering : "");
    }
    EXPECT_EQ(Reports(), "PLPLPLPLAAA");
    EXPECT_EQ(services.Log(), Services::Lines(4, "4 Implicit propagation reader -> writer."));
    mutex->EndRW(Read);
    EXPECT_EQ(services.Assertions().back(), "depth != 0 src/rw_mutex 291");
}

// A depth in the mutex that is not the writer's own is asserted, and the operation goes on: also
// where the write and its end are free and the thread has a spare record.
TEST_P(RwMutex, AssertsAWriterLevelThatIsNotTheThreads) {
    auto* const level =
        reinterpret_cast<std::atomic<ZoInt32>*>(mutex.get()) + 6 * sizeof(void*) / sizeof(ZoInt32);
    std::string const text = "this->WriterLevel == (long)ThreadWriterRecLevel src/rw_mutex ";
    for (int const wrong : {0, 1}) {
        *level = wrong;
        mutex->StartRW(Write, 0);
        EXPECT_EQ(Number(mutex.get(), "Wx:#"), wrong + 1);
        mutex->EndRW(Write);
    }
    EXPECT_EQ(services.Assertions(), (Services::Lines{text + "271", text + "307"}));
    EXPECT_EQ(level->exchange(0), 1);
    EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
}

TEST_P(RwMutex, RefusesToNestDeeperThanTheRecordCounts) {
    constexpr long Deepest = 65535;
    constexpr auto DeepestWrite = static_cast<long>(0xFFFF0000U);
    for (int const mode : {Read, Write}) {
        for (long level = 0; level < Deepest; ++level) ASSERT_EQ(mutex->StartRW(mode, 0), 0);
        std::string const info = InfoOf(mutex.get());
        for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(mutex->StartRW(mode, 0), -1);
        EXPECT_EQ(services.Assertions().back(), "depth < 65535 src/rw_mutex 241");
        EXPECT_EQ(Holdings(mutex.get()), mode == Read ? Deepest : DeepestWrite);
        EXPECT_EQ(InfoOf(mutex.get()), info);
        EXPECT_EQ(mutex->EndRW(mode), 0);
        EXPECT_EQ(mutex->StartRW(mode, 0), 0);
        mutex->ForceRelease();
        EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
    }
    EXPECT_EQ(Reports(), "AAAA");
}

// The host may start and end levels in a report: what is left is what counts. Each row: the steps
// before, in the one report, and after it; then the record and the count.
TEST_P(RwMutex, AReportMayChangeWhatIsHeld) {
    auto const take = [&](char const* steps) {
        for (; *steps != '\0'; ++steps) {
            if (*steps == 'F') mutex->ForceRelease();
            if (*steps == 'r' || *steps == 'w') mutex->StartRW(*steps == 'r' ? Read : Write, 0);
            if (*steps == 'R' || *steps == 'W') mutex->EndRW(*steps == 'R' ? Read : Write);
        }
    };
    struct {
        char const *before, *inReport, *after, *reports;
        long holdings, counted;
    } const rows[] = {
        {"wrW", "R", "", "L", -1, 0},   {"wrrW", "R", "", "L", 1, 1},
        {"wrW", "r", "", "L", 2, 1},    {"wrW", "F", "", "L", -1, 0},
        {"wrW", "RwW", "", "L", -1, 0}, {"wrW", "Fr", "", "L", 1, 1},
        {"rw", "R", "", "P", 65536, 0}, {"rrw", "R", "", "P", 65537, 0},
        {"rw", "r", "W", "PL", 2, 1},   {"rw", "F", "W", "P", -1, 0},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(std::string(row.before) + " " + row.inReport);
        bool first = true;
        services.onMessage = [&](std::string const&) {
            if (std::exchange(first, false)) take(row.inReport);
            return 0U;
        };
        take(row.before);
        take(row.after);
        EXPECT_EQ(Holdings(mutex.get()), row.holdings);
        EXPECT_EQ(Counted(mutex.get()), row.counted);
        EXPECT_EQ(Reports(), row.reports);
        mutex->ForceRelease();
        EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
    }
}

// --- making and releasing ----------------------------------------------------------------------

// Its parts left the chain: a walk reaches them through the mutex only.
TEST_P(RwMutex, StandsInTheChainAlone) {
    EXPECT_EQ(FirstSynchro, mutex.get());
    EXPECT_STREQ(WordOf<ZoSynchroObj>(mutex.get(), 2)->GetName(), "EventDispatcher");
}

TEST_P(RwMutex, WithoutARecordNothingIsEntered) {
    NEEDS_ALLOC_FAULTS();
    auto const fails = [&](int result, char const* line) {
        EXPECT_EQ(result, -2030);
        EXPECT_EQ(services.Assertions().back(), std::string("holdings != 0 src/rw_mutex ") + line);
        EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
    };
    std::thread([&] {
        AllocFault const fault(1);
        fails(mutex->EndRW(Read), "286");
    }).join();
    std::thread([&] {
        // The thread's record, then its record for the mutex.
        for (long const nth : {1, 2}) {
            AllocFault const fault(nth);
            fails(mutex->StartRW(Read, 0), "236");
        }
    }).join();
}

// The thread that finds a deadlock may give up all it holds, the mutex included that it is about to
// enter: it enters all the same, and what it holds then is counted once. The same when it reads the
// mutex in the message of the false alarm: a mark that the second of two reads has used is gone.
TEST_P(RwMutex, ADeadlockReportMayGiveEverythingUp) {
    if (!GetParam()) return;
    std::unique_ptr<ZoRW_Mutex> second(ZoRW_Mutex::Make(nullptr));
    std::unique_ptr<ZoRW_Mutex> third(ZoRW_Mutex::Make(nullptr));
    services.onMessage = [&](std::string const& text) {
        if (text.find("Deadlock detected") != std::string::npos) {
            second->ForceRelease();
            mutex->ForceRelease();
        } else {
            third->StartRW(Read, 0);  // takes the spare record
            for (int i = 0; i < 2; ++i) {
                mutex->StartRW(Read, 0);
                mutex->EndRW(Read);
            }
            third->EndRW(Read);
        }
        return 0U;
    };
    second->StartRW(Write, 0);
    std::thread thread([&] {
        mutex->StartRW(Write, 0);
        second->StartRW(Write, 0);
        second->EndRW(Write);
        mutex->EndRW(Write);
    });
    // The wait count is up before the wait stands in the graph.
    Await([&] { return InfoOf(mutex.get()).find("owner waiting for") != std::string::npos; });
    EXPECT_EQ(mutex->StartRW(Read, 0), 0);
    EXPECT_EQ(services.Messages().size(), 2U);
    EXPECT_EQ(Holdings(mutex.get()), 1);
    EXPECT_EQ(Holdings(second.get()), -1);
    EXPECT_EQ(mutex->EndRW(Read), 0);
    thread.join();
    EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
    EXPECT_EQ(InfoOf(second.get()), FreeInfo());
}

// --- several threads ---------------------------------------------------------------------------

TEST_P(RwMutex, AWriterComesBeforeNewReadersButNotBeforeOldOnes) {
    std::string order;
    std::mutex orderMutex;
    auto const enter = [&](int mode) {
        mutex->StartRW(mode, 0);
        {
            std::lock_guard<std::mutex> hold(orderMutex);
            order += mode == Read ? 'r' : 'w';
        }
        mutex->EndRW(mode);
    };
    mutex->StartRW(Read, 0);
    std::thread(enter, Read).join();
    std::thread writer(enter, Write);
    Await([&] { return HasPendingWriter(); });
    std::thread readers([&] { OnThreads(2, [&](int) { enter(Read); }); });
    Await([&] { return Number(mutex.get(), "wait_rd #") == 2; });
    enter(Read);
    EXPECT_EQ(Counted(mutex.get()), 1);
    mutex->EndRW(Read);
    writer.join();
    readers.join();
    EXPECT_EQ(order, "rrwrr");
    EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
}

// A reader that waits when a write ends goes before the next write, which is asked for at once: in
// most rounds, because a busy machine may keep the reader from running for as long as the writer
// waits. In a child of fork() there is no reader to wait for; signals do not make that wait longer,
// and errno stays as it was.
TEST_P(RwMutex, AReaderThatWaitsGoesBeforeTheNextWrite) {
    constexpr int Rounds = 40;
    int overtaken = 0;
    for (int round = 0; round < Rounds; ++round) {
        std::atomic<bool> isIn{false};
        mutex->StartRW(Write, 0);
        std::thread reader([&] {
            mutex->StartRW(Read, 0);
            isIn = true;
            mutex->EndRW(Read);
        });
        Await([&] { return Number(mutex.get(), "; wait count: ") == 1; });
        if (round == 0) {
            EXPECT_TRUE(ChildSucceeds([&] {
                // Within five seconds: it would be ten, if each write waited.
                signal(SIGALRM, [](int) {
                    static std::sig_atomic_t volatile left = 5000;
                    left = left - 1;
                    if (left == 0) _exit(1);
                });
                itimerval const often{{0, 1000}, {0, 1000}};
                setitimer(ITIMER_REAL, &often, nullptr);
                errno = 0;
                for (int i = 0; i < 1000; ++i) {
                    mutex->EndRW(Write);
                    mutex->StartRW(Write, 0);
                }
                _exit(threadSanitizer ? 0 : errno);  // it changes errno itself
            }));
        }
        mutex->EndRW(Write);
        mutex->StartRW(Write, 0);
        overtaken += isIn ? 0 : 1;
        mutex->EndRW(Write);
        reader.join();
    }
    EXPECT_LT(overtaken, Rounds / 2);
    EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
}

TEST_P(RwMutex, AWriterCancelledInItsWaitHoldsWhatItHeldBefore) {
    for (long const depth : {0L, 2L}) {
        mutex->StartRW(Read, 0);
        long atCleanUp = -1;
        auto const ask = [&] {
            struct CleanUp {
                ZoRW_Mutex* mutex;
                long& holdings;
                ~CleanUp() {
                    holdings = std::max(Holdings(mutex), 0L);
                    mutex->ForceRelease();
                }
            } cleanUp{mutex.get(), atCleanUp};
            for (long level = 0; level < depth; ++level) mutex->StartRW(Read, 0);
            mutex->StartRW(Write, 0);
        };
        CancelWhen([&] { return HasPendingWriter(); }, ask);
        EXPECT_EQ(atCleanUp, depth);
        EXPECT_EQ(InfoOf(mutex.get()), FreeInfo(1));
        mutex->EndRW(Read);
        EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
    }
}

// A reader that found the gate closed leaves with the condition's lock, and may be on its way there
// when the writer is cancelled and opens the gate. Were it to leave with the lock all the same, it
// could bring the count to 0 and still hold the lock: another writer would come in, and might
// destroy the mutex. So with the lock it looks again.
TEST_P(RwMutex, ACancelledWriterOpensTheGate) {
    Condition& readers = *WordOf<Condition>(mutex.get(), 4);
    for (int const held : {0, 1}) {  // reads of the writer's own
        mutex->StartRW(Read, 0);
        CancelWhen([&] { return HasPendingWriter(); },
                   [&] {
                       struct CleanUp {
                           ZoRW_Mutex& mutex;
                           ~CleanUp() { mutex.ForceRelease(); }
                       } cleanUp{*mutex};
                       if (held != 0) mutex->StartRW(Read, 0);
                       mutex->StartRW(Write, 0);
                   });
        EXPECT_EQ(Counted(mutex.get()), 1);
        EXPECT_EQ(readers.SetConditionApp(nullptr, nullptr), 0);
        EXPECT_EQ(Counted(mutex.get()), 1);
        mutex->EndRW(Read);
        EXPECT_EQ(Counted(mutex.get()), 0);
    }
}

// What the mutex has promised, kept apart from it: who is inside, told by the callers themselves.
class Model {
public:
    static constexpr int Threads = 6;
    struct Thread {
        int depths[2] = {};   // of reads and of writes
        bool asking = false;  // waits to write: what it reads is not protected meanwhile

        long Record() const { return depths[Write] * 65536L + depths[Read]; }
        bool IsInside() const { return depths[Write] > 0 || (depths[Read] > 0 && !asking); }
    };

    // Changes what `thread` holds; false when the mutex let it in beside one it must not meet.
    bool Update(Thread& thread, int mode, int step, bool asking = false) {
        std::lock_guard<std::mutex> hold(mutex);
        thread.depths[mode] += step;
        thread.asking = asking;
        return std::none_of(threads.begin(), threads.end(), [&](Thread const& other) {
            return &other != &thread && other.IsInside() && thread.IsInside() &&
                   (other.depths[Write] > 0 || thread.depths[Write] > 0);
        });
    }

    std::array<Thread, Threads> threads;  // each changed by its own thread, under the mutex
    std::atomic<long> propagations{0}, lowerings{0};

private:
    std::mutex mutex;
};

// One thread's walk through random levels, told to the model before it ends and after it starts.
class Walker {
public:
    Walker(Model& model, ZoRW_Mutex& mutex, int me)
        : model(model),
          mutex(mutex),
          mine(model.threads[static_cast<std::size_t>(me)]),
          random(static_cast<unsigned>(me + 1)) {}

    void Step() {
        bool const start = random() % 5 < 2;
        int const mode = random() % 3 == 0 ? Write : Read;
        if (start && mine.depths[mode] < 3) Start(mode);
        if (!start && mine.depths[mode] > 0) End(mode);
        if (random() % 4 == 0) std::this_thread::yield();
    }
    void EndAll() {
        while (mine.Record() != 0) {
            int const mode = random() % 2 == 0 ? Write : Read;
            if (mine.depths[mode] > 0) End(mode);
        }
    }

private:
    void Start(int mode) {
        if (mode == Write && mine.depths[Write] == 0 && mine.depths[Read] > 0) {
            ++model.propagations;
            ASSERT_TRUE(model.Update(mine, Write, 0, true));
        }
        ASSERT_EQ(mutex.StartRW(mode, 4294967295UL), 0);
        ASSERT_TRUE(model.Update(mine, mode, 1));
        CheckRecord();
    }
    void End(int mode) {
        if (mode == Write && mine.depths[Write] == 1 && mine.depths[Read] > 0) ++model.lowerings;
        ASSERT_TRUE(model.Update(mine, mode, -1));
        ASSERT_EQ(mutex.EndRW(mode), 0);
        CheckRecord();
    }
    void CheckRecord() { ASSERT_EQ(std::max(Holdings(&mutex), 0L), mine.Record()); }

    Model& model;
    ZoRW_Mutex& mutex;
    Model::Thread& mine;
    std::mt19937 random;
};

TEST_P(RwMutex, RandomNestingKeepsItsPromises) {
    char const* const length = std::getenv("ZO_RW_STEPS");
    long const steps = length != nullptr ? std::atol(length) : 3000;
    Model model;
    OnThreads(Model::Threads, [&](int me) {
        Walker walker(model, *mutex, me);
        for (long step = 0; step < steps && !HasFatalFailure(); ++step) {
            walker.Step();
            watchdog.Progress();
        }
        walker.EndAll();
    });
    EXPECT_EQ(InfoOf(mutex.get()), FreeInfo());
    std::string const reports = Reports();
    EXPECT_EQ(std::count(reports.begin(), reports.end(), 'P'), model.propagations);
    EXPECT_EQ(std::count(reports.begin(), reports.end(), 'L'), model.lowerings);
    EXPECT_EQ(static_cast<long>(reports.size()), model.propagations + model.lowerings);
    EXPECT_GT(model.lowerings, 0);
}

// Short levels of several threads, so that they meet on their way in and out; the last thread that
// is done destroys the mutex at once. Nobody may write beside another, be counted as waiting for
// ever, or touch the mutex once another may have gone on.
TEST_P(RwMutex, ThreadsMeetAtTheGateUntilTheLastOneDestroysIt) {
    constexpr int Rounds = 300;
    constexpr int Threads = 3;
    struct Round {
        std::unique_ptr<ZoRW_Mutex> mutex{ZoRW_Mutex::Make(nullptr)};
        std::atomic<int> arrived{0};
        long left = 0, right = 0;
        int users = Threads;
    };
    std::vector<Round> rounds(Rounds);
    OnThreads(Threads, [&](int me) {
        std::mt19937 random(static_cast<unsigned>(me));
        for (Round& round : rounds) {
            ZoRW_Mutex* const gate = round.mutex.get();
            ++round.arrived;
            Await([&] { return round.arrived == Threads; });
            for (auto step = random() % 50; step > 0; --step) {
                bool const write = random() % 4 == 0;
                gate->StartRW(write ? Write : Read, 0);
                if (write) ++round.left;
                ASSERT_EQ(round.left, round.right + (write ? 1 : 0));
                if (write) ++round.right;
                gate->EndRW(write ? Write : Read);
            }
            // A last read, so that it leaves to a writer.
            bool const reads = random() % 2 == 0;
            if (reads) gate->StartRW(Read, 0);
            if (reads) gate->EndRW(Read);
            gate->StartRW(Write, 0);
            bool const last = --round.users == 0;
            gate->EndRW(Write);
            if (!last) continue;
            EXPECT_EQ(InfoOf(gate), FreeInfo());
            round.mutex.reset();
            watchdog.Progress();
        }
    });
}

// Who comes after a writer may be the last user and destroy the mutex: not before the writer is
// out. To leave a detecting section takes csDLD, which holds the writer up here.
TEST(RwMutexDestruction, WaitsForAWriterOnItsWayOut) {
    Watchdog watchdog;
    Services services;
    Context context(false);
    *ZoGetDeadLockDetectionEnabled() = 1;
    ZoRW_Mutex* const mutex = ZoRW_Mutex::Make(nullptr);
    *ZoGetDeadLockDetectionEnabled() = 0;
    auto const heldUp = [] {
        return InfoOf(csDLD) == "DeadLockDetectionCS: owning count: 1; wait count: 1";
    };
    std::atomic<bool> held{false}, destroyed{false};
    mutex->StartRW(Write, 0);
    std::thread holder([&] {
        csDLD->Begin();
        held = true;
        Await(heldUp);
        std::thread reader([&] {
            mutex->StartRW(Read, 0);
            mutex->EndRW(Read);
            delete mutex;
            destroyed = true;
        });
        Await([&] { return destroyed || !heldUp(); });
        EXPECT_FALSE(destroyed);
        csDLD->Exit();
        reader.join();
    });
    Await([&] { return held.load(); });
    mutex->EndRW(Write);
    holder.join();
}

}  // namespace
