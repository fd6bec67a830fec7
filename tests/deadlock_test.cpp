// Rings of waits: found before the last thread blocks, reported once and to the byte, dissolved
// from the message service. ThreadSanitizer's own detector of lock-order inversions is off for this
// program alone: it deadlocks on purpose.

#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <random>

#include "cancelled.h"
#include "deadlock_io.h"
#include "rw_mutex.h"
#include "rw_record.h"
#include "services.h"
#include "watchdog.h"
#include "zocond.h"
#include "zothrdmg.h"
#include "zotls.h"

using namespace zotest;

namespace {

// The library context, in a directory of its own for "deadlock.txt".
class Deadlock : public testing::Test {
protected:
    Deadlock() { std::filesystem::current_path(folder.path); }
    ~Deadlock() override { std::filesystem::current_path(before); }
    // The log file; a line that is a date as ctime() writes it reads "DATE".
    static std::string LogFile() {
        std::ifstream file("deadlock.txt");
        std::string text, line;
        while (std::getline(file, line)) {
            std::tm date{};
            char const* const end = strptime(line.c_str(), "%a %b %e %H:%M:%S %Y", &date);
            bool const isDate = end != nullptr && *end == '\0' && line.size() == 24;
            text += (isDate ? "DATE" : line) + "\n";
        }
        return text;
    }

    // Runs the script; what was told is the row's ring, and all is free afterwards.
    void Expect(class Script& script, struct Row const& row);

    Services services;
    Context context{true};
    std::string file;  // what the log file is expected to hold

private:
    std::filesystem::path const before = std::filesystem::current_path();
    Folder const folder;
};

std::string const FileHead =
    "******** ZOVA deadlock log ********\nDATE\n\n******** traces ********\n";

using Sections = std::vector<std::unique_ptr<ZoCritSect>>;

Sections MakeSections(std::size_t count) {
    static char const* const names[] = {"alpha", "beta", "gamma", "delta", "epsilon",
                                        "zeta",  "eta",  "theta", "iota",  "kappa"};
    Sections sections;
    for (std::size_t i = 0; i < count; ++i) sections.emplace_back(ZoCritSect::Make(names[i]));
    return sections;
}

template <class SectionPointers, class MutexPointers>
void ExpectFree(SectionPointers const& sections, MutexPointers const& mutexes) {
    for (auto const& section : sections) {
        EXPECT_EQ(InfoOf(&*section), std::string(section->GetName()) + ": is available");
    }
    for (auto const& mutex : mutexes) {
        EXPECT_EQ(InfoOf(&*mutex),
                  "Owner:(nil); Wx:#0; Rx:cond-val: 0; Cond:RW_Exclusive: is available, "
                  "wait_rd #0, wait_wr #0");
    }
}

// Threads A, B, C … that take one step after the other, as a script says: the thread, the step, and
// the number of a mutex or a section.
//
//     r w W s   begins to read, begins and ends to write, enters
//     o         begins to read many other mutexes
//     d e v u   of a plan: begins to read, to write less exclusively and to write, upgrades
//
// A step that waits is marked with a question mark, one that closes rings with an exclamation mark
// for each. That thread leaves all it holds when it is asked, and in the end so does each one as it
// goes on.
class Script {
public:
    explicit Script(Services& services, std::size_t sectionCount = 2)
        : services(services), ownSections(MakeSections(sectionCount)) {
        while (others.size() < 200) others.emplace_back(ZoRW_Mutex::Make(nullptr));
        for (auto& mutex : own)
            mutexes.push_back((mutex.reset(ZoRW_Mutex::Make(nullptr)), mutex.get()));
        for (auto const& section : ownSections) sections.push_back(section.get());
    }
    Script(Services& services, ZoThreadMgr& plan)
        : services(services),
          plan(&plan),
          mutexes{WordOf<ZoRW_Mutex>(&plan, 1)},
          sections{plan.GetCriticalSection(9, 0), plan.GetCriticalSection(25, 0)} {}

    // How many deadlocks were reported.
    long Run(std::string const& steps) {
        std::atomic<long> reports{0};
        services.onMessage = [&](std::string const& text) {
            if (text.find("Deadlock detected") != std::string::npos) {
                dissolve();
                ++reports;
            } else {
                ReadWhatIsWanted();
                atAlarm();
            }
            return answer;
        };
        std::istringstream words(steps);
        for (std::string step; words >> step;) {
            Actor& actor = actors[std::size_t(step[0] - 'A')];
            if (!actor.thread.joinable()) actor.thread = std::thread([&] { Play(actor); });
            actor.step = step;
            actor.isAsked = true;
            Await([&] { return !actor.isAsked || IsWaiting(actor); });
            EXPECT_EQ(actor.isAsked, step.find_first_of("?!") != std::string::npos) << step;
            EXPECT_EQ(reports, std::count(step.begin(), step.end(), '!')) << step;
        }
        isOver = true;
        for (Actor& actor : actors) {
            if (actor.thread.joinable()) actor.thread.join();
        }
        return reports;
    }

