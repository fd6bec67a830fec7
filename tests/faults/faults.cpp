// Everything that can fail, fails: each call of the library into the system library in turn, in
// scenarios that together use every facility. And at each such call the thread is cancelled or
// ends, or the process is forked.
//
//     faults OUTCOMES [SCENARIO ...]
//
// After each run the locks are free, every facility works for other threads, and nothing is leaked.
// A run tells what it saw: results, assertions, log entries. What a failure adds to that must stand
// in the file OUTCOMES, and nothing else may. ZO_FAULTS=all takes every place for a fork, and not
// only some of each scenario.

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
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

#ifdef __SANITIZE_ADDRESS__
constexpr bool addressSanitizer = true;
#else
constexpr bool addressSanitizer = false;
#endif

// --- what a run tells ----------------------------------------------------------------------------

// Shared with the child process that runs a scenario.
struct Report {
    char seen[8192];  // lines
    char wrong[512];
    char where[64];  // whose call was the point; empty: there was none
};
Report* report = nullptr;
std::mutex reportLock;
std::atomic<bool> quiet{false};
bool detection = false;
std::function<void()> onMessage;
Services* host = nullptr;

void Say(std::string const& line) {
    if (quiet) return;
    std::lock_guard<std::mutex> const hold(reportLock);
    std::size_t const length = std::strlen(report->seen);
    std::snprintf(report->seen + length, sizeof report->seen - length, "%s\n", line.c_str());
}
void Say(char const* what, long result) {
    Say(what + std::string(" ") + std::to_string(result));
}
void MustAt(int line, bool holds, char const* what) {
    if (holds) return;
    std::snprintf(report->wrong, sizeof report->wrong, "line %d: %s", line, what);
    _exit(3);
}
#define MUST(condition) MustAt(__LINE__, (condition), #condition)

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
        Say(mode == 0 ? "read" : "write", started);
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
    other.BeginLongCriticalSection();
    Services::Lines const told = host->Assertions();
    bool const absent = !told.empty() && told.back() == "(this->myCS != 0) src/zomtobj 30";
    if (!absent) other.EndCriticalSection();
}

void ReaderWriterMutex() {
    int result = 7;
    auto const mutex = Own(ZoRW_Mutex::Make(&result));
    Say("make", result);
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
    Say("limited wait", ready->WaitForCondition(0, 1));
    Joined first, second;
    AtEnd const release{[&] {
        ready->SetCondition();
        ready->SetCondition();
    }};
    long const before = points::Waits();
    for (Joined* const waiter : {&first, &second}) {
        waiter->Start([&] { Say("wait", ready->WaitForCondition(0, ZoNoLimit)); });
    }
    AwaitOrFault([&] { return points::Waits() == before + 2; });
}

void Watchers() {
    ZoLockableResourceWatcher watcher;
    Say("counted", watcher.IncrementCounter());
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
    Say("status", thread.GetStatus());
}

std::atomic<bool> waits{false}, over{false}, gone{false};

