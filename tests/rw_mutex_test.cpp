// The reader/writer mutex: who is let in beside whom, what stands in the records and in the count
// whatever the order in which levels end, and what is reported. ZO_RW_STEPS sets the length of the
// random test (steps a thread).

#include "rw_mutex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <random>
#include <utility>

#include "alloc_fault.h"
#include "services.h"
#include "watchdog.h"
#include "zocond.h"
#include "zoevmdis.h"
#include "zotls.h"

using namespace zotest;

namespace {

constexpr int Read = 0;
constexpr int Write = 1;

std::string Info(ZoRW_Mutex* mutex, int size = 256) {
    char text[256] = "";
    mutex->GetInfo(text, size);
    return text;
}

// The number after `key` in the status text; 0 without it.
long Number(ZoRW_Mutex* mutex, char const* key) {
    std::string const text = Info(mutex);
    std::size_t const at = text.find(key);
    return at == std::string::npos ? 0 : std::atol(text.c_str() + at + std::strlen(key));
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
    // Waits until a writer has the exclusive section and waits for the readers.
    void AwaitPendingWriter() {
        Await([&] {
            return Number(mutex.get(), "wait_wr #") != 0 &&
                   Number(mutex.get(), "owning count: ") == 1;
        });
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
        {"", -1, 0, ""},
        {"rrr", 3, 1, ""},
        {"rrrRR", 1, 1, ""},
        {"rrrRRR", -1, 0, ""},
        {"ww", 131072, 0, ""},
        {"wwW", 65536, 0, ""},
        {"wrRW", -1, 0, ""},
        {"wrW", 1, 1, "L"},
        {"wrrWR", 1, 1, "L"},
        {"wrWR", -1, 0, "L"},
        {"rw", 65537, 0, "P"},
        {"rwR", 65536, 0, "P"},
        {"rwRW", -1, 0, "P"},
        {"rwRrW", 1, 1, "PL"},
        {"rwRrRW", -1, 0, "P"},
        {"rwWR", -1, 0, "PL"},
        {"rrwwWW", 2, 1, "PL"},
        {"rwWw", 65537, 0, "PLP"},
        {"rwWwRrrWRR", -1, 0, "PLPL"},
        {"R", -1, 0, "A"},
        {"W", -1, 0, "A"},
        {"rW", 1, 1, "A"},
        {"wR", 65536, 0, "A"},
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
        EXPECT_EQ(Holdings(mutex.get()), row.holdings);
        EXPECT_EQ(Counted(mutex.get()), row.counted);
        EXPECT_EQ(Reports(), row.reports);
        mutex->ForceRelease();
        EXPECT_EQ(Reports(), "");
        EXPECT_EQ(Holdings(mutex.get()), -1);
        EXPECT_EQ(Info(mutex.get()), FreeInfo());
    }
}

TEST_P(RwMutex, TellsItsState) {
    void* const me = ZoTLS::GetThreadLocalStorage()->threadIdentity;
    EXPECT_EQ(Info(mutex.get()), FreeInfo());
    mutex->StartRW(Write, 0);
    mutex->StartRW(Write, 0);
    std::string const section =
        GetParam() ? "owning thread: " + Pointer(me) + ", owning count: 1; wait count: 0"
                   : "owning count: 1; wait count: 0";
    EXPECT_EQ(Info(mutex.get()), "Owner:" + Pointer(me) +
                                     "; Wx:#2; Rx:cond-val: 0; Cond:RW_Exclusive: " + section +
                                     ", wait_rd #0, wait_wr #0");
    mutex->ForceRelease();

    EXPECT_EQ(Info(mutex.get(), 12), "Owner:(nil)");
    EXPECT_EQ(Info(mutex.get(), 0), "");
    mutex->GetInfo(nullptr, 256);

    ZoRW_Mutex base;
    EXPECT_EQ(base.StartRW(Write, 0), 0);
    EXPECT_EQ(base.EndRW(Read), 0);
    EXPECT_EQ(Info(&base), "Owner:??; Wx:??; Rx:??");
    EXPECT_EQ(Info(&base, 8), "Owner:?");
}

TEST_P(RwMutex, RefusesWithAnAssertionThatNamesTheFault) {
    mutex->EndRW(Read);
    EXPECT_EQ(services.Assertions(), Services::Lines({"depth != 0 src/rw_mutex 291"}));
    for (unsigned int const answer : {0x40000000U, 0x80000000U, 1U}) {
        services.onMessage = [answer](std::string const&) { return answer; };
        mutex->StartRW(Read, 0);
        mutex->StartRW(Write, 0);
        mutex->ForceRelease();
    }
    std::string const propagation =
        "\"Kelvara RW_Mutex: IMPLICIT PROPAGATION READER->WRITER! Please call technical support. "
        "Save the stack trace.\" && 0 src/rw_mutex 259";
    EXPECT_EQ(services.Assertions(),
              Services::Lines({"depth != 0 src/rw_mutex 291", propagation, propagation}));
    EXPECT_EQ(Reports(), "PPPAAA");
    EXPECT_EQ(services.Log(), Services::Lines(3, "4 Implicit propagation reader -> writer."));
}

TEST_P(RwMutex, TracesALoweringOnlyWhenAskedTo) {
    class Listener : public ZoEventListener {
    public:
        explicit Listener(std::string& heard) : heard(heard) {}
        int Notify(ZoEvent const* event) override {
            heard += event->GetMessageText();
            return 0;
        }

    private:
        std::string& heard;
    };
    std::string heard;
    ZoEventMessageDispatcher dispatcher;
    ASSERT_EQ(dispatcher.RegisterListener(1, 0x800, new Listener(heard)), 0);
    ZoEventMessageDispatcher* const before = ZoEventMessageDispatcher::SetDispatcher(&dispatcher);
    smp_debug switches(0);
    smp_debug* const switchesBefore = smp_debugger;
    Debugger(&switches);
    GetDebugger();
    auto const lower = [&](ZoUInt32 flags, unsigned int answer) {
        switches.current = flags;
        services.onMessage = [answer](std::string const&) { return answer; };
        mutex->StartRW(Write, 0);
        mutex->StartRW(Read, 0);
        mutex->EndRW(Write);
        mutex->EndRW(Read);
        return std::exchange(heard, "");
    };
    EXPECT_EQ(lower(0x10000, 0x80000000U), "Kelvara RW_Mutex: IMPLICIT LOWERING WRITER->READER\n");
    EXPECT_EQ(lower(0x10000, 0x40000000U), "");
    EXPECT_EQ(lower(~0x10000U, 0x80000000U), "");
    EXPECT_EQ(Reports(), "LLL");
    smp_debugger = switchesBefore;
    ZoEventMessageDispatcher::SetDispatcher(before);
}

// --- making and releasing ----------------------------------------------------------------------

TEST_P(RwMutex, StandsInTheChainAlone) {
    auto const next = [](ZoSynchroObj* object) {
        void* words[3];  // the virtual table, the name, the next object
        std::memcpy(words, static_cast<void*>(object), sizeof words);
        return words[2];
    };
    EXPECT_EQ(FirstSynchro, mutex.get());
    std::unique_ptr<ZoRW_Mutex> second(ZoRW_Mutex::Make(nullptr));
    EXPECT_EQ(FirstSynchro, second.get());
    EXPECT_EQ(next(second.get()), mutex.get());
    second.reset();
    EXPECT_EQ(FirstSynchro, mutex.get());
}

TEST_P(RwMutex, ForceReleaseEndsTheCallersReadsThenItsWrites) {
    class Recording : public ZoGenRW_Mutex {
    public:
        int EndRW(int mode) override {
            ends += mode == Read ? 'R' : 'W';
            return ZoGenRW_Mutex::EndRW(mode);
        }
        std::string ends;
    };
    Recording recording;
    for (char const step : std::string("wwrrr")) recording.StartRW(step == 'r' ? Read : Write, 0);
    std::thread([&] { recording.ForceRelease(); }).join();
    EXPECT_EQ(recording.ends, "");
    ReleaseAllSynchronizationObjects();
    EXPECT_EQ(recording.ends, "RRRWW");
    EXPECT_EQ(Info(&recording), FreeInfo());
    EXPECT_EQ(Reports(), "");
}

TEST_P(RwMutex, IsMadeWholeOrNotAtAll) {
    NEEDS_ALLOC_FAULTS();
    ZoSynchroObj* const first = FirstSynchro;
    ZoTLS::GetThreadLocalStorage();
    long const failures = FailEachAllocation([&](AllocFault const& fault) {
        int result = 5;
        std::unique_ptr<ZoRW_Mutex> made(ZoRW_Mutex::Make(&result));
        EXPECT_EQ(made == nullptr, fault.Happened());
        EXPECT_EQ(result, fault.Happened() ? -1 : 0);
        made.reset();
        EXPECT_EQ(FirstSynchro, first);
    });
    EXPECT_EQ(failures, GetParam() ? 4 : 3);
}

TEST_P(RwMutex, WithoutARecordNothingIsEntered) {
    NEEDS_ALLOC_FAULTS();
    for (bool const start : {true, false}) {
        std::thread([&] {
            // The thread's record; for a start also its record for the mutex.
            for (long nth = 1; nth <= (start ? 2 : 1); ++nth) {
                AllocFault const fault(nth);
                int const result = start ? mutex->StartRW(Read, 0) : mutex->EndRW(Read);
                EXPECT_TRUE(fault.Happened());
                EXPECT_EQ(result, -2030);
                EXPECT_EQ(services.Assertions().back(), start ? "holdings != 0 src/rw_mutex 236"
                                                              : "holdings != 0 src/rw_mutex 286");
                EXPECT_EQ(Info(mutex.get()), FreeInfo());
            }
        }).join();
    }
    EXPECT_EQ(Info(mutex.get()), FreeInfo());
}

// The thread that finds a deadlock may give up all it holds, the mutex included that it is about to
// enter: it enters all the same, and what it holds then is counted once.
TEST_P(RwMutex, ADeadlockReportMayGiveEverythingUp) {
    if (!GetParam()) return;
    std::unique_ptr<ZoRW_Mutex> second(ZoRW_Mutex::Make(nullptr));
    services.onMessage = [&](std::string const& text) {
        if (text.find("Deadlock detected") != std::string::npos) {
            second->ForceRelease();
            mutex->ForceRelease();
        }
        return 0U;
    };
    std::atomic<ZoTLS*> other{nullptr};
    std::atomic<bool> both{false};
    std::thread thread([&] {
        mutex->StartRW(Write, 0);
        other = ZoTLS::GetThreadLocalStorage();
        Await([&] { return both.load(); });
        second->StartRW(Write, 0);
        second->EndRW(Write);
        mutex->EndRW(Write);
    });
    Await([&] { return other != nullptr; });
    second->StartRW(Write, 0);
    both = true;
    Await([&] { return ThreadWaitsForThread(other, ZoTLS::GetThreadLocalStorage()) == 1; });
    EXPECT_EQ(mutex->StartRW(Read, 0), 0);
    EXPECT_EQ(Holdings(mutex.get()), 1);
    EXPECT_EQ(Holdings(second.get()), -1);
    EXPECT_EQ(mutex->EndRW(Read), 0);
    thread.join();
    EXPECT_EQ(Info(mutex.get()), FreeInfo());
    EXPECT_EQ(Info(second.get()), FreeInfo());
}

// --- several threads ---------------------------------------------------------------------------

TEST_P(RwMutex, AWriterComesBeforeNewReadersButNotBeforeOldOnes) {
    std::string order;  // guarded by the mutex itself where the order matters
    mutex->StartRW(Read, 0);
    std::thread other([&] {
        mutex->StartRW(Read, 0);
        EXPECT_EQ(Counted(mutex.get()), 2);
        mutex->EndRW(Read);
    });
    other.join();
    std::thread writer([&] {
        mutex->StartRW(Write, 0);
        order += 'w';
        mutex->EndRW(Write);
    });
    AwaitPendingWriter();
    std::vector<std::thread> readers;
    std::mutex orderMutex;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            mutex->StartRW(Read, 0);
            {
                std::lock_guard<std::mutex> hold(orderMutex);
                order += 'r';
            }
            mutex->EndRW(Read);
        });
    }
    Await([&] { return Number(mutex.get(), "wait_rd #") == 2; });
    mutex->StartRW(Read, 0);
    mutex->EndRW(Read);
    EXPECT_EQ(Counted(mutex.get()), 1);
    mutex->EndRW(Read);
    writer.join();
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(order, "wrr");
    EXPECT_EQ(Info(mutex.get()), FreeInfo());
}