    // The words for a ring, such as "Bm0A As0B": B wants to write mutex 0, which A reads, and A
    // waits for section 0, which B owns. An x is a mutex's "RW_Exclusive".
    std::string Report(std::string const& ring) {
        std::string words, traces;
        std::istringstream edges(ring);
        for (std::string edge; edges >> edge;) {
            bool const first = words.empty();
            std::size_t const number = std::size_t(edge[2] - '0');
            words += "ZoThread " + Name(edge[0]);
            if (edge[1] == 'm') {
                words += (first ? " wants to write RW_Mutex " : " is waiting to write RW_Mutex ") +
                         Pointer(mutexes[number]) + " read by thread ";
            } else {
                auto* const section =
                    edge[1] == 's' ? sections[number] : WordOf<ZoCritSect>(mutexes[number], 5);
                words += std::string(first ? " wants critical section " : " is waiting for ") +
                         section->GetName() + " " + Pointer(section) + " owned by thread ";
            }
            words += Name(edge[3]) + "\n";
            traces += first ? "" : "\n";
        }
        return words.empty() ? "" : words + "\n" + traces;
    }
    void ExpectAllFree() const { ExpectFree(sections, mutexes); }
    std::string Name(char actor) { return Pointer(actors[std::size_t(actor - 'A')].record); }
    ZoCritSect& Section(std::size_t number) { return *sections[number]; }

    // In the message of a report.
    std::function<void()> dissolve = [this] { LeaveAll(); };
    std::function<void()> atAlarm = [] {};  // in that of a false alarm
    unsigned int answer = 0;                // to every message
    // Leaves the sections that a text names.
    void LeaveNamed(std::string const& text) const {
        for (ZoCritSect* section : sections) {
            if (text.find(Pointer(section)) != text.npos) section->ForceRelease();
        }
    }

private:
    struct Actor {
        std::thread thread;
        std::string step;
        std::atomic<bool> isAsked{false};
        std::atomic<ZoTLS*> record{nullptr};
    };

