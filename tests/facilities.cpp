// A correct program that uses every facility of the library, with two threads and more in
// contention wherever that makes sense, for checkers of threads to look at (docs/checkers.md). Its
// own threads share nothing but what a mutex or the library guards.
//
//     facilities             uses everything, twice; ends with 1 when a result is wrong
//     facilities FAULT       commits one fault of those at the end, which a checker must find

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "rw_mutex.h"
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
#include "zowrkque.h"

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

template <class Object>
std::string Info(Object& object) {
    char text[512];
    object.GetInfo(text, sizeof text);
    return text;
}

// Waits until somebody waits for `object`, as its description says.
template <class Object>
void AwaitWaiter(Object& object, char const* key = "; wait count: ") {
    Await([&] { return NumberAfter(Info(object), key) == 1; });
}

// --- locks ---------------------------------------------------------------------------------------

// Free, nested, waited for, and from several threads at once.
void Section(std::unique_ptr<ZoCritSect> section) {
    int guarded = 0;
    section->Begin();
    section->Begin();
    std::thread waiter([&] {
        section->Begin();
        ++guarded;
        section->Exit();
    });
    AwaitWaiter(*section);
    ++guarded;
    section->Exit();
    section->Exit();
    waiter.join();
    OnThreads(Threads, [&](int) {
        for (int i = 0; i < Rounds; ++i) {
            section->Begin();
            ++guarded;
            section->Exit();
        }
    });
    CHECK(guarded == 2 + Threads * Rounds);
    section->Begin();
    section->Begin();
    section->ForceRelease();
    std::thread([&] {
        section->Begin();
        section->Exit();
    }).join();
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
    std::thread first([&] {
        left->Begin();
        leftHeld.SetCondition();
        rightHeld.WaitForCondition(0, ZoNoLimit);
        right->Begin();
        right->Exit();
        left->Exit();
    });
    std::thread second([&] {
        right->Begin();
        rightHeld.SetCondition();
        leftHeld.WaitForCondition(0, ZoNoLimit);
        // Counted as a waiter it is before its wait stands in the graph.
        Await([&] { return Info(*left).find("owner waiting for") != std::string::npos; });
        left->Begin();
        left->Exit();
    });
    std::thread talker([] {  // while the report has the console's sink
        for (int i = 0; i < Rounds; ++i) *GetConsole() << "." << endl;
    });
    first.join();
    second.join();
    talker.join();
    services.onMessage = nullptr;
    CHECK(Info(*left) == "left: is available");
    CHECK(Info(*right) == "right: is available");
}

void ReaderWriterMutex() {
    std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
    int guarded = 0;
    auto const write = [&] {
        mutex->StartRW(1, ZoNoLimit);
        ++guarded;
        mutex->EndRW(1);
    };
    auto const read = [&] {
        mutex->StartRW(0, ZoNoLimit);
        mutex->StartRW(0, ZoNoLimit);
        int const found = guarded;
        mutex->EndRW(0);
        mutex->EndRW(0);
        return found;
    };

    mutex->StartRW(0, ZoNoLimit);
    std::thread cancelled(write);
    AwaitWaiter(*mutex, "wait_wr #");
    pthread_cancel(cancelled.native_handle());
    cancelled.join();
    std::thread writer(write);
    AwaitWaiter(*mutex, "wait_wr #");
    mutex->EndRW(0);
    writer.join();

    mutex->StartRW(1, ZoNoLimit);
    mutex->StartRW(1, ZoNoLimit);
    int found = 0;
    std::thread reader([&] { found = read(); });
    AwaitWaiter(*mutex, "wait_rd #");
    ++guarded;
    mutex->EndRW(1);
    mutex->EndRW(1);
    reader.join();
    CHECK(found == 2);

    OnThreads(Threads, [&](int number) {
        for (int i = 0; i < Rounds; ++i) {
            read();
            if (i % 4 == number) write();
            mutex->StartRW(0, ZoNoLimit);  // upgrades and lowers, and is told of both
            mutex->StartRW(1, ZoNoLimit);
            ++guarded;
            mutex->EndRW(1);
            mutex->EndRW(0);
            mutex->StartRW(1, ZoNoLimit);
            mutex->StartRW(0, ZoNoLimit);
            ++guarded;
            mutex->EndRW(0);
            mutex->EndRW(1);
        }
    });
    CHECK(read() == 2 + Threads * (2 * Rounds + Rounds / 4));
}

