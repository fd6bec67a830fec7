// Puts threads to sleep and wakes them, through conditions and work queues, many million times, and
// looks whether a wake-up is lost.
//
//     condition_soak [WAITS [NOTE]]      the NOTE shows in the list of processes
//
// The scenarios run in turn, each for a share of the waits, until there were so many or SIGINT or
// SIGTERM ends the run. A lane of a scenario is a condition or a queue, its waiters, and a driver.
// The driver releases some waiters, one by one and ahead of them, and then stands still until they
// have taken all that it released. A lost wake-up leaves something that nobody takes while every
// waiter sleeps. A wait is counted when its test failed, so that the thread went to sleep.
//
// Exit status: 0; 1 when a wake-up was lost; 2 for a bad argument.

#include <sched.h>
#include <signal.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

// Stands in front of a condition's logic and counts the waits.
class CountingLogic final : public ConditionLogic {
public:
    explicit CountingLogic(Condition* condition) : counted(condition->logic) {
        condition->logic = this;
    }
    void SafeSet(int* value) override { counted->SafeSet(value); }
    void SafeClear(int* value) override { counted->SafeClear(value); }
    int SafeTest(int* value) override {
        int const mustWait = counted->SafeTest(value);
        if (mustWait != 0) waits.fetch_add(1, std::memory_order_relaxed);
        return mustWait;
    }
    int SafeSetApp(int* value, void* first, void* second) override {
        return counted->SafeSetApp(value, first, second);
    }

    std::atomic<Number> waits{0};

private:
    ConditionLogic* counted;
};

// --- lanes -------------------------------------------------------------------------------------

class Lane {
public:
    Lane(Condition* condition, int mostAtOnce)
        : condition(condition), logic(condition), mostAtOnce(mostAtOnce) {}
    virtual ~Lane() { driver.join(); }

    void Start() {
        driver = std::thread([this] { Drive(); });
    }
    void Stop() { stopping = true; }
    bool IsOver() const { return over; }
    Number Waits() const { return logic.waits; }

    // Each tick; ends the program when nothing was taken for long although there is something to
    // take.
    void Check(char const* scenario) {
        Number const now = taken;
        bool const moves = now != takenBefore || (now == released && !stopping) || over;
        ticksStill = moves ? 0 : ticksStill + 1;
        takenBefore = now;
        if (ticksStill < PatienceInTicks) return;
        char info[64];
        condition->GetInfo(info, sizeof info);
        std::printf("LOST WAKE-UP: %s, after %llu waits of a lane: released %llu, taken %llu, %s\n",
                    scenario, Waits(), released.load(), now, info);
        std::fflush(stdout);
        _exit(1);
    }

protected:
    // Lets one waiter take something.
    virtual void Release() = 0;
    // Ends the waiters.
    virtual void End() = 0;

    Condition* condition;
    CountingLogic logic;
    int const mostAtOnce;
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

    std::thread driver;
    std::atomic<bool> stopping{false}, over{false};
    Number takenBefore = 0;
    int ticksStill = 0;
};