    void Play(Actor& actor) {
        actor.record = ZoTLS::GetThreadLocalStorage();
        for (;;) {
            Await([&] { return actor.isAsked || isOver; });
            if (!actor.isAsked) break;
            Take(actor.step[1], std::size_t(actor.step[2] - '0'));
            actor.isAsked = false;
        }
        LeaveAll();
        EXPECT_EQ(ZoTLS::GetThreadLocalStorage()->rwRecords.GetFirst(), nullptr);
        EXPECT_EQ(ZoTLS::GetThreadLocalStorage()->waitingLink, nullptr);
    }
    void Take(char step, std::size_t number) {
        if (step == 'r' || step == 'w') mutexes[number]->StartRW(step == 'r' ? 0 : 1, 0);
        if (step == 'W') mutexes[number]->EndRW(1);
        if (step == 's') sections[number]->Begin();
        if (step == 'o') {
            for (auto const& other : others) other->StartRW(0, 0);
        }
        if (plan == nullptr) return;
        if (step == 'd') plan->BeginReader("");
        if (step == 'e' || step == 'v') plan->BeginWriter("", step == 'e' ? 1 : 0);
        if (step == 'u') plan->UpgradeWriter("");
    }
    void LeaveAll() {
        for (ZoRW_Mutex* mutex : mutexes) mutex->ForceRelease();
        for (auto const& other : others) other->ForceRelease();
        for (ZoCritSect* section : sections) section->ForceRelease();
    }
    // In the message of a false alarm: what the host tells there may come from the mutex itself.
    void ReadWhatIsWanted() {
        for (Actor const& actor : actors) {
            if (actor.record != ZoTLS::GetThreadLocalStorage() || actor.step[1] == 's') continue;
            ZoRW_Mutex* const mutex =
                mutexes[plan != nullptr ? 0 : std::size_t(actor.step[2] - '0')];
            mutex->StartRW(0, 0);
            EXPECT_EQ(mutex->EndRW(0), 0);
        }
    }
    static bool IsWaiting(Actor const& actor) {
        if (actor.record == nullptr) return false;
        csDLD->Begin();
        ZoTLS const* const record = actor.record;
        bool const waits = record->waitingFor != nullptr || record->readersWait.mutex != nullptr;
        csDLD->Exit();
        return waits;
    }
    Services& services;
    ZoThreadMgr* const plan = nullptr;
    std::unique_ptr<ZoRW_Mutex> own[2];
    std::vector<std::unique_ptr<ZoRW_Mutex>> others;
    Sections const ownSections;
    std::vector<ZoRW_Mutex*> mutexes;
    std::vector<ZoCritSect*> sections;
    Actor actors[10];
    std::atomic<bool> isOver{false};
};

// What a script does, and the ring that it closes.
struct Row {
    std::string steps, ring;
};
Row const RingOfTwo{"As0 Bs1 As1? Bs0!", "Bs0A As1B"};

// Each thread owns a section and wants the next one's; the last thread's wait closes the ring.
Row RingOf(int size) {
    Row row;
    auto const name = [](char first, int i) { return char(first + i); };
    for (int i = 0; i < size; ++i) row.steps += {name('A', i), 's', name('0', i), ' '};
    for (int i = 0; i < size; ++i) {
        int const next = (i + 1) % size, before = (i + size - 1) % size;
        row.steps += {name('A', i), 's', name('0', next), next == 0 ? '!' : '?', ' '};
        row.ring += {name('A', before), 's', name('0', i), name('A', i), ' '};
    }
    return row;
}

void Deadlock::Expect(Script& script, Row const& row) {
    SCOPED_TRACE(row.steps);
    services.Forget();
    long const reports = script.Run(row.steps);
    EXPECT_EQ(reports, row.ring.empty() ? 0 : 1);
    std::string const words = script.Report(row.ring);
    EXPECT_EQ(std::exchange(context.console->text, ""), words);
    EXPECT_EQ(LogFile(), file += reports == 0 ? "" : FileHead + words);
    Services::Lines log = services.Log();
    std::erase(log, "4 Implicit propagation reader -> writer.");
    EXPECT_EQ(log.size(), std::size_t(2 * reports));
    if (log.size() == 2) {
        std::string const begin = row.ring[1] == 'm' ? "Owner:" : "";
        EXPECT_EQ(log[0].rfind("4 Deadlock detected.\n" + begin, 0), 0U) << log[0];
        EXPECT_EQ(log[1], "3 Deadlock: false alarm.\n");
    }
    script.ExpectAllFree();
}

TEST_F(Deadlock, IsReportedOnceForEachRingAndDissolved) {
    for (int const size : {2, 3, 10}) {
        Script script(services, std::size_t(size));
        Expect(script, RingOf(size));
        EXPECT_EQ(services.Log()[0],
                  "4 Deadlock detected.\nalpha: owning thread: " + script.Name('A') +
                      ", owning count: 1; wait count: 1; owner waiting for beta");
        EXPECT_EQ(services.Messages(),
                  (Services::Lines{"0x10000001 Deadlock detected.\n(CANCEL to debug)",
                                   "0x0 Deadlock: false alarm.\n"}));
        EXPECT_TRUE(services.Assertions().empty());
    }
}

TEST_F(Deadlock, IsReportedOnTheConsoleWhenTheFileCannotBeOpened) {
    std::filesystem::create_directory("deadlock.txt");
    Script script(services);
    script.Run(RingOfTwo.steps);
    EXPECT_EQ(context.console->text,
              "unable to open deadlock.txt for writing" + script.Report(RingOfTwo.ring));
    EXPECT_EQ(services.Log().size(), 3U);
    EXPECT_EQ(services.Log().front(), "4 The deadlock report is not written to " +
                                          std::filesystem::current_path().string() +
                                          "/deadlock.txt: Is a directory");
}

TEST_F(Deadlock, IsLoggedWithoutAConsoleOrASink) {
    smp_io mute;
    delete std::exchange(mute.sink, nullptr);
    for (smp_io* const console : {static_cast<smp_io*>(nullptr), &mute}) {
        smp_io* const first = std::exchange(smp_console, console);
        Script script(services);
        script.Run(RingOfTwo.steps);
        smp_console = first;
        EXPECT_EQ(LogFile(), file += FileHead + script.Report(RingOfTwo.ring));
    }
    EXPECT_EQ(context.console->text, "");
}

TEST_F(Deadlock, AnswersThatAskForADebuggerAreAsserted) {
    for (unsigned int const answer : {ZoAnswerDebug, ZoAnswerAbort, 0x20000000U}) {
        Script script(services);
        script.answer = answer;
        script.Run(RingOfTwo.steps);
    }
    std::string const detected = "(0 && \"deadlock detected\") src/zocrits 365";
    std::string const falseAlarm = "(0 && \"deadlock : false alarm\") src/zocrits 385";
    EXPECT_EQ(services.Assertions(), (Services::Lines{detected, falseAlarm, detected, falseAlarm}));
}

// The thread that is told of a false alarm is the owner by then, and may enter the section again.
TEST_F(Deadlock, EndsTheWaitBeforeTheFalseAlarm) {
    Script script(services);
    std::string atAlarm;
    script.atAlarm = [&] {
        script.Section(0).Begin();
        atAlarm = InfoOf(&script.Section(0));
        script.Section(0).Exit();
    };
    script.Run(RingOfTwo.steps);
    EXPECT_EQ(NumberAfter(atAlarm, "owning count: "), 2) << atAlarm;
}

// No entry and no leave begins while the host holds csDLD to look at the graph.
TEST_F(Deadlock, EntriesAndLeavesWaitForTheGraphsLock) {
    Sections const sections = MakeSections(2);
    std::atomic<int> step{0}, passed{0};
    std::thread leaving([&] {
        sections[0]->Begin();
        step = 1;
        Await([&] { return step == 2; });
        sections[0]->Exit();
        ++passed;
    });
    std::thread entering([&] {
        Await([&] { return step == 2; });
        sections[1]->Begin();
        ++passed;
        sections[1]->Exit();
    });
    std::thread waiting([&] {
        Await([&] { return step == 2; });
        sections[0]->Begin();
        sections[0]->Exit();
    });
    Await([&] { return step == 1; });
    csDLD->Begin();
    step = 2;
    Await([&] { return passed != 0 || NumberAfter(InfoOf(csDLD), "wait count: ") == 3; });
    EXPECT_EQ(passed, 0);
    EXPECT_EQ(NumberAfter(InfoOf(sections[0].get()), "wait count: "), 1);
    csDLD->Exit();
    waiting.join();
    leaving.join();
    entering.join();

    class Counting : public ZoCritSect {
    public:
        Counting() : ZoCritSect("counting") {}
        void Begin() override { ++begins; }
        int begins = 0;
        char rest[sizeof(PosixCritSect)] = {};  // what would be a free section's owner
    } counting;
    ZoCritSect* const own = std::exchange(csDLD, &counting);
    sections[0]->Begin();
    sections[0]->Exit();
    EXPECT_EQ(counting.begins, 2) << "a section in its place is always gone through";
    csDLD = own;
}

// A thread may end in its wait: cancelled in a section of the host's, or in the message of a
// report. From then on it waits for nothing.
TEST_F(Deadlock, AThreadThatEndsInItsWaitLeavesTheGraph) {
    class Semaphore : public ZoCritSect {
    public:
        Semaphore() : ZoCritSect("semaphore") { sem_init(&semaphore, 0, 1); }
        void Begin() override { sem_wait(&semaphore); }
        void Exit() override { sem_post(&semaphore); }

    private:
        sem_t semaphore{};
    };
    struct Unwound {
        ~Unwound() { wanted = ZoTLS::GetThreadLocalStorage()->waitingFor; }
        ZoCritSect*& wanted;
    };
    ZoDLDCritSect hosts("host's", new Semaphore);
    auto const waiting = [&] { return NumberAfter(InfoOf(&hosts), "wait count: "); };
    ZoCritSect* wanted = &hosts;
    hosts.Begin();
    CancelWhen([&] { return waiting() == 1; },
               [&] {
                   Unwound const unwound{wanted};
                   hosts.Begin();
               });
    EXPECT_EQ(wanted, nullptr);
    EXPECT_EQ(waiting(), 0);
    hosts.Exit();

    Sections const ring = MakeSections(2);
    services.onMessage = [&](std::string const&) -> unsigned int {
        ring[1]->Exit();
        pthread_exit(nullptr);
    };
    std::atomic<bool> isOwned{false};
    std::thread closing([&] {
        ring[1]->Begin();
        isOwned = true;
        Await([&] { return InfoOf(ring[0].get()).find("owner waiting") != std::string::npos; });
        ring[0]->Begin();
    });
    ring[0]->Begin();
    Await([&] { return isOwned.load(); });
    ring[1]->Begin();
    ring[1]->Exit();
    closing.join();
    EXPECT_EQ(NumberAfter(InfoOf(ring[0].get()), "wait count: "), 0);
    ring[0]->Exit();

    // A bracket that is given up then does not leave once more what the host has left.
    ZoThreadMgr plan(nullptr, ZoThreadMgr::LessExclusiveCommit);
    ZoCritSect* const books = plan.GetCriticalSection(9, 0);
    ZoTLS* const me = ZoTLS::GetThreadLocalStorage();
    services.Forget();
    services.onMessage = [&](std::string const&) -> unsigned int {
        plan.GetCriticalSection(25, 0)->ForceRelease();
        books->ForceRelease();
        pthread_exit(nullptr);
    };
    std::atomic<bool> owned{false};
    plan.BeginReader("");
    std::thread writer([&] {
        books->Begin();
        owned = true;
        Await([&] { return ThreadWaitsForThread(me, ZoTLS::GetThreadLocalStorage()) == 1; });
        plan.BeginWriter("", 0);
    });
    Await([&] { return owned.load(); });
    books->Begin();
    writer.join();
    books->Exit();
    plan.EndReader("");
    EXPECT_EQ(services.Log().size(), 1U) << services.Log().back();
}

// Threads that own a section for a moment and end, while others read their records through it.
TEST_F(Deadlock, RecordsAreNotFreedWhileTheyAreRead) {
    Sections const sections = MakeSections(1);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) InfoOf(sections[0].get());
    });
    OnThreads(2, [&](int) {
        for (int i = 0; i < 300; ++i) {
            std::thread([&] {
                sections[0]->Begin();
                sections[0]->Exit();
            }).join();
        }
    });
    done = true;
    reader.join();
}

