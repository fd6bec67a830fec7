// Everything that can fail, fails: each call of the library into the system library in turn, in
// scenarios that together use every facility. And at each such call the thread is cancelled or
// ends, or the process is forked. faults.py runs this and judges what it prints, in lines of
// fields with tabs between them:
//
//     can fail, function …
//     cannot fail, function …
//     place, function, frames                                one that was passed
//     fault, function, frames, what was seen …               one that was made to happen
//     wrong, run, status, what is wrong …
//     runs, how, number of them
//
//     faults [SCENARIO ...]
//
// After each run the locks are free, every facility works for other threads, and nothing is leaked.
// A run tells what it saw: unexpected results, assertions, log entries.

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cancellation.h"
#include "points.h"
#include "rw_mutex.h"
#include "services.h"
#include "zoabort.h"
#include "zocond.h"
#include "zoencrbuf.h"
#include "zohash.h"
#include "zointrlk.h"
#include "zomtobj.h"
#include "zosleep.h"
#include "zothrdmg.h"
#include "zotls.h"
#include "zowrkque.h"

using namespace zotest;

namespace {

// --- what a run tells ----------------------------------------------------------------------------

// Shared with the child process that runs a scenario.
struct Report {
    char seen[8192];  // lines
    char wrong[512];
    bool happened;
};
Report* report = nullptr;
std::mutex reportLock;
std::atomic<bool> isAfterwards{false};  // nothing fails any more
bool detection = false, isChild = false;
std::function<void()> onMessage;
Services* host = nullptr;
struct Host : Services {
    Host() {
        host = this;
        onMessage = [](std::string const&) {
            if (::onMessage) ::onMessage();
            return 0U;
        };
    }
};

// What is wrong if the process ends from here on.
void Stage(std::string const& text) {
    std::snprintf(report->wrong, sizeof report->wrong, "%s", text.c_str());
}
void MustAt(int line, bool holds, char const* what) {
    if (holds) return;
    Stage("line " + std::to_string(line) + ": " + what);
    _exit(3);
}
#define MUST(condition) MustAt(__LINE__, (condition), #condition)

void Say(std::string const& line) {
    MustAt(0, !isAfterwards, line.c_str());
    std::lock_guard<std::mutex> const hold(reportLock);
    std::size_t const length = std::strlen(report->seen);
    std::snprintf(report->seen + length, sizeof report->seen - length, "%s\n", line.c_str());
}
void Expect(char const* what, long result, long expected = 0) {
    if (result != expected) Say(what + std::string(" ") + std::to_string(result));
}

// A fault may keep what is awaited from coming.
template <class Predicate>
void AwaitOrFault(Predicate predicate) {
    Await([&] { return points::Failed() || predicate(); });
}

// --- scopes, which a thread that is cancelled leaves ---------------------------------------------

template <class Action>
struct AtEnd {
    Action action;
    ~AtEnd() { action(); }
};
template <class Action>
AtEnd(Action) -> AtEnd<Action>;

class Joined {
public:
    template <class Body>
    void Start(Body body) {
        thread = std::thread(body);
    }
    ~Joined() {
        CancellationDeferred deferred;
        if (thread.joinable()) thread.join();
    }

private:
    std::thread thread;
};

struct In {
    explicit In(ZoCritSect& section) : section(section) { section.Begin(); }
    ~In() { section.Exit(); }
    ZoCritSect& section;
};

struct Access {
    Access(ZoRW_Mutex& mutex, int mode)
        : mutex(mutex), mode(mode), started(mutex.StartRW(mode, ZoNoLimit)) {
        Expect(mode == 0 ? "read" : "write", started);
    }
    ~Access() {
        if (started == 0 && mutex.EndRW(mode) != 0) Say("end refused");
    }
    ZoRW_Mutex& mutex;
    int const mode, started;
};

std::string Info(ZoSynchroObj* object) {
    char text[512] = "";
    if (auto* const section = dynamic_cast<ZoCritSect*>(object)) section->GetInfo(text, 512);
    if (auto* const mutex = dynamic_cast<ZoRW_Mutex*>(object)) mutex->GetInfo(text, 512);
    return text;
}
void AwaitWaiter(ZoSynchroObj* object, char const* key = "; wait count: ") {
    AwaitOrFault([&] { return NumberAfter(Info(object), key) == 1; });
}

// Null if there is none, which is told.
template <class Object>
std::unique_ptr<Object> Own(Object* made) {
    if (made == nullptr) Say("not made");
    return std::unique_ptr<Object>(made);
}

// --- the scenarios, each on a thread of its own --------------------------------------------------

void Sections() {
    auto const section = Own(ZoCritSect::Make("section"));
    auto const light = Own(ZoCritSect::MakeLight("light"));
    auto const dummy = Own(ZoCritSect::MakeDummy("dummy"));
    if (!section || !light || !dummy) return;
    Joined waiter;
    In outer(*section), inner(*section), unused(*dummy);
    waiter.Start([&] { In in(*section); });
    AwaitWaiter(section.get());
    light->Begin();
    light->ForceRelease();
}

struct Account : ZoMTObj {};

void Objects() {
    Account account, other;
    { ZoAutoSync const hold(&account); }
    std::size_t const before = host->Assertions().size();
    other.BeginLongCriticalSection();
    Services::Lines const told = host->Assertions();
    bool const absent = told.size() > before && told.back() == "(this->myCS != 0) src/zomtobj 30";
    if (!absent) other.EndCriticalSection();
}

void ReaderWriterMutex() {
    int result = 7;
    auto const mutex = Own(ZoRW_Mutex::Make(&result));
    Expect("make", result);
    if (!mutex) return;
    Joined writer, reader;
    {
        Access first(*mutex, 0), second(*mutex, 0);
        writer.Start([&] { Access write(*mutex, 1); });
        AwaitWaiter(mutex.get(), "wait_wr #");
    }
    {
        Access first(*mutex, 1), second(*mutex, 1), third(*mutex, 0);
        reader.Start([&] { Access read(*mutex, 0); });
        AwaitWaiter(mutex.get(), "wait_rd #");
    }
    Access read(*mutex, 0), upgrade(*mutex, 1);
}

void ThreadManager() {
    for (unsigned long const level : {0UL, 4UL, 9UL}) {
        ZoThreadMgr manager(nullptr, level);
        manager.BeginReader("r");
        AtEnd const endReader{[&] { manager.EndReader("r"); }};
    }
    ZoThreadMgr manager(nullptr, ZoThreadMgr::LessExclusiveCommit);
    Joined reader;
    {
        manager.BeginWriter("w", 1);
        AtEnd const endWriter{[&] { manager.EndWriter("w", 1); }};
        reader.Start([&] {
            manager.BeginReader("r");
            manager.EndReader("r");
        });
        manager.UpgradeWriter("w");
        manager.DowngradeWriter("w");
    }
    manager.BeginAdmin("a");
    AtEnd const endAdmin{[&] { manager.EndAdmin("a"); }};
    manager.BeginCriticalSection(9, "s");
    manager.EndCriticalSection(9, "s");
    manager.PrintStatus();
}

void Conditions() {
    auto const ready = Own(Condition::MakeCondition("ready"));
    if (!ready) return;
    Expect("limited wait", ready->WaitForCondition(0, 1), ZoTimedOut);
    Joined first, second;
    AtEnd const release{[&] {
        ready->SetCondition();
        ready->SetCondition();
    }};
    long const before = points::Waits();
    for (Joined* const waiter : {&first, &second}) {
        waiter->Start([&] { Expect("wait", ready->WaitForCondition(0, ZoNoLimit)); });
    }
    AwaitOrFault([&] { return points::Waits() == before + 2; });
}

void Watchers() {
    ZoLockableResourceWatcher watcher;
    Expect("counted", watcher.IncrementCounter(), 1);
    Joined user;
    user.Start([&] { watcher.DecrementCounter(); });
    watcher.WaitForZero(ZoNoLimit);
    watcher.Reset();
}

class Thread : public ZoThread {
public:
    Thread(ZoResourceWatcher* watcher, std::function<void()> work, int autoDelete = 0)
        : ZoThread("thread", nullptr, autoDelete), work(std::move(work)) {
        SetResourceWatcher(watcher);
    }
    int Work(void*) override {
        pthread_attr_t attributes;
        int isDetached = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getdetachstate(&attributes, &isDetached);
        pthread_attr_destroy(&attributes);
        MUST(isDetached == PTHREAD_CREATE_DETACHED);
        work();
        return 42;
    }

private:
    std::function<void()> work;
};

void AwaitEnd(ZoThread& thread, int started) {
    if (started == 0) Await([&] { return thread.GetStatus() != ZoThread::Running; });
    Expect("status", thread.GetStatus(), ZoThread::Finished);
}

std::atomic<bool> waits{false}, over{false}, gone{false};

void Threads() {
    CancellationDeferred deferred;  // who may be used by a thread is not left
    waits = over = gone = false;
    ZoResourceWatcher watcher;
    for (long const code : {0L, 1L, 2L, 65536L}) {
        Thread thread(&watcher, [] {});
        thread.SetStackSizeCode(code);
        for (int start = 0; start < 2; ++start) {
            int const result = thread.Start(nullptr);
            Expect("start", result);
            AwaitEnd(thread, result);
        }
    }
    if (auto* const left = new Thread(
            &watcher, [] {}, 1);
        left->Start(nullptr) != 0)
        delete left;
    Thread patient(nullptr, [] {
        AtEnd const tell{[] { gone = true; }};
        waits = true;
        while (!over) std::make_unique<POSIXCondition>("never")->WaitForCondition(0, 1);
    });
    if (patient.Start(nullptr) == 0) {
        Await([] { return waits.load(); });
        Expect("give up", patient.Giveup());
        patient.Abort();
        Expect("aborted", patient.GetStatus(), ZoThread::Aborted);
        over = true;
        if (patient.GetStatus() == ZoThread::Failed) {
            Await([&] { return patient.GetStatus() == ZoThread::Finished; });
        }
        Await([] { return gone.load(); });
    }
    watcher.WaitForZero(ZoNoLimit);
}

void Records() {
    auto const mutex = Own(ZoRW_Mutex::Make(nullptr));
    ZoThreadAttach(nullptr);
    Expect("record", ZoTLS::GetThreadLocalStorage() != nullptr, 1);
    Condition** const condition = TLSGetCondition();
    Expect("condition", condition != nullptr && *condition != nullptr, 1);
    ZoTLSSetAsyncWatcherThread();
    Expect("watcher", ZoTLSisAsyncWatcherThread(), 1);
    Expect("holdings", ZoTLSReaderWriterRecord(mutex.get()) != nullptr, 1);
    Expect("removed", ZoTLSRemoveReaderWriterRecord(mutex.get()));
    ZoThreadDetach(ZoTLS::GetThreadLocalStorage());
}

struct Unit : ZoWorkUnit {
    explicit Unit(
        std::function<void()> work = [] {}, ZoResult* result = nullptr)
        : ZoWorkUnit(result), work(std::move(work)) {}
    void Handle(ZoWorkQueue*) override {
        work();
        ZoConcurrencyHelper::SetResult(resultObject, 7);
        ++done;
    }
    void Aborted(ZoWorkQueue*) override { ++done; }
    std::function<void()> work;
    std::atomic<int> done{0};
};

struct Destroy {
    void operator()(ZoWorkQueue* queue) const { queue->Destroy(); }
};
using Queue = std::unique_ptr<ZoWorkQueue, Destroy>;

void Queues() {
    constexpr int Count = 300;  // more than the queue allocates room for at once
    std::vector<Unit> units(Count);
    auto const gate = Own(Condition::MakeCondition("gate"));
    if (!gate) return;
    for (std::size_t i = 0; i < 3; ++i) {
        units[i].work = [&] { gate->WaitForCondition(0, ZoNoLimit); };
    }
    Queue const queue(ZoWorkQueue::Create(2, nullptr));
    if (!queue) return Say("not made");
    AtEnd const open{[&] {
        for (int i = 0; i < 3; ++i) gate->SetCondition();
    }};
    queue->IncreaseThreadCount();
    Expect("threads", queue->ThreadCount(), 3);
    int refused = 0;
    for (Unit& unit : units) {
        int const result = queue->Append(&unit);
        if (result == 0) continue;
        Expect("append", result);
        ++refused;
    }
    Expect("decrease", queue->DecreaseThreadCount());
    Expect("terminate", queue->Terminate());
    Expect("append at the end", queue->Append(&units[0]), ZoRefused);
    for (int i = 0; i < 3; ++i) gate->SetCondition();
    int done = 0;
    AwaitOrFault([&] {
        done = 0;
        for (Unit const& unit : units) done += unit.done;
        return done + refused == Count;
    });
}

void Calculations() {
    std::optional<Unit> unit;  // the queue goes first, when nobody uses it any more
    Queue const queue(ZoWorkQueue::Create(1, nullptr));
    if (!queue) return Say("not made");
    AtEnd const close{[] { ZoConcurrencyHelper::CalculateResult(0); }};
    ZoConcurrencyHelper::CalculateConcurrently();
    Expect("concurrent", ZoConcurrencyHelper::IsConcurrent(), 1);
    unit.emplace([] {}, ZoConcurrencyHelper::GetResultObject());
    Expect("append", queue->Append(&*unit));
    Expect("result", ZoConcurrencyHelper::CalculateResult(1), 7);
}

// The message service has the thread that closes the ring let go of the other's section.
void Ring() {
    if (!detection || ZoTLS::GetThreadLocalStorage() == nullptr) return;
    auto const left = Own(ZoCritSect::Make("left")), right = Own(ZoCritSect::Make("right"));
    if (!left || !right) return;
    std::atomic<int> other{0};
    Joined thread;
    right->Begin();
    AtEnd const leave{[&] {
        right->ForceRelease();
        onMessage = nullptr;
    }};
    onMessage = [&] { right->ForceRelease(); };
    thread.Start([&] {
        bool const known = ZoTLS::GetThreadLocalStorage() != nullptr;
        if (known) left->Begin();
        other = known ? 1 : 2;
        if (!known) return;
        right->Begin();
        right->Exit();
        left->Exit();
    });
    Await([&] { return other != 0; });
    if (other == 2) return;
    Await([&] { return Info(left.get()).find("owner waiting for") != std::string::npos; });
    In in(*left);
}

void Console() {
    smp_io stream;
    stream << "text" << ARROW << 7 << 1.5 << endl;
    _smp_io plain;
    plain.writeOutput("plain\n", -1);
    plain.flush();
    if (auto const mine = Own(new (std::nothrow) smp_io)) *mine << "mine" << endl;
}

void Events() {
    auto* const dispatcher = ZoEventMessageDispatcher::GetDispatcher();
    int heard = 0;
    auto* const listener = new Listener([&](ZoEvent const*) { ++heard; });
    Expect("register", dispatcher->RegisterListener(1, 0xB00, listener));
    AtEnd const tell{[&] { Expect("heard", heard, 1); }};
    { ZoFtransLogEvent() << "sent " << 1 << endl; }
    Expect("family", static_cast<long>(dispatcher->GetEventFamilyId("dictError")), 0x10008);
    Expect("debugger", GetDebugger() != nullptr, 1);
    ZoEventMessageDispatcher second;
    Expect("second", second.RegisterListener(1, 0xB00, new Listener([](ZoEvent const*) {})));
}

void HashTable() {
    Account lock;
    ZoHashTable table(ZoHashTable::WordKeys, nullptr);
    for (std::intptr_t i = 1; i <= 40; ++i) {
        int const result = table.ChangeValue(reinterpret_cast<char const*>(i), &lock, 1, 0, &lock);
        Expect("insert", result);
    }
    ZoHashTable* copy = nullptr;
    Expect("copy", table.Clone(copy, &lock));
    delete copy;
    Expect("entries", static_cast<long>(table.GetNum()), 40);
}

std::atomic<int> timesAsked{0};
int Refuse(void*) {
    points::Outlive();  // the thread that asks may get a record afterwards
    ++timesAsked;
    return 1;
}

void AbortHandlers() {
    CancellationDeferred deferred;  // references are given back
    timesAsked = 0;
    int const added = ZoAddAbortionHandler(Refuse, nullptr);
    Expect("add", added);
    struct sigaction now {};
    sigaction(SIGINT, nullptr, &now);
    if (added == 0 && now.sa_handler != SIG_DFL) {
        std::raise(SIGINT);
        // Else it comes when nobody is asked any more, and ends the process.
        Await([] { return timesAsked == 1 || points::Failed("sem_post"); });
        int const left = ZoRemoveAbortionHandler(Refuse, nullptr);
        if (!isChild) Expect("remove", left);  // a child has its parent's references
    }
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGQUIT, SIG_DFL);
}

