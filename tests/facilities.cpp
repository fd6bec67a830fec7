// A correct program that uses every facility of the library, with two threads and more in
// contention wherever that makes sense, for checkers of threads to look at (docs/checkers.md). Its
// own threads share nothing but what a mutex or the library guards.
//
//     facilities             uses everything, twice; ends with 1 when a result is wrong
//     facilities FAULT       commits one fault of those at the end, which a checker must find

#include <pthread.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

#include "services.h"
#include "smp_vers.h"
#include "zoabort.h"
#include "zocond.h"
#include "zoencrbuf.h"
#include "zohash.h"
#include "zointrlk.h"
#include "zomtobj.h"
#include "zosleep.h"
#include "zothrdmg.h"
#include "zotls.h"

using namespace zotest;

namespace {

constexpr int Threads = 3;
constexpr int Rounds = 20;

bool failed = false;

// By the main thread, or by others one at a time.
void CheckAt(int line, bool holds, char const* what) {
    if (holds) return;
    std::fprintf(stderr, "line %d: %s\n", line, what);
    failed = true;
}
#define CHECK(condition) CheckAt(__LINE__, (condition), #condition)

// --- locks ---------------------------------------------------------------------------------------

// Several threads change something between `enter` and `leave`, as often as they can, and look at
// it in `read`.
template <class Enter, class Leave, class Read>
void Excludes(Enter enter, Leave leave, Read read) {
    int guarded = 0;
    OnThreads(Threads, [&](int number) {
        for (int i = 0; i < Rounds; ++i) {
            read([&] {
                if (guarded < i) std::abort();
            });
            enter(number);
            ++guarded;
            leave(number);
        }
    });
    CHECK(guarded == Threads * Rounds);
}
template <class Enter, class Leave>
void Excludes(Enter enter, Leave leave) {
    Excludes(enter, leave, [](auto const&) {});
}

// Another thread waits for what this one holds, as the lock's description says, and reads what this
// one has written meanwhile.
template <class Lock, class Release, class Wait>
void HandsOver(Lock& lock, char const* key, Release release, Wait wait) {
    int guarded = 0;
    std::thread waiter([&] { wait([&] { CHECK(guarded == 1); }); });
    Await([&] { return NumberAfter(InfoOf(&lock), key) == 1; });
    ++guarded;
    release();
    waiter.join();
}

void Section() {
    std::unique_ptr<ZoCritSect> const section(ZoCritSect::Make("section"));
    section->Begin();
    section->Begin();
    HandsOver(
        *section, "; wait count: ", [&] { section->Exit(), section->Exit(); },
        [&](auto look) { section->Begin(), look(), section->Exit(); });
    Excludes([&](int) { section->Begin(); }, [&](int) { section->Exit(); });
    Excludes([&](int) { section->Begin(), section->Begin(); },
             [&](int) { section->ForceRelease(); });
}

// Two threads want each other's section. Asked what to do, the library's message service has the
// second one let go of its own.
void Ring(Services& services) {
    std::unique_ptr<ZoCritSect> const left(ZoCritSect::Make("left")),
        right(ZoCritSect::Make("right"));
    POSIXCondition leftHeld("left held"), rightHeld("right held");
    services.onMessage = [&](std::string const& text) {
        if (text.find("CANCEL") != std::string::npos) right->Exit();
        return 0U;
    };
    OnThreads(3, [&](int number) {
        if (number == 0) {
            left->Begin();
            leftHeld.SetCondition();
            rightHeld.WaitForCondition(0, ZoNoLimit);
            right->Begin();
            right->Exit();
            left->Exit();
        } else if (number == 1) {
            right->Begin();
            rightHeld.SetCondition();
            leftHeld.WaitForCondition(0, ZoNoLimit);
            // Counted as a waiter it is before its wait stands in the graph.
            Await(
                [&] { return InfoOf(left.get()).find("owner waiting for") != std::string::npos; });
            left->Begin();
            left->Exit();
        } else {  // while the report has the console's sink
            for (int i = 0; i < Rounds; ++i) *GetConsole() << "." << endl;
        }
    });
    services.onMessage = nullptr;
    CHECK(InfoOf(left.get()) + InfoOf(right.get()) == "left: is availableright: is available");
}

void ReaderWriterMutex() {
    std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
    auto const start = [&](int mode) { mutex->StartRW(mode, ZoNoLimit); };
    auto const end = [&](int mode) { mutex->EndRW(mode); };
    auto const write = [&](auto look) { start(1), look(), end(1); };
    start(0);
    std::thread cancelled(write, [] {});
    Await([&] { return NumberAfter(InfoOf(mutex.get()), "wait_wr #") == 1; });
    pthread_cancel(cancelled.native_handle());
    cancelled.join();
    HandsOver(
        *mutex, "wait_wr #", [&] { end(0); }, write);
    auto const read = [&](auto look) { start(0), start(0), look(), end(0), end(0); };
    start(1);
    start(1);
    HandsOver(
        *mutex, "wait_rd #", [&] { end(1), end(1); }, read);
    Excludes([&](int) { start(1); }, [&](int) { end(1); }, read);
    // Upgrades and lowers, and is told of both.
    Excludes([&](int) { start(0), start(1); }, [&](int) { end(1), end(0); });
    Excludes([&](int) { start(1), start(0); }, [&](int) { end(0), end(1); });
}

void ThreadManager() {
    for (unsigned long const level :
         {ZoThreadMgr::OneCS, ZoThreadMgr::AllCS, ZoThreadMgr::LessExclusiveCommit}) {
        ZoThreadMgr manager(nullptr, level);
        Excludes([&](int) { manager.BeginCriticalSection(9, "objects"); },
                 [&](int) { manager.EndCriticalSection(9, "objects"); });
        if (level == ZoThreadMgr::OneCS) continue;  // its brackets lock nothing
        int rounds = 0;                             // of the first thread
        Excludes(
            [&](int) {
                manager.BeginWriter("write", 1);
                manager.UpgradeWriter("write");
            },
            [&](int number) {
                manager.DowngradeWriter("write");
                manager.EndWriter("write", 1);
                if (number == 0 && ++rounds == Rounds / 2) manager.PrintStatus();
            },
            [&](auto look) { manager.BeginReader("read"), look(), manager.EndReader("read"); });
        Excludes([&](int) { manager.BeginAdmin("admin"); },
                 [&](int) { manager.EndAdmin("admin"); });
    }
}

void ReleaseAll() {
    std::unique_ptr<ZoCritSect> const section(ZoCritSect::Make("released"));
    std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
    Excludes(
        [&](int number) {
            mutex->StartRW(number % 2, ZoNoLimit);
            section->Begin();
            section->Begin();
        },
        [](int) { ReleaseAllSynchronizationObjects(); });
}

void Objects() {
    ZoMTObj object;
    Excludes([&](int) { object.BeginCriticalSection(); },
             [&](int) { object.EndCriticalSection(); });
    ZoHashTable table(ZoHashTable::WordKeys, nullptr);
    OnThreads(Threads, [&](int number) {
        for (std::intptr_t i = 1; i <= Rounds; ++i) {
            auto* const mine = reinterpret_cast<char const*>(std::intptr_t{number} * 1000 + i);
            table.ChangeValue(mine, &object, 1, 0, &object);
            if (table.GetValue(mine, &object) != &object) std::abort();
            if (i % 2 == 0) table.DeleteValue(mine, &object);
        }
    });
    CHECK(table.GetNum() == Threads * Rounds / 2);
}

// --- conditions ----------------------------------------------------------------------------------

void Conditions() {
    std::unique_ptr<Condition> const ready(Condition::MakeCondition("ready"));
    CHECK(ready->WaitForCondition(0, 1) == ZoTimedOut);
    CHECK(ready->WaitForCondition(1, 1) == ZoTimedOut);
    ready->Unlock();
    int passed = 0;
    OnThreads(Threads, [&](int number) {
        if (number == 0) {
            for (int i = 0; i < Threads; ++i) ready->SetCondition();
            ready->SetConditionApp(nullptr, nullptr);
        } else {
            ready->WaitForCondition(1, 600000);
            ++passed;
            ready->Unlock();
        }
    });
    CHECK(passed == Threads - 1);
    CHECK(ready->ClearCondition() == Threads);
}

template <class Watcher>
void ResourceWatcher() {
    Watcher watcher;
    for (int i = 0; i < Threads; ++i) watcher.IncrementCounter();
    int waited = 0;
    OnThreads(2 * Threads, [&](int number) {
        if (number < Threads) {
            watcher.DecrementCounter();
        } else if (number == Threads) {
            CHECK(watcher.WaitForZero(ZoNoLimit) == 0);
            ++waited;
        } else {
            watcher.Counter();
        }
    });
    watcher.Reset();
    CHECK(waited == 1 && watcher.Counter() == 0);
}

// --- threads and work ----------------------------------------------------------------------------

class Worker : public ZoThread {
public:
    Worker(std::function<int()> work, ZoResourceWatcher* watcher, int autoDelete = 0)
        : ZoThread("worker", nullptr, autoDelete), work(std::move(work)) {
        SetResourceWatcher(watcher);
    }
    void Init(void*) override { sum = 1; }
    int Work(void* number) override {
        Suspend();
        Continue();
        Giveup();
        return sum += *static_cast<int*>(number) + work();
    }
    void Cleanup(void*) override { sum = 0; }

private:
    std::function<int()> work;
    int sum = 0;
};

// Sets a condition when the record that owns it is released.
struct Mark : ZoExtendedBase {
    explicit Mark(Condition& gone) : gone(gone) {}
    ~Mark() override { gone.SetCondition(); }
    Condition& gone;
};

void ThreadObjects() {
    auto const nothing = [] { return 0; };
    ZoResourceWatcher watcher;
    int number = 41;
    Worker worker(nothing, &watcher);
    for (int start = 0; start < 2; ++start) {
        CHECK(worker.Start(&number) == ZoSuccess);
        Await([&] { return worker.GetStatus() == ZoThread::Finished; });
        CHECK(watcher.WaitForZero(ZoNoLimit) == 0);
        CHECK(worker.GetResult() == 42);
    }
    worker._Finish();
    for (int i = 0; i < Threads; ++i) (new Worker(nothing, &watcher, 1))->Start(&number);
    CHECK(watcher.WaitForZero(ZoNoLimit) == 0);

    POSIXCondition waits("waits"), gone("gone");
    auto const stay = [&] {
        ZoTLS::GetThreadLocalStorage()->ownedObject = new Mark(gone);
        waits.SetCondition();
        return POSIXCondition("never").WaitForCondition(0, ZoNoLimit);
    };
    Worker patient(stay, nullptr);
    CHECK(patient.Start(&number) == ZoSuccess);
    waits.WaitForCondition(0, ZoNoLimit);
    std::thread([&] { patient.Abort(); }).join();
    CHECK(patient.GetStatus() == ZoThread::Aborted);
    gone.WaitForCondition(0, ZoNoLimit);
}

// Appended to by several threads, of which others add workers and take them away.
void WorkQueue() {
    std::unique_ptr<ZoCritSect> const section(ZoCritSect::Make("units"));
    int handled = 0, aborted = 0, refused = 0;
    auto const count = [&](int& fate) {
        section->Begin();
        ++fate;
        section->Exit();
    };
    std::vector<std::unique_ptr<ScriptedUnit>> units;
    for (int i = 0; i < 2 * Threads * Rounds; ++i) {
        units.push_back(
            std::make_unique<ScriptedUnit>([&] { count(handled); }, [&] { count(aborted); }));
    }
    ZoWorkQueue* const queue = ZoWorkQueue::Create(Threads, nullptr);
    for (bool const terminated : {false, true}) {
        OnThreads(Threads, [&](int number) {
            for (int i = 0; i < Rounds; ++i) {
                int const place = ((terminated ? Threads : 0) + number) * Rounds + i;
                if (queue->Append(units[std::size_t(place)].get()) != ZoSuccess) count(refused);
                if (i != Rounds / 2) continue;
                if (number == 0) queue->IncreaseThreadCount();
                if (number == 1) queue->DecreaseThreadCount();
                if (number == 2 && terminated) queue->Terminate();
                queue->Length();
                queue->ThreadCount();
            }
        });
    }
    queue->Destroy();
    CHECK(handled + aborted + refused == 2 * Threads * Rounds);
    CHECK(handled > 0 && refused > 0);
}

void Calculations() {
    ZoWorkQueue* const queue = ZoWorkQueue::Create(2, nullptr);
    OnThreads(Threads, [&](int number) {
        for (int i = 0; i < Rounds; ++i) {
            ZoConcurrencyHelper::CalculateConcurrently();
            ZoResult* const result = ZoConcurrencyHelper::GetResultObject();
            ScriptedUnit unit([&] { ZoConcurrencyHelper::SetResult(result, number + 1); });
            queue->Append(&unit);
            if (ZoConcurrencyHelper::CalculateResult(0) != number + 1) std::abort();
        }
    });
    queue->Destroy();
}

// --- diagnostics ---------------------------------------------------------------------------------

void EventsAndSwitches() {
    auto* const dispatcher = ZoEventMessageDispatcher::GetDispatcher();
    int heard = 0;  // guarded by the dispatcher
    OnThreads(Threads, [&](int) {
        dispatcher->RegisterListener(1, 0xB00, new Listener([&](ZoEvent const*) { ++heard; }));
        for (int i = 0; i < Rounds; ++i) {
            GetDebugger();
            { ZoFtransLogEvent() << "sent " << i << endl; }
            dispatcher->TypeRequested(1, 0xB00);
            dispatcher->GetEventFamilyName(dispatcher->GetEventFamilyId("facilities"));
        }
    });
    CHECK(heard >= Threads * Rounds);
    CHECK(GetDebugger()->current == 0x800100);
    OnThreads(Threads, [](int) {
        GetDebugger()->Disable();
        GetDebugger()->Enable();
    });
}

void Consoles() {
    OnThreads(Threads, [](int number) {
        for (int i = 0; i < Rounds; ++i) *GetConsole() << "thread" << ARROW << number << endl;
        _smp_io plain;
        plain.writeOutput("not shown: the console is off", -1);
        _Configure_smp_io();
    });
    CHECK(static_cast<TextSink*>(GetConsole()->sink)->flushes >= Threads * Rounds);
    smp_io mine;
    CHECK(Console(Console(&mine)) == &mine);
}

// --- the rest ------------------------------------------------------------------------------------

void Interlocked() {
    ZoInt32 number = 0;
    void* pointer = nullptr;
    OnThreads(Threads, [&](int) {
        ZoInterlocked* const interlocked = GetZoInterlocked();
        for (int i = 0; i < Rounds; ++i) {
            interlocked->Increment(&number);
            interlocked->ExchangeAdd(&number, 2);
            interlocked->Decrement(&number);
            interlocked->CompareExchange(&pointer, &number, nullptr);
        }
    });
    CHECK(GetZoInterlocked()->Exchange(&number, 0) == 2L * Threads * Rounds);
    CHECK(pointer == &number);
}

int Refuse(void* asked) {
    static_cast<Condition*>(asked)->SetCondition();
    return 1;
}

void AbortHandlers() {
    POSIXCondition asked("asked");
    ZoAddAbortionHandler(Refuse, &asked);
    OnThreads(Threads, [](int) {
        ZoAddAbortionHandler(Refuse, nullptr);
        ZoRemoveAbortionHandler(Refuse, nullptr);
    });
    std::raise(SIGINT);
    asked.WaitForCondition(0, ZoNoLimit);
    CHECK(ZoRemoveAbortionHandler(Refuse, &asked) == 0);
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGQUIT, SIG_DFL);
}