// The console's sink is the host's code. It may guard itself with a section of the library while
// others write, and it may even leave a section of the ring that it is told about.
TEST_F(Deadlock, ReportsThroughASinkThatUsesSections) {
    class Guarded : public TextSink {
    public:
        using TextSink::writeOutput;
        void writeOutput(char const* text, int length) override {
            guard->Begin();
            TextSink::writeOutput(text, length);
            if (leaves != nullptr) leaves->ForceRelease();
            guard->Exit();
        }
        std::unique_ptr<ZoCritSect> guard{ZoCritSect::MakeImplementation("guard")};
        ZoCritSect* leaves = nullptr;
    };
    delete GetConsole()->sink;
    auto* const sink = new Guarded;
    GetConsole()->sink = sink;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        while (!done) *GetConsole() << "." << endl;
    });
    for (int i = 0; i < 20; ++i) Script(services).Run(RingOfTwo.steps);
    done = true;
    writer.join();
    EXPECT_EQ(services.Log().size(), 40U);

    Script script(services);
    script.dissolve = [] {};  // the sink does it
    sink->leaves = &script.Section(1);
    script.Run(RingOfTwo.steps);
    sink->leaves = nullptr;
    EXPECT_NE(sink->text.find("nobody !!!!\n"), std::string::npos);
}