void Buffers() {
    ZoEncryptionBuffer buffer(nullptr, 16, 100, ZoRawBufferOwnAndGrow);
    Expect("capacity", buffer.EnsureCapacity(1000));
    Expect("length", buffer.SetDataLen(1000));
    Expect("sleep", ZoSleep(0));
    ZoThreadSwitchWithDelay(1);
    Expect("interlocked", GetZoInterlocked() != nullptr, 1);
}

// What the base library does by itself: the configuration of a file, a log, messages, assertions.
void BaseLibrary() {
    std::ofstream("faults.ini") << "[debug]\nmode = 5\nwrong\n[base]\nlog = faults.log\n";
    setenv("ZOVA_CONFIG", "faults.ini", 1);
    unlink("faults.log");
    ZoLog* const log = ZoSetSystemLog(nullptr);
    ZoMessageService* const messages = ZoSetMessageService(nullptr);
    ZoConfig* const configuration = ZoSetDefaultConfig(nullptr);
    ZoAssertHandler const handler = ZoSetAssertHandler(nullptr);
    AtEnd const restore{[&] {
        ZoSetSystemLog(log);
        ZoSetMessageService(messages);
        ZoSetDefaultConfig(configuration);
        ZoSetAssertHandler(handler);
    }};
    int value = 0;
    char const* const path[] = {"debug", nullptr};
    ZoConfig* const file = DefaultConfig(nullptr);
    Expect("key", file != nullptr ? file->ReadValue("mode", &value, path) : -1);
    ZoSystemLog()->Printf(4, "entry %s", std::string(2000, 'x').c_str());
    ZoMessage()->Show(0, ZoStyleNotice, "message");
    ZOVA_assert("asserted", "file", 1);
    Expect("logged",
           std::filesystem::exists("faults.log") && std::filesystem::file_size("faults.log") > 2000,
           1);
}