void ThreadManager() {
    for (unsigned long const level :
         {ZoThreadMgr::OneCS, ZoThreadMgr::AllCS, ZoThreadMgr::LessExclusiveCommit}) {
        ZoThreadMgr manager(nullptr, level);
        bool const brackets = level != ZoThreadMgr::OneCS;
        int database = 0, objects = 0;
        OnThreads(Threads, [&](int) {
            for (int i = 0; i < Rounds; ++i) {
                manager.BeginReader("read");
                int const before = brackets ? database : 0;
                manager.EndReader("read");
                manager.BeginWriter("write", 1);
                manager.UpgradeWriter("write");
                if (brackets) database += before >= 0 ? 1 : 0;
                manager.DowngradeWriter("write");
                manager.EndWriter("write", 1);
                manager.BeginAdmin("admin");
                if (brackets) ++database;
                manager.EndAdmin("admin");
                manager.BeginCriticalSection(9, "objects");
                ++objects;
                manager.EndCriticalSection(9, "objects");
                if (i == Rounds / 2) manager.PrintStatus();
            }
        });
        CHECK(objects == Threads * Rounds);
        CHECK(database == (brackets ? 2 * Threads * Rounds : 0));
    }
}

void ReleaseAll() {
    std::unique_ptr<ZoCritSect> const section(ZoCritSect::Make("released"));
    std::unique_ptr<ZoRW_Mutex> const mutex(ZoRW_Mutex::Make(nullptr));
    int guarded = 0;
    OnThreads(Threads, [&](int number) {
        for (int i = 0; i < Rounds; ++i) {
            mutex->StartRW(number % 2, ZoNoLimit);
            section->Begin();
            section->Begin();
            ++guarded;
            ReleaseAllSynchronizationObjects();
        }
    });
    CHECK(guarded == Threads * Rounds);
}

class Account : public ZoMTObj {
public:
    void Deposit() {
        ZoAutoSync hold(this);
        ++balance;
    }
    int balance = 0;
};

void Objects() {
    Account account;
    OnThreads(Threads, [&](int) {
        for (int i = 0; i < Rounds; ++i) account.Deposit();
    });
    CHECK(account.balance == Threads * Rounds);
}