void Threads() {
    CancellationDeferred deferred;  // who may be used by a thread is not left
    ZoResourceWatcher watcher;
    for (long const code : {0L, 1L, 2L, 65536L}) {
        Thread thread(&watcher, [] {});
        thread.SetStackSizeCode(code);
        for (int start = 0; start < 2; ++start) {
            int const result = thread.Start(nullptr);
            Say("start", result);
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
        patient.Abort();
        Say("aborted", patient.GetStatus());
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
    Say("record", ZoTLS::GetThreadLocalStorage() != nullptr);
    Condition** const condition = TLSGetCondition();
    Say("condition", condition != nullptr && *condition != nullptr);
    ZoTLSSetAsyncWatcherThread();
    Say("watcher", ZoTLSisAsyncWatcherThread());
    Say("holdings", ZoTLSReaderWriterRecord(mutex.get()) != nullptr);
    Say("removed", ZoTLSRemoveReaderWriterRecord(mutex.get()));
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
    Say("threads", queue->ThreadCount());
    int refused = 0;
    for (Unit& unit : units) {
        int const result = queue->Append(&unit);
        if (result == 0) continue;
        Say("append", result);
        ++refused;
    }
    Say("decrease", queue->DecreaseThreadCount());
    Say("terminate", queue->Terminate());
    Say("append at the end", queue->Append(&units[0]));
    for (int i = 0; i < 3; ++i) gate->SetCondition();
    int done = 0;
    AwaitOrFault([&] {
        done = 0;
        for (Unit const& unit : units) done += unit.done;
        return done + refused == Count;
    });
}

void Calculations() {
    Queue const queue(ZoWorkQueue::Create(1, nullptr));
    if (!queue) return Say("not made");
    AtEnd const close{[] { ZoConcurrencyHelper::CalculateResult(0); }};
    ZoConcurrencyHelper::CalculateConcurrently();
    Say("concurrent", ZoConcurrencyHelper::IsConcurrent());
    Unit unit([] {}, ZoConcurrencyHelper::GetResultObject());
    int const appended = queue->Append(&unit);
    Say("append", appended);
    Say("result", ZoConcurrencyHelper::CalculateResult(1));
    AtEnd const finish{[&] { Await([&] { return appended != 0 || unit.done == 1; }); }};
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
    Say("register", dispatcher->RegisterListener(1, 0xB00, listener));
    AtEnd const tell{[&] { Say("heard", heard); }};
    { ZoFtransLogEvent() << "sent " << 1 << endl; }
    Say("family", static_cast<long>(dispatcher->GetEventFamilyId("faults")));
    Say("debugger", GetDebugger() != nullptr);
    ZoEventMessageDispatcher second;
    Say("second", second.RegisterListener(1, 0xB00, new Listener([](ZoEvent const*) {})));
}

void HashTable() {
    Account lock;
    ZoHashTable table(ZoHashTable::WordKeys, nullptr);
    for (std::intptr_t i = 1; i <= 40; ++i) {
        int const result = table.ChangeValue(reinterpret_cast<char const*>(i), &lock, 1, 0, &lock);
        if (result != 0) Say("insert", result);
    }
    ZoHashTable* copy = nullptr;
    Say("copy", table.Clone(copy, &lock));
    delete copy;
    Say("entries", static_cast<long>(table.GetNum()));
}

std::atomic<int> asked{0};
int Refuse(void*) {
    points::Outlive();  // the thread that asks may get a record afterwards
    ++asked;
    return 1;
}

void AbortHandlers() {
    CancellationDeferred deferred;  // references are given back
    int const added = ZoAddAbortionHandler(Refuse, nullptr);
    Say("add", added);
    struct sigaction now {};
    sigaction(SIGINT, nullptr, &now);
    if (now.sa_handler != SIG_DFL) {
        std::raise(SIGINT);
        // Else it comes when nobody is asked any more, and ends the process.
        Await([] { return asked == 1 || points::Failed("sem_post"); });
        Say("remove", ZoRemoveAbortionHandler(Refuse, nullptr));
    }
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGQUIT, SIG_DFL);
}

void Buffers() {
    ZoEncryptionBuffer buffer(nullptr, 16, 100, ZoRawBufferOwnAndGrow);
    Say("capacity", buffer.EnsureCapacity(1000));
    Say("length", buffer.SetDataLen(1000));
    Say("sleep", ZoSleep(0));
    ZoThreadSwitchWithDelay(1);
    Say("interlocked", GetZoInterlocked() != nullptr);
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
    Say("key", file != nullptr ? file->ReadValue("mode", &value, path) : -1);
    ZoSystemLog()->Printf(4, "entry %s", std::string(2000, 'x').c_str());
    ZoMessage()->Show(0, ZoStyleNotice, "message");
    ZOVA_assert("asserted", "file", 1);
    Say("logged",
        std::filesystem::exists("faults.log") && std::filesystem::file_size("faults.log") > 2000);
}

void Nothing() {}

enum Kind {
    Plain,
    Makes,  // the library context is made in it too
    Keeps,  // what is read once stays to the end of the process
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
};

// --- afterwards ----------------------------------------------------------------------------------

// Whatever happened, another thread can use everything.
void UseEverything() {
    for (ZoCritSect* const lock : {fscs, csDLD}) {
        if (lock != nullptr) In const in(*lock);
    }
    auto const section = Own(ZoCritSect::Make("after"));
    auto const mutex = Own(ZoRW_Mutex::Make(nullptr));
    auto const condition = Own(Condition::MakeCondition("after"));
    MUST(section && mutex && condition);
    {
        In const in(*section);
        Access const read(*mutex, 0);
        Access const write(*mutex, 1);
        MUST(read.started == 0 && write.started == 0);
    }
    condition->SetCondition();
    MUST(condition->WaitForCondition(0, ZoNoLimit) == 0);
    HashTable();
    { ZoFtransLogEvent() << "after" << endl; }
    smp_io() << "after" << endl;
    MUST(ZoAddAbortionHandler(Refuse, nullptr) == 0);
    ZoRemoveAbortionHandler(Refuse, nullptr);
    ReleaseAllSynchronizationObjects();
    Unit unit;
    Queue const queue(ZoWorkQueue::Create(1, nullptr));
    MUST(queue != nullptr && queue->Append(&unit) == 0);
    Await([&] { return unit.done == 1; });
    ZoResourceWatcher watcher;
    Thread thread(&watcher, [] {});
    MUST(thread.Start(nullptr) == 0);
    watcher.WaitForZero(ZoNoLimit);
}

// --- a fork in the middle ------------------------------------------------------------------------

// Forks once while another thread stands at a point. That may hold a lock that fork() waits for: it
// is kept for so long at most. The thread that forks may get a record, as each that uses a lock: it
// ends in Finish. The object is never destroyed, as it may be asked later.
class Forker {
public:
    Forker() : thread([this] { Work(); }) {}
    void Ask() {
        CancellationDeferred deferred;
        std::unique_lock<std::mutex> hold(lock);
        asked = true;
        changed.notify_all();
        changed.wait_for(hold, std::chrono::milliseconds(20), [this] { return !asked; });
    }
    // Once what was asked for is done.
    void Finish() {
        {
            std::lock_guard<std::mutex> const hold(lock);
            over = true;
            changed.notify_all();
        }
        thread.join();
    }

private:
    void Work() {
        std::unique_lock<std::mutex> hold(lock);
        changed.wait(hold, [this] { return asked || over; });
        if (!asked) return;
        hold.unlock();
        int const status = EndOfChild(LiveAsChild);
        if (status != 0 && report->wrong[0] == '\0') {
            std::snprintf(report->wrong, sizeof report->wrong, "the child: status %x", status);
        }
        hold.lock();
        asked = false;
        changed.notify_all();
    }
    static void LiveAsChild() {
        points::Disarm();
        quiet = true;
        Services services;
        // Another thread may have held the section of that there was.
        auto* const old = ZoEventMessageDispatcher::SetDispatcher(new ZoEventMessageDispatcher);
        UseEverything();
        delete ZoEventMessageDispatcher::SetDispatcher(old);
        ___ZoExtendedContext(0);
        _exit(0);
    }

    std::mutex lock;
    std::condition_variable changed;
    bool asked = false, over = false;
    std::thread thread;
};
Forker* forker = nullptr;

// --- a run ---------------------------------------------------------------------------------------

// What is wrong if the process hangs from here on.
void Stage(char const* text) {
    std::snprintf(report->wrong, sizeof report->wrong, "%s", text);
}

void RunOnThread(Scenario const& scenario, points::Mode mode, long nth) {
    Services services;
    host = &services;
    services.Configure("ZOVAConsole", scenario.run == Console ? 1 : 0);
    services.onMessage = [](std::string const&) {
        if (onMessage) onMessage();
        return 0U;
    };
    *ZoGetDeadLockDetectionEnabled() = detection ? 1 : 0;
    if (scenario.kind == Makes) points::Arm(mode, nth);
    ___ZoExtendedContext(1);
    if (mode == points::Meet) forker = new Forker;
    points::MeetWith([] { forker->Ask(); });
    if (scenario.kind != Makes) points::Arm(mode, nth);
    std::thread([&] {
        points::BeVictim();
        scenario.run();
    }).join();
    points::Disarm();
    if (forker != nullptr) forker->Finish();
    std::strncpy(report->where, points::Where(), sizeof report->where - 1);
    for (std::string const& line : services.Log()) Say("log " + line);
    for (std::string const& line : services.Assertions()) Say("assertion " + line);
    quiet = true;
    if (report->wrong[0] != '\0') _exit(3);
    ___ZoExtendedContext(1);  // nothing unless the set-up failed
    Stage("hangs afterwards");
    std::thread([] { UseEverything(); }).join();
    ___ZoExtendedContext(0);
}

// In a child process of its own.
void Run(Scenario const& scenario, points::Mode mode, long nth) {
    long const before = points::Live();
    std::thread([&] { RunOnThread(scenario, mode, nth); }).join();
    Stage("leaks afterwards");
    Await([&] { return scenario.kind == Keeps || points::Live() == before; });
    Stage("");
}

struct Result {
    bool failed;
    std::string where;
    std::set<std::string> lines;
};

void AddLines(std::set<std::string>& lines, std::istream&& from) {
    static std::regex const changing(
        "0x[0-9a-f]+|[0-9TZ:.-]{24}|written by [^;]*|x{9,}|/[^ ]*/faults[A-Za-z0-9]{6}/");
    for (std::string line; std::getline(from, line);) {
        lines.insert(std::regex_replace(line, changing, "*"));
    }
}

// `body` runs in a child process, which it ends or returns from.
template <class Body>
Result InChild(std::string const& name, Body body) {
    std::memset(report, 0, sizeof *report);
    int const status = EndOfChild([&] {
        alarm(30);
        dup2(open("said", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666), STDERR_FILENO);
        body();
        _exit(0);
    });
    Result result{status != 0 || report->wrong[0] != '\0', report->where, {}};
    if (result.failed) {
        std::ostringstream said;
        said << std::ifstream("said").rdbuf();
        std::cout << name << " (" << report->where << "): status " << std::hex << status << std::dec
                  << " " << report->wrong << "\n"
                  << report->seen << said.str() << "\n";
    }
    AddLines(result.lines, std::istringstream(report->seen));
    if (result.where != "fwrite") AddLines(result.lines, std::ifstream("said"));
    return result;
}

void MapReport() {
    int const file = open("report", O_RDWR | O_CREAT, 0666);
    if (ftruncate(file, sizeof *report) != 0) std::abort();
    report = static_cast<Report*>(
        mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
}

// --- all runs ------------------------------------------------------------------------------------

std::set<std::string> outcomes;
int failures = 0;

// Fails, cancels and so on at the first point, at the second, until there is none. Returns how many
// there were.
template <class RunOne>
long AtEachPoint(std::string const& name, bool tellsOutcomes, long stride, RunOne runOne) {
    Result const normal = runOne(0);
    long runs = 0;
    failures += normal.failed ? 1 : 0;
    for (long nth = 1;; nth += stride, ++runs) {
        Result const result = runOne(nth);
        failures += result.failed ? 1 : 0;
        if (result.where.empty()) return runs;
        if (!tellsOutcomes) continue;
        bool nothing = true;
        for (std::string const& line : result.lines) {
            if (normal.lines.count(line) != 0) continue;
            nothing = false;
            outcomes.insert(name + " " + result.where + ": " + line);
        }
        if (nothing) outcomes.insert(name + " " + result.where + ": nothing");
    }
}

// What the process does while it loads the library: in a program of its own.
int Loaded() {
    MapReport();
    std::strncpy(report->where, points::Where(), sizeof report->where - 1);
    std::string const where = report->where;
    points::Disarm();
    Run({"load", Nothing, Plain}, points::Off, 0);
    std::snprintf(report->where, sizeof report->where, "%s", where.c_str());
    return 0;
}

// An outcome of the file may be missing: some take a certain order of two threads.
void Compare(char const* path) {
    std::set<std::string> expected;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line[0] != '#') expected.insert(line);
    }
    for (std::string const& line : outcomes) {
        std::string const anywhere = "*" + line.substr(line.find(' '));
        if (expected.count(line) + expected.count(anywhere) != 0) continue;
        ++failures;
        std::cout << "not expected: " << line << "\n";
    }
}

}  // namespace