void OneThreadEach() {
    OnThreads(Threads, [](int) {
        ZoThreadAttach(nullptr);
        ZoTLSSetAsyncWatcherThread();
        (*TLSGetCondition())->SetCondition();
        if (ZoTLSisAsyncWatcherThread() != 1) std::abort();
        ZoThreadDetach(ZoTLS::GetThreadLocalStorage());
        ZoEncryptionBuffer buffer(nullptr, 16, 100, ZoRawBufferOwnAndGrow);
        if (buffer.EnsureCapacity(1000) != 0 || buffer.SetDataLen(1000) != 0) std::abort();
        ZoThreadSwitchWithDelay(1);
        ZoSetThreadingMode(1);
        if (ZoIsSingleThreaded() != 0 || ZoCheckDll(0) != 0) std::abort();
    });
}

void UseEverything() {
    for (bool const detection : {false, true}) {
        Services services;
        services.Configure("mode", 0x800100);  // traces of threads
        Context context(detection);
        if (detection) Ring(services);
        for (auto const use :
             {Section, ReaderWriterMutex, ThreadManager, ReleaseAll, Objects, Conditions,
              ResourceWatcher<ZoResourceWatcher>, ResourceWatcher<ZoLockableResourceWatcher>,
              ThreadObjects, WorkQueue, Calculations, Consoles, EventsAndSwitches, Interlocked,
              AbortHandlers, OneThreadEach}) {
            use();
        }
        CHECK(services.Assertions().empty());
    }
}