void Nothing() {}

enum Kind {
    Plain,
    Makes,  // the library context is made in it too
    Keeps,  // what is read once stays to the end of the process
    Loads,  // the libraries are loaded in it
};
struct Scenario {
    char const* name;
    void (*run)();
    Kind kind = Plain;
};
Scenario const scenarios[] = {
    {"section", Sections},
    {"object", Objects},
    {"mutex", ReaderWriterMutex},
    {"manager", ThreadManager},
    {"condition", Conditions},
    {"watcher", Watchers},
    {"thread", Threads},
    {"record", Records},
    {"queue", Queues},
    {"calculation", Calculations},
    {"ring", Ring},
    {"console", Console},
    {"events", Events},
    {"hash", HashTable},
    {"abort", AbortHandlers},
    {"buffer", Buffers},
    {"base", BaseLibrary, Keeps},
    {"context", Nothing, Makes},
    {"load", Nothing, Loads},
    {"marks", ReaderWriterMutex, Loads},
};

// --- a fork in the middle ------------------------------------------------------------------------

sem_t asked, answered;

// Whatever happened, another thread can use everything.
void UseEverything() {
    isAfterwards = true;
    for (ZoCritSect* const lock : {fscs, csDLD}) {
        if (lock != nullptr) In const in(*lock);
    }
    for (Scenario const& scenario : scenarios) {
        Stage(std::string("hangs afterwards: ") + scenario.name);
        if (scenario.kind == Plain) scenario.run();
    }
    Stage("");
}