TEST_P(RwMutex, TwoReadersThatBothAskToWriteBothFinish) {
    constexpr int Rounds = 200;
    int written = 0;  // guarded by the mutex under test
    std::array<std::atomic<int>, 2> reading{};
    auto const run = [&](std::size_t me) {
        for (int round = 1; round <= Rounds; ++round) {
            mutex->StartRW(Read, 0);
            reading[me] = round;
            Await([&] { return std::abs(reading[1 - me]) >= round; });
            mutex->StartRW(Write, 0);
            ++written;
            mutex->EndRW(round % 2 == 0 ? Write : Read);
            mutex->EndRW(round % 2 == 0 ? Read : Write);
            // The next round's reads wait for both to have asked.
            reading[me] = -round;
            Await([&] { return reading[1 - me] == -round || std::abs(reading[1 - me]) > round; });
            watchdog.Progress();
        }
    };
    std::thread other(run, 1U);
    run(0);
    other.join();
    EXPECT_EQ(written, 2 * Rounds);
    EXPECT_EQ(Info(mutex.get()), FreeInfo());
}

// A thread that lowered is a reader: a writer waits for it until it ends its last read.
TEST_P(RwMutex, ALoweredReadKeepsWritersOut) {
    std::atomic<bool> ended{false};
    mutex->StartRW(Write, 0);
    mutex->StartRW(Read, 0);
    std::thread writer([&] {
        mutex->StartRW(Write, 0);
        EXPECT_TRUE(ended);
        mutex->EndRW(Write);
    });
    Await([&] { return Number(mutex.get(), "wait_wr #") == 1; });
    mutex->EndRW(Write);
    AwaitPendingWriter();
    ended = true;
    mutex->EndRW(Read);
    writer.join();
    EXPECT_EQ(Info(mutex.get()), FreeInfo());
}

