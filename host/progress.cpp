#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <utility>

namespace {

constexpr int BarWidth = 30;
constexpr std::chrono::seconds BetweenLines{1};
constexpr char const* EraseLine = "\r\033[K";

std::atomic<bool> barShown{false};

// "12 s left", or nothing when there is no telling.
std::string TimeLeft(Seconds elapsed, double part) {
    if (part <= 0) return {};
    double const left = elapsed.count() * (1 - part) / part;
    return ", " + std::to_string(std::lround(std::ceil(left))) + " s left";
}

}  // namespace

Progress::Progress(char const* phase, OperationCounts const& counts, std::function<double()> part)
    : phase(phase),
      counts(counts),
      part(std::move(part)),
      onTerminal(isatty(STDERR_FILENO) == 1),
      start(Clock::now()),
      lastTime(start),
      before(counts.Total()),
      lastCount(before) {}

void Progress::Tell(std::string const& state) {
    Clock::time_point const now = Clock::now();
    if (onTerminal) {
        DrawBar(now);
    } else if (now - lastTime >= BetweenLines) {
        PrintLine(now, state);
    }
}

void Progress::TellEnd(std::string const& state) {
    EraseProgressBar();
    PrintLine(Clock::now(), state);
}

double Progress::Rate(Clock::time_point now) const {
    Seconds const time = now - lastTime;
    std::uint64_t const count = counts.Total() - lastCount;
    return time.count() > 0 ? static_cast<double>(count) / time.count() : 0;
}

void Progress::DrawBar(Clock::time_point now) {
    std::string bar;
    std::string left;
    if (part != nullptr) {
        double const done = std::clamp(part(), 0.0, 1.0);
        auto const filled = static_cast<std::size_t>(std::lround(done * BarWidth));
        bar = "[" + std::string(filled, '#') + std::string(BarWidth - filled, '.') + "] ";
        left = TimeLeft(now - start, done);
    }
    barShown.store(true, std::memory_order_relaxed);
    std::fprintf(stderr, "%s%s %s%.0f a second%s", EraseLine, phase, bar.c_str(), Rate(now),
                 left.c_str());
    std::fflush(stderr);
    if (now - lastTime < BetweenLines) return;  // the rate is that of the last second or two
    lastTime = now;
    lastCount = counts.Total();
}

void Progress::PrintLine(Clock::time_point now, std::string const& state) {
    std::printf("%s %3.0f s: %s%" PRIu64 " operations, %.0f a second\n", phase, Elapsed().count(),
                state.c_str(), counts.Total() - before, Rate(now));
    std::fflush(stdout);
    lastTime = now;
    lastCount = counts.Total();
}

void EraseProgressBar() {
    if (barShown.exchange(false, std::memory_order_relaxed)) std::fputs(EraseLine, stderr);
}
