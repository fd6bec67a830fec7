// Puts threads to sleep and wakes them, through conditions and work queues, many million times, and
// looks whether a wake-up is lost.
//
//     condition_soak [WAITS [NOTE]]      the NOTE shows in the list of processes
//
// The scenarios run in turn, each for a share of the waits, until there were so many or SIGINT or
// SIGTERM ends the run. A lane of a scenario is a condition or a queue, its waiters, and a driver.
// The driver releases some waiters, one by one and ahead of them, and then stands still until they
// have taken all that it released. A lost wake-up leaves something that nobody takes while every
// waiter sleeps.
//
// A wait is counted when its test failed, so that the thread went to sleep. A wake-up that finds
// the test still failing is one for nothing, and not another wait.
//
// Exit status: 0; 1 when a wake-up was lost; 2 for a bad argument.

#include <sched.h>
#include <signal.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "_zothrd.h"
#include "zocond.h"
#include "zowrkque.h"

#ifdef __GLIBC__
#include <gnu/libc-version.h>
#endif

// The queue makes its condition with the library's MakeCondition, which the linker replaces here.
static Condition* lastMade;
extern "C" Condition* __real__ZN9Condition13MakeConditionEPKc(char const* name);
extern "C" Condition* __wrap__ZN9Condition13MakeConditionEPKc(char const* name) {
    return lastMade = __real__ZN9Condition13MakeConditionEPKc(name);
}

namespace {

using Number = unsigned long long;

constexpr auto Tick = timespec{0, 100'000'000};
// The watch counts its own ticks, so a process that was stopped and goes on is not taken for hung.
constexpr int PatienceInTicks = 300;

// --- who sleeps and who wakes ------------------------------------------------------------------

// What one waiter did. Changed with the condition's lock held, read at any time.
struct Waiter {
    std::atomic<Number> waits{0}, wakeUps{0};
    std::atomic<bool> asleep{false};
};

// Stands in front of a condition's logic and notes who goes to sleep and who wakes up.
class NotingLogic final : public ConditionLogic {
public:
    explicit NotingLogic(Condition* condition) : noted(condition->logic) {
        condition->logic = this;
    }
    void SafeSet(int* value) override { noted->SafeSet(value); }
    void SafeClear(int* value) override { noted->SafeClear(value); }
    int SafeTest(int* value) override {
        int const mustWait = noted->SafeTest(value);
        Note(Self(), mustWait != 0);
        return mustWait;
    }
    int SafeSetApp(int* value, void* first, void* second) override {
        return noted->SafeSetApp(value, first, second);
    }

    std::array<Waiter, 64> waiters;
    std::atomic<int> known{0};   // how many of those have come
    std::atomic<int> asleep{0};  // how many sleep

private:
    // The calling thread's; each thread waits with one logic only.
    Waiter& Self() {
        thread_local Waiter* self = nullptr;
        if (self == nullptr) self = &waiters.at(static_cast<std::size_t>(known++));
        return *self;
    }
    void Note(Waiter& self, bool sleeps) {
        bool const slept = self.asleep.load(std::memory_order_relaxed);
        if (slept) self.wakeUps.fetch_add(1, std::memory_order_relaxed);
        if (slept == sleeps) return;
        if (sleeps) self.waits.fetch_add(1, std::memory_order_relaxed);
        self.asleep.store(sleeps, std::memory_order_relaxed);
        asleep.fetch_add(sleeps ? 1 : -1, std::memory_order_relaxed);
    }

    ConditionLogic* noted;
};

// --- lanes -------------------------------------------------------------------------------------

class Lane {
public:
    Lane(Condition* condition, int waiters, int mostAtOnce)
        : condition(condition), logic(condition), waiters(waiters), mostAtOnce(mostAtOnce) {}
    virtual ~Lane() { driver.join(); }

    void Start() {
        driver = std::thread([this] { Drive(); });
    }
    void Stop() { stopping = true; }
    bool IsOver() const { return over; }
    Number Released() const { return released; }
    Number Waits() const { return Sum(&Waiter::waits); }
    Number WakeUps() const { return Sum(&Waiter::wakeUps); }

    // Each tick; false when nothing was taken for long although there is something to take.
    bool IsWell() {
        Number const now = taken;
        bool const moves = now != takenBefore || (now == released && !stopping) || over;
        ticksStill = moves ? 0 : ticksStill + 1;
        takenBefore = now;
        return ticksStill < PatienceInTicks;
    }
    void Print() {
        char info[64];
        condition->GetInfo(info, sizeof info);
        std::printf("released %llu, taken %llu, asleep %d of %d, %s\n", released.load(),
                    taken.load(), logic.asleep.load(), waiters, info);
        for (int i = 0; i < logic.known; ++i) {
            Waiter const& waiter = logic.waiters.at(static_cast<std::size_t>(i));
            std::printf("waiter %2d: %s, %llu waits, %llu wake-ups\n", i,
                        waiter.asleep ? "asleep" : "awake", waiter.waits.load(),
                        waiter.wakeUps.load());
        }
    }

protected:
    // Lets one waiter take something.
    virtual void Release() = 0;
    // Ends the waiters.
    virtual void End() = 0;