// Forks once while another thread stands at a point. The thread that forks may get a record, as
// each that uses a lock, so it ends.
void* ForkWhenAsked(void*) {
    while (sem_wait(&asked) != 0) {
    }
    if (!points::Happened()) return nullptr;
    int const status = EndOfChild([] {
        points::Disarm();
        isChild = true;
        onMessage = nullptr;
        Host services;
        // Another thread may have held the section of that there was.
        auto* const old = ZoEventMessageDispatcher::SetDispatcher(new ZoEventMessageDispatcher);
        UseEverything();
        delete ZoEventMessageDispatcher::SetDispatcher(old);
        ___ZoExtendedContext(0);
        _exit(0);
    });
    if (status != 0 && std::strncmp(report->wrong, "child", 5) != 0) {
        Stage("child: status " + std::to_string(status) + ": " + report->wrong);
    }
    sem_post(&answered);
    return nullptr;
}

// fork() may wait for a lock of the calling thread's, which is kept for so long at most.
void AskForFork() {
    CancellationDeferred deferred;
    timespec end{};
    clock_gettime(CLOCK_REALTIME, &end);
    end.tv_nsec += 20'000'000;
    if (end.tv_nsec >= 1'000'000'000) end = {end.tv_sec + 1, end.tv_nsec - 1'000'000'000};
    sem_post(&asked);
    while (sem_timedwait(&answered, &end) != 0 && errno == EINTR) {
    }
}