int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape)
    if (std::getenv("ZO_FAULT") != nullptr) return Loaded();
    std::string const self = std::filesystem::absolute(argv[0]);
    std::string const expected = std::filesystem::absolute(argv[1]);
    char directory[] = "/tmp/faultsXXXXXX";
    if (mkdtemp(directory) == nullptr || chdir(directory) != 0) return 2;
    MapReport();
    points::Remember();
    bool const all = std::getenv("ZO_FAULTS") != nullptr;
    if (!all) points::CountAtMost(3);
    std::cout << std::unitbuf;
    std::map<std::string, long> runs;
    std::set<std::string> const wanted(argv + 2, argv + argc);
    for (Scenario const& scenario : scenarios) {
        if (!wanted.empty() && wanted.count(scenario.name) == 0) continue;
        for (auto const& [mode, how, stride] : {std::tuple{points::Fail, "failures", 1L},
                                                {points::Cancel, "cancellations", 1L},
                                                {points::End, "ends", 1L},
                                                {points::Meet, "forks", all ? 1L : 17L}}) {
            // AddressSanitizer takes what a cancelled thread leaves on its stack for an error, and
            // its allocator's locks are not free in a child.
            if (addressSanitizer && mode != points::Fail) continue;
            if (scenario.kind == Makes && mode != points::Fail) continue;
            for (bool const detects : {false, true}) {
                detection = detects;
                runs[how] += AtEachPoint(
                    scenario.name, mode == points::Fail, stride, [&, mode = mode](long nth) {
                        return InChild(scenario.name + (" " + std::to_string(mode)) + " " +
                                           std::to_string(nth),
                                       [&] { Run(scenario, mode, nth); });
                    });
            }
        }
    }
    if (wanted.empty() || wanted.count("load") != 0) {
        runs["failures"] += AtEachPoint("load", true, 1, [&](long nth) {
            return InChild("load", [&] {
                setenv("ZO_FAULT", std::to_string(nth).c_str(), 1);
                execl(self.c_str(), self.c_str(), nullptr);
            });
        });
    }
    Compare(expected.c_str());
    auto const sites = points::Reached();
    for (auto const& [how, count] : runs) std::cout << count << " " << how << ", ";
    std::cout << sites.calls << " calls from " << sites.places << " places of " << sites.functions
              << " functions; " << failures << " wrong\n";
    std::filesystem::remove_all(directory);
    return failures == 0 ? 0 : 1;
}