    Condition* condition;
    NotingLogic logic;
    int const waiters, mostAtOnce;
    std::atomic<Number> released{0}, taken{0};

private:
    // Every other time just one waiter: no later release makes good for a wake-up that is lost.
    void Drive() {
        std::minstd_rand random(1);
        while (!stopping) {
            int const count = random() % 2 == 0 ? 1 : 2 + static_cast<int>(random()) % mostAtOnce;
            for (int i = 0; i < count; ++i) {
                released.fetch_add(1, std::memory_order_relaxed);
                Release();
            }
            while (taken != released) sched_yield();
        }
        End();
        over = true;
    }
    Number Sum(std::atomic<Number> Waiter::*what) const {
        Number sum = 0;
        for (Waiter const& waiter : logic.waiters) sum += waiter.*what;
        return sum;
    }

    std::thread driver;
    std::atomic<bool> stopping{false}, over{false};
    Number takenBefore = 0;
    int ticksStill = 0;
};

class ConditionLane final : public Lane {
public:
    ConditionLane(int waiters, int mostAtOnce)
        : Lane(Condition::MakeCondition("soak"), waiters, mostAtOnce) {
        for (int i = 0; i < waiters; ++i) threads.emplace_back([this] { Take(); });
    }
    ~ConditionLane() override {
        for (std::thread& thread : threads) thread.join();
        delete condition;
    }

private:
    void Take() {
        for (bool last = false; !last;) {
            condition->WaitForCondition(1, ZoNoLimit);
            logic.SafeClear(&condition->value);
            last = ending;
            taken.fetch_add(1, std::memory_order_release);
            condition->Unlock();
        }
    }
    void Release() override { condition->SetCondition(); }
    void End() override {
        condition->Lock();
        ending = true;
        condition->Unlock();
        for (int i = 0; i < waiters; ++i) {
            ++released;
            Release();
        }
        while (taken != released) sched_yield();
    }

    std::vector<std::thread> threads;
    bool ending = false;  // guarded by condition
};

class QueueLane final : public Lane {
public:
    QueueLane(int waiters, int mostAtOnce) : QueueLane(Make(), waiters, mostAtOnce) {}

private:
    class Unit final : public ZoWorkUnit {
    public:
        explicit Unit(QueueLane* lane) : lane(lane) {}
        void Handle(ZoWorkQueue*) override { lane->taken.fetch_add(1, std::memory_order_release); }
        void Aborted(ZoWorkQueue*) override {}

    private:
        QueueLane* lane;
    };

    QueueLane(ZoWorkQueue* queue, int waiters, int mostAtOnce)
        : Lane(lastMade, waiters, mostAtOnce), queue(queue) {
        for (int i = 0; i < mostAtOnce + 1; ++i) units.push_back(std::make_unique<Unit>(this));
        for (int i = 0; i < waiters; ++i) queue->IncreaseThreadCount();
    }
    static ZoWorkQueue* Make() { return ZoWorkQueue::Create(0, nullptr); }
    void Release() override {
        queue->Append(units[static_cast<std::size_t>(released % units.size())].get());
    }
    void End() override { queue->Destroy(); }

    ZoWorkQueue* queue;
    std::vector<std::unique_ptr<Unit>> units;
};

// --- scenarios ---------------------------------------------------------------------------------

// Threads that are made meanwhile run on one processor.
class OnProcessor {
public:
    explicit OnProcessor(std::size_t processor) {
        sched_getaffinity(0, sizeof before, &before);
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(processor, &only);
        sched_setaffinity(0, sizeof only, &only);
    }
    OnProcessor(OnProcessor const&) = delete;
    OnProcessor& operator=(OnProcessor const&) = delete;
    ~OnProcessor() { sched_setaffinity(0, sizeof before, &before); }

private:
    cpu_set_t before;
};

std::vector<std::size_t> Processors() {
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    std::vector<std::size_t> processors;
    for (std::size_t i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &set)) processors.push_back(i);
    }
    return processors;
}

struct Scenario {
    char const* name;
    std::unique_ptr<Lane> (*make)(int waiters, int mostAtOnce);
    int waiters, mostAtOnce;
    bool onEach;  // a lane on each processor; else one on all of them
    Number waits = 0, wakeUps = 0, released = 0;
    double seconds = 0;
};