// --- a run ---------------------------------------------------------------------------------------

struct Point {
    points::Mode mode = points::Watch;
    std::uint64_t key = 0;
    int pass = 0;
};

void RunOnThread(Scenario const& scenario, Point point) {
    Host services;
    services.Configure("ZOVAConsole", scenario.run == Console ? 1 : 0);
    services.Configure("csStacks", scenario.run == Ring || scenario.kind == Makes ? 1 : 0);
    *ZoGetDeadLockDetectionEnabled() = detection ? 1 : 0;
    auto const arm = [&] { points::Arm(point.mode, point.key, point.pass); };
    if (scenario.kind == Makes) arm();
    ___ZoExtendedContext(1);
    pthread_t forker{};
    if (point.mode == points::Meet) pthread_create(&forker, nullptr, ForkWhenAsked, nullptr);
    points::MeetWith(AskForFork);
    if (scenario.kind == Plain || scenario.kind == Keeps) arm();
    Stage("hangs");
    std::thread([&] {
        points::BeVictim();
        scenario.run();
    }).join();
    report->happened |= points::Happened();
    points::Disarm();
    if (std::strcmp(report->wrong, "hangs") == 0) Stage("");
    if (point.mode == points::Meet) {
        if (!report->happened) sem_post(&asked);
        pthread_join(forker, nullptr);
    }
    for (std::string const& line : services.Log()) Say("log " + line);
    for (std::string const& line : services.Assertions()) Say("assertion " + line);
    if (report->wrong[0] != '\0') _exit(3);
    if (scenario.kind != Plain) ___ZoExtendedContext(0);  // parts of it may be absent
    ___ZoExtendedContext(1);
    std::thread(UseEverything).join();
    ___ZoExtendedContext(0);
}