// --- faults --------------------------------------------------------------------------------------

int shared = 0;

// One thread forgets the section.
void OutsideTheSection() {
    std::unique_ptr<ZoCritSect> const section(ZoCritSect::Make("section"));
    OnThreads(2, [&](int number) {
        if (number == 0) section->Begin();
        ++shared;
        if (number == 0) section->Exit();
    });
}

// Both write under a read.
void WriteUnderRead() {
    std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
    // At once: one who comes after another has gone is ordered after it.
    std::atomic<int> reading{0};
    OnThreads(2, [&](int) {
        mutex->StartRW(0, ZoNoLimit);
        ++reading;
        Await([&] { return reading == 2; });
        ++shared;
        mutex->EndRW(0);
    });
}

// One after the other, so that nothing happens yet.
void InvertOrder() {
    std::unique_ptr<ZoRW_Mutex> const one(ZoRW_Mutex::Make(nullptr));
    std::unique_ptr<ZoRW_Mutex> const two(ZoRW_Mutex::Make(nullptr));
    auto const both = [](ZoRW_Mutex& first, ZoRW_Mutex& second) {
        first.StartRW(0, ZoNoLimit);
        second.StartRW(1, ZoNoLimit);
        second.EndRW(1);
        first.EndRW(0);
    };
    std::thread(both, std::ref(*one), std::ref(*two)).join();
    std::thread(both, std::ref(*two), std::ref(*one)).join();
}