TEST_P(RwMutex, AWriterCancelledInItsWaitHoldsWhatItHeldBefore) {
    struct Asker {
        ZoRW_Mutex* mutex;
        long before;     // read depth when it asks
        long atCleanUp;  // its record when the cancellation unwinds it

        static void* Run(void* argument) {
            Asker* const self = static_cast<Asker*>(argument);
            struct CleanUp {
                Asker* self;
                ~CleanUp() {
                    self->atCleanUp = std::max(Holdings(self->mutex), 0L);
                    self->mutex->ForceRelease();
                }
            } cleanUp{self};
            for (long level = 0; level < self->before; ++level) self->mutex->StartRW(Read, 0);
            self->mutex->StartRW(Write, 0);
            return nullptr;
        }
    };
    for (long const depth : {0L, 2L}) {
        mutex->StartRW(Read, 0);
        Asker asker{mutex.get(), depth, -1};
        pthread_t thread{};
        ASSERT_EQ(pthread_create(&thread, nullptr, Asker::Run, &asker), 0);
        AwaitPendingWriter();
        EXPECT_EQ(Counted(mutex.get()), 1);
        pthread_cancel(thread);
        void* result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_EQ(asker.atCleanUp, depth);
        EXPECT_EQ(Info(mutex.get()), FreeInfo(1));
        mutex->EndRW(Read);
        EXPECT_EQ(Info(mutex.get()), FreeInfo());
    }
}