long OpenFiles() {
    auto const files = std::filesystem::directory_iterator("/proc/self/fd");
    return std::distance(begin(files), end(files));
}

// In a child process of its own.
void Run(Scenario const& scenario, Point point) {
    long const before = points::Live(), files = OpenFiles();
    std::thread([&] { RunOnThread(scenario, point); }).join();
    if (scenario.kind == Keeps) return;
    Stage("leaks afterwards");
    Await([&] { return points::Live() == before && OpenFiles() == files; });
    Stage("");
}

// What the process does while it loads the library: in a program of its own.
void RunProgram(Scenario const& scenario, Point point) {
    std::ostringstream fault;
    fault << point.mode << " " << point.key << " " << point.pass;
    setenv("ZO_FAULT", fault.str().c_str(), 1);
    setenv("ZOVA_READ_MARKS", "always", 1);
    execl("/proc/self/exe", "faults", scenario.name, nullptr);
}

// Its main function.
int Loaded(std::string const& name) {
    auto const* scenario = scenarios;
    while (scenario->name != name) ++scenario;
    report->happened = points::Happened();
    if (scenario->run == Nothing) points::Disarm();
    Run(*scenario, {points::Off});
    return 0;
}

template <class Shared>
Shared* Map(char const* name) {
    int const file = open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (ftruncate(file, sizeof(Shared)) != 0) std::abort();
    return static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
}

