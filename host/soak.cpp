#include "soak.h"

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <new>
#include <random>
#include <stdexcept>

#include "job.h"
#include "locking_plan.h"
#include "signals.h"
#include "zoabort.h"

namespace {

using Clock = std::chrono::steady_clock;

// --- signals -------------------------------------------------------------------------------------

std::atomic<unsigned long> sent{0}, refused{0};

constexpr auto BetweenSignals = std::chrono::milliseconds(20);
constexpr auto Tick = std::chrono::milliseconds(1);
constexpr int MostTicks =
    60000;  // counted, so that a process that was stopped is not taken for hung

}  // namespace

int SignalStorm::Refuse(void*) {
    if (++refused > sent) raise(SIGTERM);
    return 1;
}

// The next signal only after the handler was asked about the last: no two are taken for one.
void SignalStorm::Blow() {
    while (!over) {
        std::this_thread::sleep_for(BetweenSignals);
        ++sent;
        kill(getpid(), SIGINT);
        kill(getpid(), SIGUSR1);
        for (int ticks = 0; refused < sent; ++ticks) {
            if (ticks == MostTicks) {
                std::fprintf(stderr, "FAILED: a signal was lost\n");
                std::abort();
            }
            std::this_thread::sleep_for(Tick);
        }
    }
}

SignalStorm::SignalStorm() {
    if (ZoAddAbortionHandler(Refuse, nullptr) != 0) throw std::bad_alloc();
    sender = std::thread([this] { Blow(); });
}

SignalStorm::~SignalStorm() {
    over = true;
    sender.join();
    ZoRemoveAbortionHandler(Refuse, nullptr);
}

unsigned long SignalStorm::Refused() {
    return refused;
}

namespace {

// --- rounds --------------------------------------------------------------------------------------

constexpr unsigned AllTraces = 0x910100;
// What a process has once comes in the first rounds: places for threads, buffers, tables.
constexpr unsigned RoundsToWarmUp = 4 * (HighestLevel + 1);

// The levels in turn, the rest at random, alike in every soak.
Options OptionsOf(unsigned round, Options const& given, std::minstd_rand& random) {
    auto const upTo = [&](unsigned most) { return static_cast<unsigned>(random()) % (most + 1); };
    Options options = given;
    options.level = round % (HighestLevel + 1);
    options.threads = options.level == ZoThreadMgr::NoneCS ? 1 : 1 + upTo(7);
    options.work = std::chrono::seconds(0);
    options.detection = upTo(2) != 0;
    options.trace = upTo(1) != 0 ? AllTraces : 0;
    options.workers = 1 + upTo(3);
    options.grow = upTo(4);
    options.shrink = upTo(options.workers + options.grow - 1);
    options.rest = std::chrono::milliseconds(upTo(3) == 0 ? 1 : 0);
    if (options.detection && options.level > ZoThreadMgr::NoneCS && upTo(2) == 0) {
        options.ring = 2 + upTo(4);
        options.ringThroughReaders = options.level > ZoThreadMgr::OneCS && upTo(1) != 0;
    }
    return options;
}

// --- what is in use ------------------------------------------------------------------------------

struct Use {
    long residentKiB, heapKiB, descriptors, threads;
};

// How much more of each there may be at the end than after the warming up. The heap in use is exact
// but for the allocator's caches of the threads: what a round loses shows there. What is resident
// wanders by some tens of MiB with what the allocator keeps free in its sixteen arenas; the bound
// is for what is mapped without it.
constexpr Use Bounds{48L * 1024, 256, 0, 0};

long Entries(char const* folder) {
    auto const begin = std::filesystem::directory_iterator(folder);
    return static_cast<long>(std::distance(begin, std::filesystem::directory_iterator()));
}

// Threads that are not waited for may be about to end.
long ThreadsLeft(long expected) {
    long threads = Entries("/proc/self/task");
    for (int ticks = 0; threads > expected && ticks < MostTicks; ++ticks) {
        std::this_thread::sleep_for(Tick);
        threads = Entries("/proc/self/task");
    }
    return threads;
}

Use UseNow(long expectedThreads) {
    Use use{};
    use.threads = ThreadsLeft(expectedThreads);
    use.descriptors = Entries("/proc/self/fd");
    malloc_trim(0);
    struct mallinfo2 const heap = mallinfo2();
    use.heapKiB = static_cast<long>((heap.uordblks + heap.hblkhd) / 1024);
    long all = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    use.residentKiB = resident * (sysconf(_SC_PAGESIZE) / 1024);
    return use;
}

// --- the report ----------------------------------------------------------------------------------

class Soak {
public:
    explicit Soak(Options const& options) : options(options), report(fdopen(dup(1), "w")) {
        if (report == nullptr) throw std::bad_alloc();
    }
    Soak(Soak const&) = delete;
    Soak& operator=(Soak const&) = delete;
    ~Soak() { std::fclose(report); }

    bool Run() {
        // The allocator gives what is free back, also what is free at the end of a thread's arena.
        mallopt(M_TRIM_THRESHOLD, 64 * 1024);
        std::minstd_rand random(1);
        auto const end = begin + options.soak;
        bool good = true;
        while (good && !WasInterrupted() && (Clock::now() < end || rounds < 2 * RoundsToWarmUp)) {
            good = Round(OptionsOf(rounds, options, random));
            if (rounds == RoundsToWarmUp) Tell("after the first rounds", first = now);
            if (rounds % (4 * RoundsToWarmUp) == 0) Tell("", now);
        }
        Tell("at the end", now);
        if (rounds <= RoundsToWarmUp) return good;
        for (auto const what :
             {&Use::residentKiB, &Use::heapKiB, &Use::descriptors, &Use::threads}) {
            good = good && now.*what <= first.*what + Bounds.*what;
        }
        std::fprintf(report,
                     "at most %ld KiB, %ld KiB, %ld, %ld more allowed; %lu signals refused, %u "
                     "deadlocks dissolved: %s\n",
                     Bounds.residentKiB, Bounds.heapKiB, Bounds.descriptors, Bounds.threads,
                     SignalStorm::Refused(), rings, good ? "All is well." : "FAILED, see soak.log");
        return good;
    }

private:
    bool Round(Options const& round) {
        int const log = open("soak.log", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
        for (int const output : {1, 2}) dup2(log, output);
        close(log);
        std::filesystem::remove("deadlock.txt");  // it would become longer and longer
        bool const good = RunJob(round);
        ++rounds;
        rings += round.ring > 0 ? 1 : 0;
        now = UseNow(rounds > RoundsToWarmUp ? first.threads : 2);
        return good;
    }

    void Tell(char const* when, Use const& use) {
        std::chrono::duration<double, std::ratio<60>> const time = Clock::now() - begin;
        std::fprintf(report,
                     "%6.1f min %5u rounds: %6ld KiB resident, %5ld KiB of heap, %ld descriptors, "
                     "%ld threads %s\n",
                     time.count(), rounds, use.residentKiB, use.heapKiB, use.descriptors,
                     use.threads, when);
        std::fflush(report);
    }

    Options const& options;
    std::FILE* const report;
    Clock::time_point const begin = Clock::now();
    unsigned rounds = 0, rings = 0;
    Use first{}, now{};
};

}  // namespace

bool RunSoak(Options const& options) {
    return Soak(options).Run();
}