// A reader that found the gate closed leaves with the condition's lock, and may be on its way there
// when the writer is cancelled. Were the gate opened again, the reader would bring it to 0 and
// still hold the lock: another writer would come in, and might destroy the mutex. So the gate stays
// closed beside counted readers.
TEST_P(RwMutex, ACancelledWriterLeavesTheGateClosed) {
    class Watched final : public ConditionLogic {
    public:
        void SafeSet(int* value) override {
            before->SafeSet(value);
            ++locked;
        }
        int SafeTest(int* value) override { return before->SafeTest(value); }
        ConditionLogic* before = nullptr;
        int locked = 0;  // guarded by the condition
    } watched;
    // The readers' condition is the first field after the base class's.
    Condition* readers = nullptr;
    std::memcpy(&readers, reinterpret_cast<char*>(mutex.get()) + sizeof(ZoRW_Mutex), sizeof(void*));
    watched.before = std::exchange(readers->logic, &watched);
    mutex->StartRW(Read, 0);
    auto const write = [](void* asked) -> void* {
        static_cast<ZoRW_Mutex*>(asked)->StartRW(Write, 0);
        return nullptr;
    };
    pthread_t writer{};
    ASSERT_EQ(pthread_create(&writer, nullptr, write, mutex.get()), 0);
    AwaitPendingWriter();
    pthread_cancel(writer);
    pthread_join(writer, nullptr);
    mutex->EndRW(Read);
    EXPECT_EQ(watched.locked, 1);
    EXPECT_EQ(Info(mutex.get()), FreeInfo());

    // The next write ends that.
    for (int const mode : {Read, Write, Read}) {
        mutex->StartRW(mode, 0);
        mutex->EndRW(mode);
    }
    EXPECT_EQ(watched.locked, 2);
}