using DeadlockOfReaders = Deadlock;

TEST_F(DeadlockOfReaders, IsReportedInEachOrderOfArrival) {
    Row const rows[] = {
        {"Ar0 Bs0 As0? Bw0!", "Bm0A As0B"},
        {"Ar0 Bs0 Bw0? As0!", "As0B Bm0A"},
        // Two mutexes; a nested read; one who reads both.
        {"Ar0 Br1 Aw1? Bw0!", "Bm0A Am1B"},
        {"Ar0 Ar0 Bs0 As0? Bw0!", "Bm0A As0B"},
        {"Ar0 Ar1 Bs0 As0? Bw1!", "Bm1A As0B"},
        {"Ar0 Bs0 Cs1 As1? Cs0? Bw0!", "Bm0A As1C Cs0B"},
        // Of several readers one leads back: not the one that runs, nor the one that waits for it.
        {"Ar0 Br0 Cr0 Ds0 Bs1 As0? Cs1? Dw0!", "Dm0A As0D"},
        // Two ways lead back: the shorter one is told.
        {"Ar0 Br0 Ds0 Bs1 As1? Bs0? Dw0!", "Dm0B Bs0D"},
        // A writer who waits, and a reader who queues behind it.
        {"Ar0 Cs0 Bw0? Cr0? As0!", "As0C Cx0B Bm0A"},
        {"Ar0 Cs0 Bw0? As0? Cr0!", "Cx0B Bm0A As0C"},
        // A reader asks to write: it waits for the others, who wait for it no more.
        {"Ar0 As0 Br0 Aw0? Bs0!", "Bs0A Am0B"},
        {"Ar0 As0 Br0 Bs0? Aw0!", "Am0B Bs0A"},
        {"Ar0 Br0 Cs0 Cw0? Aw0? Bw0?", ""},
        {"Ar0 Br0 Aw0? Bw0?", ""},
        // Once it is admitted and goes on as a reader it is one again.
        {"Aw0 Ar0 AW0 Bs0 As0? Bw0!", "Bm0A As0B"},
        {"Ar0 Aw0 AW0 Bs0 Bw0? As0!", "As0B Bm0A"},
        // No rings: a reader that runs, one that waits for something else.
        {"Ar0 Bs0 Bw0?", ""},
        {"Ar0 Cs0 As0? Bs1 Bw0?", ""},
        {"Ao Cr0 Bs0 As0? Bw0?", ""},
        {"Ar0 Aw1 Br1? Cw0?", ""},
    };
    for (Row const& row : rows) {
        Script script(services);
        Expect(script, row);
    }
}

// One wait may close several. A host that leaves what the report names hears of the next one.
TEST_F(DeadlockOfReaders, IsReportedForEachRingThatIsLeft) {
    Script script(services);
    script.dissolve = [&] { script.LeaveNamed(context.console->text); };
    EXPECT_EQ(script.Run("Ar0 Br0 Ds0 Ds1 As0? Bs1? Dw0!!"), 2);
    script.ExpectAllFree();

    // One that leaves nothing is not asked again.
    std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
    Sections const sections = MakeSections(1);
    ZoCritSect* const section = sections[0].get();
    std::atomic<ZoTLS*> reader{nullptr}, writer{nullptr};
    int reports = 0;
    services.onMessage = [&](std::string const&) {
        if (++reports > 1) section->ForceRelease();
        return 0U;
    };
    auto const waits = [](ZoTLS* one, ZoTLS* other) {
        return ThreadWaitsForThread(one, other) == 1;
    };
    std::thread reading;
    CancelWhen([&] { return writer != nullptr && waits(writer, reader); },
               [&] {
                   section->Begin();
                   auto const leave = [](ZoCritSect* owned) { owned->Exit(); };
                   std::unique_ptr<ZoCritSect, decltype(leave)> const hold(section, leave);
                   reading = std::thread([&] {
                       mutex->StartRW(0, 0);
                       reader = ZoTLS::GetThreadLocalStorage();
                       section->Begin();
                       section->Exit();
                       mutex->EndRW(0);
                   });
                   ZoTLS* const me = ZoTLS::GetThreadLocalStorage();
                   Await([&] { return reader != nullptr && waits(reader, me); });
                   writer = me;
                   mutex->StartRW(1, 0);
               });
    reading.join();
    EXPECT_EQ(reports, 1);
}