// --- all runs ------------------------------------------------------------------------------------

using Lines = std::set<std::string>;

void Print(std::string const& kind, Lines const& fields) {
    std::string line = kind;
    for (std::string const& field : fields) line += "\t" + field;
    line += "\n";
    if (write(STDOUT_FILENO, line.data(), line.size()) < 0) std::abort();
}

std::string Frames(points::Place const& place) {
    std::ostringstream text;
    text << points::names[place.function] << std::hex << "\t";
    for (std::uint32_t const* frame = place.frames; *frame != 0; ++frame) text << *frame << " ";
    return text.str();
}

// What a run saw.
Lines RunInChild(Scenario const& scenario, Point point) {
    std::memset(report, 0, sizeof *report);
    int const status = EndOfChild([&] {
        alarm(20);
        dup2(open("said", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666), STDERR_FILENO);
        (scenario.kind == Loads ? RunProgram : Run)(scenario, point);
        _exit(0);
    });
    Lines lines;
    auto const add = [&](std::istream&& from) {
        for (std::string line; std::getline(from, line);) lines.insert(line);
    };
    bool const isWrong = status != 0 || report->wrong[0] != '\0';
    add(std::istringstream(report->seen));
    if (scenario.kind == Keeps || isWrong) add(std::ifstream("said"));
    if (!isWrong) return lines;
    std::ostringstream run;
    run << scenario.name << " " << point.mode << " " << point.key << " " << point.pass
        << ": status " << std::hex << status << " " << report->wrong;
    Print("wrong\t" + run.str(), lines);
    return lines;
}

struct How {
    char const* name;
    points::Mode mode;
    int passes;  // of a place, at most
};
How const hows[] = {{"failures", points::Fail, 3},
                    {"cancellations", points::Cancel, 2},
                    {"ends", points::End, 2},
                    {"forks", points::Meet, 1}};

// How often `place` was passed in a way that `how` can happen.
int PassesFor(points::Place const& place, How const& how) {
    int passes = how.mode == points::Cancel || how.mode == points::End ? place.ofVictims.load()
                                                                       : place.passes.load();
    if (how.mode == points::Fail && !place.canFail) passes = 0;
    if (how.mode == points::End && !place.endsThread) passes = 0;
    return std::min(passes, how.passes);
}