// What the mutex has promised, kept apart from it: who is inside, told by the callers themselves.
class Model {
public:
    static constexpr std::size_t Threads = 6;
    struct Thread {
        int reads = 0;
        int writes = 0;
        bool asking = false;  // waits to write: what it reads is not protected meanwhile
        long Record() const { return reads + writes == 0 ? -1 : reads + 65536L * writes; }
    };

    // Changes what `me` holds; false when the mutex let it in beside someone it must not meet.
    template <class Change>
    bool Update(std::size_t me, Change change) {
        std::lock_guard<std::mutex> hold(mutex);
        change(threads[me]);
        for (std::size_t other = 0; other < Threads; ++other) {
            if (other == me) continue;
            if (threads[other].writes > 0 && Inside(threads[me])) return false;
            if (threads[me].writes > 0 && Inside(threads[other])) return false;
        }
        return true;
    }
    Thread Of(std::size_t me) {
        std::lock_guard<std::mutex> hold(mutex);
        return threads[me];
    }

    std::atomic<long> propagations{0}, lowerings{0};

private:
    static bool Inside(Thread const& thread) {
        return thread.writes > 0 || (thread.reads > 0 && !thread.asking);
    }

    std::mutex mutex;
    std::array<Thread, Threads> threads;
};

// One thread's walk through random levels, told to the model before it ends and after it starts.
class Walker {
public:
    Walker(Model& model, ZoRW_Mutex& mutex, long& data, std::size_t me)
        : model(model), mutex(mutex), data(data), me(me), random(static_cast<unsigned>(me + 1)) {}

    void Step() {
        Model::Thread const held = model.Of(me);
        bool const start = random() % 5 < 2;
        bool const write = random() % 3 == 0;
        if (start && (write ? held.writes : held.reads) < 3) Start(held, write);
        if (!start && (write ? held.writes : held.reads) > 0) End(held, write);
        Check();
        if (random() % 4 == 0) std::this_thread::yield();
    }
    void EndAll() {
        for (Model::Thread held = model.Of(me); held.Record() != -1; held = model.Of(me)) {
            End(held, held.writes > 0 && (held.reads == 0 || random() % 2 == 0));
            Check();
        }
    }

private:
    void Start(Model::Thread const& held, bool write) {
        if (write && held.writes == 0 && held.reads > 0) {
            ++model.propagations;
            ASSERT_TRUE(model.Update(me, [](auto& thread) { thread.asking = true; }));
        }
        ASSERT_EQ(mutex.StartRW(write ? Write : Read, 4294967295UL), 0);
        ASSERT_TRUE(model.Update(me, [write](auto& thread) {
            thread.asking = false;
            ++(write ? thread.writes : thread.reads);
        }));
        if (write) {
            ++data;
        } else {
            seen += data;  // a writer beside this is a race
        }
    }
    void End(Model::Thread const& held, bool write) {
        if (write && held.writes == 1 && held.reads > 0) ++model.lowerings;
        ASSERT_TRUE(
            model.Update(me, [write](auto& thread) { --(write ? thread.writes : thread.reads); }));
        ASSERT_EQ(mutex.EndRW(write ? Write : Read), 0);
    }
    void Check() { ASSERT_EQ(Holdings(&mutex), model.Of(me).Record()); }