TEST_F(DeadlockOfReaders, IsReportedAtEachLevelThatHasTheMutex) {
    Row const rows[] = {
        {"Ad Bs0 As0? Bv!", "Bm0A As0B"},    {"Ad Bs0 Bv? As0!", "As0B Bm0A"},
        {"Be Bs0 Ad As0? Bu!", "Bm0A As0B"},  // from here on: LessExclusiveCommit and above
        {"Be Bs0 Ad Bu? As0!", "As0B Bm0A"}, {"Be Ad Bu? Av!", "As1B Bm0A"},
    };
    for (unsigned long const level : {5UL, 9UL, 12UL, 13UL}) {
        for (Row const& row : rows) {
            if (level < ZoThreadMgr::LessExclusiveCommit && row.steps[1] == 'e') break;
            ZoThreadMgr plan(nullptr, level);
            Script script(services, plan);
            Expect(script, row);
        }
    }
}

// A writer that is cancelled leaves the graph first, while it still keeps new readers out.
TEST_F(DeadlockOfReaders, AWriterStandsInTheGraphAsLongAsItWaits) {
    std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
    auto* const readers = WordOf<Condition>(mutex.get(), 4);
    auto const isClosed = [&] { return (std::atomic_ref<int>(readers->value) & 0x40000000) != 0; };
    ZoTLS* const me = ZoTLS::GetThreadLocalStorage();
    std::atomic<ZoTLS*> writer{nullptr};
    std::atomic<bool> looking{false};
    bool wasLinked = true;
    mutex->StartRW(0, 0);
    auto const look = [&] {
        Await([&] { return writer != nullptr && ThreadWaitsForThread(writer, me) == 1; });
        EXPECT_TRUE(ChildSucceeds([&] { _exit(ThreadWaitsForThread(writer, me)); }))
            << "in a child an absent thread waits for nothing";
        csDLD->Begin();
        looking = true;
        Await([] { return NumberAfter(InfoOf(csDLD), "wait count: ") == 1; });
        EXPECT_TRUE(isClosed());
        csDLD->Exit();
    };
    std::thread canceller([&] {
        CancelWhen([&] { return looking.load(); },
                   [&] {
                       struct Unwound {
                           ~Unwound() { wasLinked = writer.load()->waitingLink != nullptr; }
                           bool& wasLinked;
                           std::atomic<ZoTLS*>& writer;
                       } const unwound{wasLinked, writer};
                       writer = ZoTLS::GetThreadLocalStorage();
                       mutex->StartRW(1, 0);
                   });
    });
    look();
    canceller.join();
    EXPECT_FALSE(wasLinked);
    EXPECT_FALSE(isClosed());
    mutex->EndRW(0);
}

// Waits that form no ring with the caller: the walk ends and answers 0, the words say where the
// chain breaks off. Owners and edges are drawn by hand.
TEST_F(Deadlock, ChainsThatDoNotComeBackEnd) {
    Sections const sections = MakeSections(4);  // the last one is free
    auto section = [&](std::size_t i) { return static_cast<ZoDLDCritSect*>(sections[i].get()); };
    ZoTLS* const me = ZoTLS::GetThreadLocalStorage();
    ZoTLS owners[3];
    for (std::size_t i = 0; i < 3; ++i) {
        owners[i].threadIdentity = currentRecord = &owners[i];
        section(i)->Begin();
    }
    currentRecord = me;
    auto words = [&](std::size_t wanted) {
        DeadlockDetectionMakeMessage(me, section(wanted), GetConsole());
        return std::exchange(context.console->text, "");
    };
    std::string const wants = "ZoThread " + Pointer(me) + " wants critical section ";
    std::string const freeOne = "delta " + Pointer(section(3)) + " owned by nobody !!!!\n";
    std::string const start = wants + "alpha " + Pointer(section(0)) + " owned by thread " +
                              Pointer(&owners[0]) + "\nZoThread " + Pointer(&owners[0]) +
                              " is waiting for ";
    EXPECT_EQ(ThreadWaitsForThread(&owners[0], me), 0);
    EXPECT_EQ(words(0), start + "nothing !!!\n");
    EXPECT_EQ(words(3), wants + freeOne);
    owners[0].waitingFor = section(3);
    EXPECT_EQ(words(0), start + freeOne);

    // alpha's owner waits for beta's, which waits for gamma's, which waits for beta's.
    owners[0].waitingFor = section(1);
    owners[1].waitingFor = section(2);
    EXPECT_EQ(ThreadWaitsForThread(&owners[0], &owners[2]), 1);
    EXPECT_EQ(ThreadWaitsForThread(&owners[2], &owners[0]), 0);
    owners[2].waitingFor = section(1);
    EXPECT_EQ(ThreadWaitsForThread(&owners[0], me), 0);
    EXPECT_EQ(ThreadWaitsForThread(&owners[1], &owners[1]), 1);
    EXPECT_EQ(section(0)->WouldDeadLock(me), 0);
    EXPECT_EQ(section(1)->WouldDeadLock(&owners[2]), 1);
    for (std::size_t i = 0; i < 3; ++i) section(i)->Exit();
}