void RunAtEachPoint(Scenario const& scenario, bool detects) {
    detection = detects;
    std::memset(static_cast<void*>(points::places), 0, sizeof(points::Places));
    Lines normal = RunInChild(scenario, {});
    // The order of threads may be another one the next time, and a run finds new places.
    auto const found = std::make_unique<points::Place[]>(4096);
    std::memcpy(static_cast<void*>(found.get()), points::places, sizeof(points::Places));
    normal.merge(RunInChild(scenario, {}));
    for (How const& how : hows) {
        bool const onlyFails = scenario.kind == Makes || scenario.run == Nothing;
        if (onlyFails && how.mode != points::Fail) continue;
        if (scenario.kind == Loads && how.mode == points::Meet) continue;
        long runs = 0, missed = 0;
        for (points::Place const* place = found.get(); place != found.get() + 4096; ++place) {
            for (int pass = 1; pass <= PassesFor(*place, how); ++pass) {
                Lines lines;
                for (int tries = 0; tries < 4; ++tries) {
                    lines = RunInChild(scenario, {how.mode, place->key, pass});
                    if (report->happened || report->wrong[0] != '\0') break;
                }
                ++(report->happened ? runs : missed);
                if (how.mode != points::Fail || !report->happened) continue;
                Lines more;
                std::set_difference(lines.begin(), lines.end(), normal.begin(), normal.end(),
                                    std::inserter(more, more.end()));
                Print("fault\t" + Frames(*place), more);
            }
        }
        Print(std::string("runs\t") + how.name + "\t" + std::to_string(runs), {});
        if (missed != 0) Print("runs\tnot met again\t" + std::to_string(missed), {});
    }
    for (points::Place const& place : points::places->place) {
        if (place.key == 0) continue;
        Print("place\t" + Frames(place), {});
    }
}

// The system installs its handler at the first cancellation. A child that is forked by another
// thread at that moment may find it said to be installed when it is not, and is killed by its own
// first.
void CancelOnce() {
    pthread_t thread{};
    pthread_create(
        &thread, nullptr,
        [](void*) -> void* {
            for (;;) pause();
        },
        nullptr);
    pthread_cancel(thread);
    pthread_join(thread, nullptr);
}

// Takes scenarios as they come, beside other workers.
void Work(std::atomic<int>& next, Lines const& wanted) {
    char directory[] = "/tmp/faultsXXXXXX";
    if (mkdtemp(directory) == nullptr || chdir(directory) != 0) std::abort();
    report = Map<Report>("report");
    points::places = Map<points::Places>("places");
    for (unsigned job = 0; (job = static_cast<unsigned>(next++)) < 2 * std::size(scenarios);) {
        Scenario const& scenario = scenarios[job / 2];
        if (!wanted.empty() && wanted.count(scenario.name) == 0) continue;
        RunAtEachPoint(scenario, job % 2 != 0);
    }
    std::filesystem::remove_all(directory);
}

}  // namespace

int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape)
    if (std::getenv("ZO_FAULT") != nullptr) {
        report = Map<Report>("report");
        return Loaded(argv[1]);
    }
    char const* const* name = points::names;
    for (char const* const kind : {"can fail", "cannot fail"}) {
        Lines functions;
        for (; *name != nullptr && **name != '\0'; ++name) functions.insert(*name);
        if (*name != nullptr) ++name;
        Print(kind, functions);
    }
    std::signal(SIGINT, SIG_DFL);  // a job in the background may ignore it
    auto* const next = static_cast<std::atomic<int>*>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    for (unsigned i = std::thread::hardware_concurrency(); i > 0; --i) {
        if (fork() != 0) continue;
        CancelOnce();
        Work(*next, Lines(argv + 1, argv + argc));
        _exit(0);
    }
    int status = 0, worst = 0;
    while (wait(&status) > 0) worst |= status;
    return worst == 0 ? 0 : 1;
}