class ConditionLane final : public Lane {
public:
    ConditionLane(int waiters, int mostAtOnce)
        : Lane(Condition::MakeCondition("soak"), mostAtOnce) {
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
        for (std::size_t i = 0; i < threads.size(); ++i) {
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
    QueueLane(int waiters, int mostAtOnce)
        : QueueLane(ZoWorkQueue::Create(0, nullptr), waiters, mostAtOnce) {}

private:
    struct Unit final : ZoWorkUnit {
        explicit Unit(QueueLane* lane) : lane(lane) {}
        void Handle(ZoWorkQueue*) override { lane->taken.fetch_add(1, std::memory_order_release); }
        void Aborted(ZoWorkQueue*) override {}
        QueueLane* lane;
    };

    QueueLane(ZoWorkQueue* queue, int waiters, int mostAtOnce)
        : Lane(lastMade, mostAtOnce), queue(queue) {
        for (int i = 0; i < mostAtOnce + 1; ++i) units.push_back(std::make_unique<Unit>(this));
        for (int i = 0; i < waiters; ++i) queue->IncreaseThreadCount();
    }
    void Release() override {
        queue->Append(units[static_cast<std::size_t>(released % units.size())].get());
    }
    void End() override { queue->Destroy(); }

    ZoWorkQueue* queue;
    std::vector<std::unique_ptr<Unit>> units;
};

// --- scenarios ---------------------------------------------------------------------------------

cpu_set_t allProcessors;

template <class Kind>
std::unique_ptr<Lane> Make(int waiters, int mostAtOnce) {
    return std::make_unique<Kind>(waiters, mostAtOnce);
}

struct Scenario {
    char const* name;
    std::unique_ptr<Lane> (*make)(int waiters, int mostAtOnce);
    int waiters, mostAtOnce;
    bool onEach;  // a lane on each processor; else one on all of them
    Number waits = 0;
};

Scenario scenarios[] = {
    {"8 waiters, one processor", Make<ConditionLane>, 8, 16, true},
    {"16 waiters, one processor", Make<ConditionLane>, 16, 16, true},
    {"8 waiters, all processors", Make<ConditionLane>, 8, 16, false},
    {"32 waiters, all processors", Make<ConditionLane>, 32, 64, false},
    {"8 workers of a queue", Make<QueueLane>, 8, 16, true},
    {"16 workers of a queue", Make<QueueLane>, 16, 16, true},
};

using Lanes = std::vector<std::unique_ptr<Lane>>;

// A lane's threads run on the processors of the thread that makes it.
Lanes LanesOf(Scenario const& scenario) {
    Lanes lanes;
    for (std::size_t i = 0; i < CPU_SETSIZE; ++i) {
        if (!CPU_ISSET(i, &allProcessors) || (!scenario.onEach && !lanes.empty())) continue;
        cpu_set_t only = allProcessors;
        if (scenario.onEach) CPU_ZERO(&only);
        CPU_SET(i, &only);
        sched_setaffinity(0, sizeof only, &only);
        lanes.push_back(scenario.make(scenario.waiters, scenario.mostAtOnce));
        lanes.back()->Start();
    }
    sched_setaffinity(0, sizeof allProcessors, &allProcessors);
    return lanes;
}

// --- the watch ---------------------------------------------------------------------------------

sigset_t endings;

// Lets a tick pass and checks the lanes; true when the run shall end.
bool TickOrEnd(Scenario const& scenario, Lanes const& lanes) {
    bool const ended = sigtimedwait(&endings, nullptr, &Tick) > 0;
    for (auto const& lane : lanes) lane->Check(scenario.name);
    return ended;
}

Number WaitsOf(Lanes const& lanes) {
    Number waits = 0;
    for (auto const& lane : lanes) waits += lane->Waits();
    return waits;
}

// Until there were so many waits; false when the run shall end before.
bool Run(Scenario& scenario, Number waits) {
    Lanes const lanes = LanesOf(scenario);
    bool ended = false;
    while (!ended && WaitsOf(lanes) < waits) ended = TickOrEnd(scenario, lanes);
    for (auto const& lane : lanes) lane->Stop();
    for (auto const& lane : lanes) {
        while (!lane->IsOver()) ended |= TickOrEnd(scenario, lanes);
    }
    scenario.waits += WaitsOf(lanes);
    return !ended;
}

Number WaitsSoFar() {
    Number waits = 0;
    for (Scenario const& scenario : scenarios) waits += scenario.waits;
    return waits;
}

}  // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    Number const waits = argc > 1 ? std::strtoull(argv[1], &end, 10) : 10'000'000;
    if (waits == 0 || (end != nullptr && *end != '\0')) {
        std::fputs("usage: condition_soak [WAITS [NOTE]]\n", stderr);
        return 2;
    }
    sched_getaffinity(0, sizeof allProcessors, &allProcessors);
    // Before there are threads, which inherit it.
    sigemptyset(&endings);
    sigaddset(&endings, SIGINT);
    sigaddset(&endings, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &endings, nullptr);

    ___ZoExtendedContext(1);
    Number const share = std::min<Number>(waits / std::size(scenarios) + 1, 5'000'000);
    bool goesOn = true;
    while (goesOn && WaitsSoFar() < waits) {
        for (Scenario& scenario : scenarios) goesOn = goesOn && Run(scenario, share);
        std::printf("%llu waits\n", WaitsSoFar());
        std::fflush(stdout);
    }
    utsname system{};
    uname(&system);
#ifdef __GLIBC__
    std::printf("glibc %s, ", gnu_get_libc_version());
#endif
    std::printf("Linux %s, %d processors\n", system.release, CPU_COUNT(&allProcessors));
    for (Scenario const& scenario : scenarios) {
        std::printf("%-28s %13llu waits\n", scenario.name, scenario.waits);
    }
    std::printf("%llu waits slept, no wake-up was lost; %.0f s of processor time\n", WaitsSoFar(),
                static_cast<double>(std::clock()) / CLOCKS_PER_SEC);
    ___ZoExtendedContext(0);
    return 0;
}