TEST_F(Deadlock, LogTakesExactlyTheGivenLength) {
    TextSink sink;
    {
        deadlock_io log(&sink);
        log.writeOutput("abcdef", 3);
        log.writeOutput("100%s\n", -1);
        log.flush();
    }
    EXPECT_EQ(sink.text, "abc100%s\n");
    EXPECT_EQ(sink.flushes, 1);
    EXPECT_EQ(LogFile(), FileHead + "abc100%s\n");
}

// Threads that take and leave sections and mutexes at random, and an independent record of who
// holds and who wants what. A thread enters its wish before it asks, a holding after it was let in,
// and takes a holding out before it leaves. So a ring in this record can only be ended by a report,
// and a report without a ring in this record is false. A ring that is not reported stops its
// threads for ever: each one is dissolved by the thread that reports it, and by nothing else.
//
// Without mutexes a wish closes one ring at the most, so the reports can be counted as well. A
// writer's may close several, and another thread of them may be later in the graph.
class RandomWork {
public:
    static constexpr std::size_t Threads = 8;

    RandomWork(unsigned seed, std::size_t sectionCount, std::size_t mutexCount)
        : sections(MakeSections(sectionCount)), seed(seed) {
        while (mutexes.size() < mutexCount) mutexes.emplace_back(ZoRW_Mutex::Make(nullptr));
    }

    void Work(int thread, long entries, Watchdog& watchdog) {
        me = std::size_t(thread);
        std::minstd_rand random(seed + unsigned(thread));
        for (long i = 0; i < entries; ++i) {
            std::size_t const place = random() % (sections.size() + mutexes.size());
            if (place < sections.size()) {
                Take({Section, place});
            } else {
                Take({random() % 3 == 0 ? Write : Read, place - sections.size()});
            }
            watchdog.Progress();
            if (random() % 8 == 0) std::this_thread::yield();  // others' turn, with all it holds
            if (levels.empty()) continue;
            if (levels.size() >= 4 || random() % 3 == 0) Leave(random() % levels.size());
        }
        LeaveAll();
        for (auto* record = ZoTLS::GetThreadLocalStorage()->rwRecords.GetFirst(); record != nullptr;
             record = record->GetNext()) {
            if (static_cast<ZoRWRecord*>(record)->holdings != 0) ++faults;
        }
    }
    // In the message service, on the detecting thread. A reader that asks to write leaves its reads
    // of the mutex when it is in. If others queue behind this very wait, it is given up.
    void Dissolve() {
        Level asked;
        {
            std::lock_guard<std::mutex> hold(mutex);
            asked = threads[me].wanted;
            ++reports;
            if (!IsInARing(true)) ++faults;
        }
        for (std::size_t i = levels.size(); i-- > 0;) {
            if (asked.mode != Write || levels[i].mode != Read || levels[i].number != asked.number) {
                Leave(i);
            }
        }
        std::lock_guard<std::mutex> hold(mutex);
        if (IsInARing(true)) throw GivenUp();
    }

    Sections const sections;
    std::vector<std::unique_ptr<ZoRW_Mutex>> mutexes;
    int rings = 0, reports = 0, givenUp = 0, faults = 0;

private:
    enum Mode { Read, Write, Section, Nothing };
    struct GivenUp {};  // unwinds a wait, as a cancellation does
    struct Level {
        Mode mode = Nothing;
        std::size_t number = 0;
    };
    struct Thread {
        Level wanted;
        int depths[3][8] = {};

        bool Holds(Mode mode, std::size_t number) const { return depths[mode][number] != 0; }
        bool Asks(std::size_t number) const {
            return wanted.mode == Write && wanted.number == number;
        }
        bool IsReader(std::size_t number) const {
            return Holds(Read, number) && !Holds(Write, number) && !Asks(number);
        }
    };