void HashTable() {
    Account lock;
    ZoHashTable table(ZoHashTable::WordKeys, nullptr);
    auto const key = [](int number) {
        return reinterpret_cast<char const*>(std::intptr_t{number});
    };
    OnThreads(Threads, [&](int number) {
        for (int i = 1; i <= Rounds; ++i) {
            char const* const mine = key(number * 1000 + i);
            table.ChangeValue(mine, &lock, 1, 0, &lock);
            if (table.GetValue(mine, &lock) != &lock) std::abort();
            if (i % 2 == 0) table.DeleteValue(mine, &lock);
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
    std::string text;
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

// --- threads -------------------------------------------------------------------------------------

// Works with its argument.
class Worker : public ZoThread {
public:
    Worker(ZoResourceWatcher& watcher, int autoDelete) : ZoThread("worker", nullptr, autoDelete) {
        SetResourceWatcher(&watcher);
    }
    void Init(void*) override { sum = 1; }
    int Work(void* number) override {
        Suspend();
        Continue();
        Giveup();
        return sum += *static_cast<int*>(number);
    }
    void Cleanup(void*) override { sum = 0; }

private:
    int sum = 0;
};

// Waits until it is aborted, and sets a condition when its record is released.
class Patient : public ZoThread {
public:
    Patient(Condition& waits, Condition& gone)
        : ZoThread("patient", nullptr, 0), waits(waits), gone(gone) {}
    int Work(void*) override {
        ZoTLS::GetThreadLocalStorage()->ownedObject = new Mark(gone);
        waits.SetCondition();
        return POSIXCondition("never").WaitForCondition(0, ZoNoLimit);
    }

private:
    struct Mark : ZoExtendedBase {
        explicit Mark(Condition& gone) : gone(gone) {}
        ~Mark() override { gone.SetCondition(); }
        Condition& gone;
    };

    Condition& waits;
    Condition& gone;
};

void ThreadObjects() {
    ZoResourceWatcher watcher;
    int number = 41;
    Worker worker(watcher, 0);
    for (int start = 0; start < 2; ++start) {
        CHECK(worker.Start(&number) == ZoSuccess);
        Await([&] { return worker.GetStatus() == ZoThread::Finished; });
        CHECK(watcher.WaitForZero(ZoNoLimit) == 0);
        CHECK(worker.GetResult() == 42);
    }
    worker._Finish();
    for (int i = 0; i < Threads; ++i) (new Worker(watcher, 1))->Start(&number);
    CHECK(watcher.WaitForZero(ZoNoLimit) == 0);

    POSIXCondition waits("waits"), gone("gone");
    Patient patient(waits, gone);
    CHECK(patient.Start(nullptr) == ZoSuccess);
    waits.WaitForCondition(0, ZoNoLimit);
    std::thread([&] { patient.Abort(); }).join();
    CHECK(patient.GetStatus() == ZoThread::Aborted);
    gone.WaitForCondition(0, ZoNoLimit);
}

void Records() {
    OnThreads(Threads, [](int) {
        ZoThreadAttach(nullptr);
        ZoTLSSetAsyncWatcherThread();
        bool const isMarked = ZoTLSisAsyncWatcherThread() == 1;
        (*TLSGetCondition())->SetCondition();
        ZoThreadDetach(ZoTLS::GetThreadLocalStorage());
        if (!isMarked) std::abort();
    });
}

// --- work ----------------------------------------------------------------------------------------

class Unit : public ZoWorkUnit {
public:
    Unit(ZoCritSect& section, int& handled, int& aborted)
        : ZoWorkUnit(ZoConcurrencyHelper::GetResultObject()),
          section(section),
          handled(handled),
          aborted(aborted) {}
    void Handle(ZoWorkQueue*) override { Count(handled); }
    void Aborted(ZoWorkQueue*) override { Count(aborted); }

private:
    void Count(int& fate) {
        section.Begin();
        ++fate;
        section.Exit();
    }
    ZoCritSect& section;
    int& handled;
    int& aborted;
};

// Appended by several threads, of whom others add workers and take them away.
void WorkQueue() {
    std::unique_ptr<ZoCritSect> const section(ZoCritSect::Make("units"));
    int handled = 0, aborted = 0, refused = 0;
    std::vector<std::unique_ptr<Unit>> units;
    for (int i = 0; i < 2 * Threads * Rounds; ++i) {
        units.push_back(std::make_unique<Unit>(*section, handled, aborted));
    }
    ZoWorkQueue* const queue = ZoWorkQueue::Create(Threads, nullptr);
    for (bool const terminated : {false, true}) {
        std::size_t const first = terminated ? Threads * Rounds : 0;
        OnThreads(Threads, [&](int number) {
            for (int i = 0; i < Rounds; ++i) {
                auto const place = std::size_t(number) * Rounds + std::size_t(i);
                if (queue->Append(units[first + place].get()) != ZoSuccess) {
                    section->Begin();
                    ++refused;
                    section->Exit();
                }
                if (i == Rounds / 2) {
                    if (number == 0) queue->IncreaseThreadCount();
                    if (number == 1) queue->DecreaseThreadCount();
                    if (number == 2 && terminated) queue->Terminate();
                    queue->Length();
                    queue->ThreadCount();
                }
            }
        });
    }
    queue->Destroy();
    CHECK(handled + aborted + refused == 2L * Threads * Rounds);
    CHECK(handled > 0 && refused > 0);
}

class Sum : public ZoWorkUnit {
public:
    explicit Sum(int number) : ZoWorkUnit(ZoConcurrencyHelper::GetResultObject()), number(number) {}
    void Handle(ZoWorkQueue*) override { ZoConcurrencyHelper::SetResult(resultObject, number + 1); }
    void Aborted(ZoWorkQueue*) override { ZoConcurrencyHelper::SetResult(resultObject, -1); }

private:
    int number;
};

void Calculations() {
    ZoWorkQueue* const queue = ZoWorkQueue::Create(2, nullptr);
    OnThreads(Threads, [&](int number) {
        for (int i = 0; i < Rounds; ++i) {
            ZoConcurrencyHelper::CalculateConcurrently();
            Sum unit(number);
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
            {
                ZoFtransLogEvent transfer;
                transfer << "sent " << i << endl;
            }
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

void Consoles(TextSink& sink) {
    OnThreads(Threads, [](int number) {
        for (int i = 0; i < Rounds; ++i) *GetConsole() << "thread" << ARROW << number << endl;
    });
    CHECK(sink.flushes >= Threads * Rounds);
    smp_io mine;
    CHECK(Console(Console(&mine)) == &mine);
    OnThreads(Threads, [](int) {
        _smp_io plain;
        plain.writeOutput("not shown: the console is off", -1);
        _Configure_smp_io();
    });
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
        Section(std::unique_ptr<ZoCritSect>(ZoCritSect::Make("section")));
        if (detection) Ring(services);
        ReaderWriterMutex();
        ThreadManager();
        ReleaseAll();
        Objects();
        HashTable();
        Conditions();
        ResourceWatcher<ZoResourceWatcher>();
        ResourceWatcher<ZoLockableResourceWatcher>();
        ThreadObjects();
        Records();
        WorkQueue();
        Calculations();
        Consoles(*context.console);
        EventsAndSwitches();
        Interlocked();
        AbortHandlers();
        OneThreadEach();
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
    class Adds : public ZoWorkUnit {
    public:
        void Handle(ZoWorkQueue*) override {
            isHandled = true;
            ++shared;
        }
        void Aborted(ZoWorkQueue*) override {}
        std::atomic<bool> isHandled{false};  // which the tools take for no order
    } unit;
    ZoWorkQueue* const queue = ZoWorkQueue::Create(1, nullptr);
    queue->Append(&unit);
    Await([&] { return unit.isHandled.load(); });
    ++shared;
    queue->Destroy();
}

struct Fault {
    std::string_view name;
    void (*commit)();
};
Fault const Faults[] = {{"outside-section", OutsideTheSection},
                        {"write-under-read", WriteUnderRead},
                        {"inverted-order", InvertOrder},
                        {"change-after-append", ChangeAfterAppend}};

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