    Model& model;
    ZoRW_Mutex& mutex;
    long& data;
    long seen = 0;
    std::size_t me;
    std::mt19937 random;
};

TEST_P(RwMutex, RandomNestingKeepsItsPromises) {
    char const* const length = std::getenv("ZO_RW_STEPS");
    long const steps = length != nullptr ? std::atol(length) : 3000;
    Model model;
    long data = 0;
    std::vector<std::thread> threads;
    for (std::size_t me = 0; me < Model::Threads; ++me) {
        threads.emplace_back([&, me] {
            Walker walker(model, *mutex, data, me);
            for (long step = 0; step < steps && !HasFatalFailure(); ++step) {
                walker.Step();
                watchdog.Progress();
            }
            walker.EndAll();
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Info(mutex.get()), FreeInfo());
    long propagations = 0;
    for (char const report : Reports()) propagations += report == 'P' ? 1 : 0;
    EXPECT_EQ(propagations, model.propagations);
    EXPECT_EQ(static_cast<long>(services.Messages().size()), model.propagations + model.lowerings);
    EXPECT_GT(model.lowerings, 0);
    EXPECT_TRUE(services.Assertions().empty());
}

// Short levels of several threads, so that they meet on their way in and out; the last thread that
// is done destroys the mutex at once. Nobody may write beside another, be counted as waiting for
// ever, or touch the mutex once another may have gone on.
TEST_P(RwMutex, ThreadsMeetAtTheGateUntilTheLastOneDestroysIt) {
    constexpr int Rounds = 300;
    constexpr int Threads = 3;
    struct Shared {
        std::unique_ptr<ZoRW_Mutex> mutex{ZoRW_Mutex::Make(nullptr)};
        long left = 0, right = 0;
        int users = Threads;
    };
    std::vector<Shared> rounds(Rounds);
    std::array<std::atomic<int>, Rounds> arrived{};
    auto const run = [&](unsigned me) {
        std::mt19937 random(me);
        for (std::size_t round = 0; round < Rounds; ++round) {
            Shared& shared = rounds[round];
            ZoRW_Mutex* const gate = shared.mutex.get();
            ++arrived[round];
            Await([&] { return arrived[round] == Threads; });
            for (auto step = random() % 50; step > 0; --step) {
                bool const write = random() % 4 == 0;
                gate->StartRW(write ? Write : Read, 0);
                if (write) ++shared.left;
                ASSERT_EQ(shared.left, shared.right + (write ? 1 : 0));
                if (write) ++shared.right;
                gate->EndRW(write ? Write : Read);
            }
            bool const lastIn =
                random() % 2 == 0;  // ends with a read, so that it leaves to a writer
            if (lastIn) gate->StartRW(Read, 0);
            if (lastIn) gate->EndRW(Read);
            gate->StartRW(Write, 0);
            bool const last = --shared.users == 0;
            gate->EndRW(Write);
            if (!last) continue;
            EXPECT_EQ(Info(gate), FreeInfo());
            shared.mutex.reset();
            watchdog.Progress();
        }
    };
    std::vector<std::thread> threads;
    for (unsigned me = 0; me < Threads; ++me) threads.emplace_back(run, me);
    for (std::thread& thread : threads) thread.join();
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
    std::atomic<bool> writes{false}, ends{false}, destroyed{false};
    std::thread writer([&] {
        mutex->StartRW(Write, 0);
        writes = true;
        Await([&] { return ends.load(); });
        mutex->EndRW(Write);
    });
    Await([&] { return writes.load(); });
    csDLD->Begin();
    ends = true;
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
    writer.join();
    reader.join();
}

}  // namespace