    void Take(Level level) {
        Thread& mine = threads[me];  // its holdings are changed by itself only
        bool const first = !mine.Holds(level.mode, level.number) &&
                           (level.mode != Read || !mine.Holds(Write, level.number));
        if (first) {
            std::lock_guard<std::mutex> hold(mutex);
            mine.wanted = level;
            if (IsInARing(false)) ++rings;
        }
        try {
            Ask(level);
        } catch (GivenUp const&) {
            GiveUp(level);
            return;
        }
        levels.push_back(level);
        std::lock_guard<std::mutex> hold(mutex);
        if (first && IsKeptFrom(level, false)) ++faults;
        mine.wanted = {};
        ++mine.depths[level.mode][level.number];
    }
    // Who gave reads up to wait for another writer has lost them.
    void GiveUp(Level level) {
        bool const hasLost = *ZoTLSReaderWriterRecord(mutexes[level.number].get()) == 0;
        if (hasLost) {
            std::erase_if(levels, [&](Level const& held) {
                return held.mode == Read && held.number == level.number;
            });
        }
        std::lock_guard<std::mutex> hold(mutex);
        Thread& mine = threads[me];
        if (hasLost) mine.depths[Read][level.number] = 0;
        mine.wanted = {};
        ++givenUp;
    }
    void Ask(Level level) {
        if (level.mode == Section) {
            sections[level.number]->Begin();
        } else {
            mutexes[level.number]->StartRW(level.mode, 0);
        }
    }
    void Leave(std::size_t nth) {
        Level const level = levels[nth];
        levels.erase(levels.begin() + long(nth));
        {
            std::lock_guard<std::mutex> hold(mutex);
            --threads[me].depths[level.mode][level.number];
        }
        if (level.mode == Section) {
            sections[level.number]->Exit();
        } else {
            mutexes[level.number]->EndRW(level.mode);
        }
    }
    void LeaveAll() {
        while (!levels.empty()) Leave(levels.size() - 1);
    }

    // Whether `holder` keeps one from having `level`. One that asks for a mutex may have to queue
    // behind a writer that waits; when it will is not to be told.
    static bool Keeps(Thread const& holder, Level level, bool mayQueue) {
        std::size_t const number = level.number;
        if (level.mode == Nothing) return false;
        if (level.mode == Section) return holder.Holds(Section, number);
        return holder.Holds(Write, number) || (level.mode == Write && holder.IsReader(number)) ||
               (mayQueue && holder.Asks(number));
    }
    bool IsKeptFrom(Level level, bool mayQueue) const {
        return std::any_of(threads, threads + Threads, [&](Thread const& other) {
            return &other != &threads[me] && Keeps(other, level, mayQueue);
        });
    }
    bool IsInARing(bool mayQueue) const {
        std::vector<std::size_t> toVisit{me};
        bool visited[Threads] = {};
        while (!toVisit.empty()) {
            std::size_t const from = toVisit.back();
            toVisit.pop_back();
            for (std::size_t to = 0; to < Threads; ++to) {
                if (visited[to] || to == from) continue;
                if (!Keeps(threads[to], threads[from].wanted, mayQueue)) continue;
                if (to == me) return true;
                visited[to] = true;
                toVisit.push_back(to);
            }
        }
        return false;
    }

    inline static thread_local std::size_t me;
    inline static thread_local std::vector<Level> levels;  // all that the thread holds

    unsigned const seed;
    std::mutex mutex;  // guards the record
    Thread threads[Threads];
};

// ZO_STRESS_ENTRIES sets the number of entries; a million is the long form.
class DeadlockInRandomWork : public Deadlock,
                             public testing::WithParamInterface<std::pair<int, int>> {};

INSTANTIATE_TEST_SUITE_P(SectionsAndMutexes, DeadlockInRandomWork,
                         testing::Values(std::pair(8, 0), std::pair(6, 3)));

TEST_P(DeadlockInRandomWork, NoRingIsMissedAndNoneInvented) {
    char const* const wanted = std::getenv("ZO_STRESS_ENTRIES");
    long const entries = wanted != nullptr ? std::atol(wanted) : 20'000;
    constexpr long MostAtOnce = 100'000;  // or the recorded reports take up the memory
    auto const [sections, mutexes] = GetParam();
    long rings = 0, reports = 0;
    for (long done = 0; done < entries; done += MostAtOnce) {
        RandomWork work(4711U + unsigned(done), std::size_t(sections), std::size_t(mutexes));
        services.onMessage = [&](std::string const& text) {
            if (text.find("Deadlock detected") != std::string::npos) work.Dissolve();
            return 0U;
        };
        {
            Watchdog watchdog;  // a ring that was missed stops its threads for ever
            long const share = std::min(entries - done, MostAtOnce) / long(RandomWork::Threads);
            OnThreads(int(RandomWork::Threads),
                      [&](int thread) { work.Work(thread, share, watchdog); });
        }
        EXPECT_EQ(work.faults, 0);
        EXPECT_GT(work.reports, 0);
        if (mutexes == 0) {
            EXPECT_EQ(work.reports, work.rings);
        }
        auto const isOfWriter = [](std::string const& line) {
            return line[0] == '4' && line[2] == 'I';
        };
        Services::Lines log = services.Log();
        EXPECT_EQ(std::erase_if(log, isOfWriter) != 0, mutexes != 0);
        EXPECT_EQ(log.size(), std::size_t(2 * work.reports - work.givenUp));
        EXPECT_TRUE(services.Assertions().empty());
        ExpectFree(work.sections, work.mutexes);
        rings += work.rings;
        reports += work.reports;
        services.Forget();
        context.console->text.clear();
        std::filesystem::resize_file("deadlock.txt", 0);
    }
    std::printf("%ld entries, %ld rings, %ld reports\n", entries, rings, reports);
}

}  // namespace