template <class Kind>
std::unique_ptr<Lane> Make(int waiters, int mostAtOnce) {
    return std::make_unique<Kind>(waiters, mostAtOnce);
}

Scenario scenarios[] = {
    {"8 waiters, one processor", Make<ConditionLane>, 8, 16, true},
    {"16 waiters, one processor", Make<ConditionLane>, 16, 16, true},
    {"8 waiters, all processors", Make<ConditionLane>, 8, 16, false},
    {"32 waiters, all processors", Make<ConditionLane>, 32, 64, false},
    {"8 workers of a queue", Make<QueueLane>, 8, 16, true},
    {"16 workers of a queue", Make<QueueLane>, 16, 16, true},
};

using Lanes = std::vector<std::unique_ptr<Lane>>;

Lanes LanesOf(Scenario const& scenario) {
    Lanes lanes;
    if (scenario.onEach) {
        for (std::size_t const processor : Processors()) {
            OnProcessor const made(processor);
            lanes.push_back(scenario.make(scenario.waiters, scenario.mostAtOnce));
            lanes.back()->Start();
        }
    } else {
        lanes.push_back(scenario.make(scenario.waiters, scenario.mostAtOnce));
        lanes.back()->Start();
    }
    return lanes;
}

// --- the watch ---------------------------------------------------------------------------------

sigset_t endings;

// Lets a tick pass; true when the run shall end.
bool TickOrEnd() {
    return sigtimedwait(&endings, nullptr, &Tick) > 0;
}

Number WaitsOf(Lanes const& lanes) {
    Number waits = 0;
    for (auto const& lane : lanes) waits += lane->Waits();
    return waits;
}

void Check(Scenario const& scenario, Lanes const& lanes) {
    for (auto const& lane : lanes) {
        if (lane->IsWell()) continue;
        std::printf("LOST WAKE-UP: %s, after %llu waits of this kind\n", scenario.name,
                    scenario.waits + WaitsOf(lanes));
        lane->Print();
        std::fflush(stdout);
        _exit(1);
    }
}

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Until there were so many waits; false when the run shall end before.
bool Run(Scenario& scenario, Number waits) {
    double const start = Now();
    Lanes const lanes = LanesOf(scenario);
    bool ended = false;
    while (!ended && WaitsOf(lanes) < waits) {
        ended = TickOrEnd();
        Check(scenario, lanes);
    }
    for (auto const& lane : lanes) lane->Stop();
    for (auto const& lane : lanes) {
        while (!lane->IsOver()) {
            ended |= TickOrEnd();
            Check(scenario, lanes);
        }
        scenario.wakeUps += lane->WakeUps();
        scenario.released += lane->Released();
    }
    scenario.waits += WaitsOf(lanes);
    scenario.seconds += Now() - start;
    return !ended;
}

Number WaitsSoFar() {
    Number waits = 0;
    for (Scenario const& scenario : scenarios) waits += scenario.waits;
    return waits;
}

void Report() {
    utsname system{};
    uname(&system);
#ifdef __GLIBC__
    std::printf("glibc %s, ", gnu_get_libc_version());
#endif
    std::printf("Linux %s, %zu processors\n", system.release, Processors().size());
    std::printf("%-28s %13s %13s %13s %9s\n", "", "waits", "wake-ups", "released", "seconds");
    for (Scenario const& scenario : scenarios) {
        std::printf("%-28s %13llu %13llu %13llu %9.1f\n", scenario.name, scenario.waits,
                    scenario.wakeUps, scenario.released, scenario.seconds);
    }
    std::printf("%llu waits slept, no wake-up was lost; %.0f s of processor time\n", WaitsSoFar(),
                static_cast<double>(std::clock()) / CLOCKS_PER_SEC);
}

}  // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    Number const waits = argc > 1 ? std::strtoull(argv[1], &end, 10) : 10'000'000;
    if (waits == 0 || (end != nullptr && *end != '\0')) {
        std::fputs("usage: condition_soak [WAITS [NOTE]]\n", stderr);
        return 2;
    }
    // Before there are threads, which inherit it.
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &endings, nullptr);

    ___ZoExtendedContext(1);
    Number const share = std::min<Number>(waits / std::size(scenarios) + 1, 5'000'000);
    for (std::size_t i = 0; WaitsSoFar() < waits; i = (i + 1) % std::size(scenarios)) {
        if (!Run(scenarios[i], share)) break;
        if (i + 1 == std::size(scenarios)) {
            std::printf("%llu waits\n", WaitsSoFar());
            std::fflush(stdout);
        }
    }
    Report();
    ___ZoExtendedContext(0);
    return 0;
}