// The appender goes on with what it has handed over.
void ChangeAfterAppend() {
    std::atomic<bool> isHandled{false};  // which the tools take for no order
    ScriptedUnit unit([&] {
        isHandled = true;
        ++shared;
    });
    ZoWorkQueue* const queue = ZoWorkQueue::Create(1, nullptr);
    queue->Append(&unit);
    Await([&] { return isHandled.load(); });
    ++shared;
    queue->Destroy();
}

// A pointer into a buffer is used after the buffer has grown.
void KeptPointer() {
    ZoEncryptionBuffer buffer(nullptr, 0, 10, ZoRawBufferOwnAndGrow);
    char* const data = static_cast<char*>(buffer.GetData());
    buffer.EnsureCapacity(100'000);
    *data = 1;
}

// Nobody destroys what was made.
void Forgotten() {
    ZoRW_Mutex::Make(nullptr);
}

struct Fault {
    std::string_view name;
    void (*commit)();
};
Fault const Faults[] = {
    {"outside-section", OutsideTheSection}, {"write-under-read", WriteUnderRead},
    {"inverted-order", InvertOrder},        {"change-after-append", ChangeAfterAppend},
    {"kept-pointer", KeptPointer},          {"forgotten", Forgotten}};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1) UseEverything();
    for (Fault const& fault : Faults) {
        if (argc != 2 || fault.name != argv[1]) continue;
        for (bool const detection : {false, true}) {
            Services services;
            Context context(detection);
            fault.commit();
        }
    }
    return failed ? 1 : 0;
}
